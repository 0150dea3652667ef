// A file's size and date, and whether it can be opened or made.
#include <kal/file.h>

#include "paths/temp_names.h"
#include "platform/file_calls.h"
#include "platform/file_information.h"
#include "streams/backends.h"

#include <kal/heap.h>
#include <kal/path.h>
#include <kal/stream.h>

#include <cstring>

namespace {

constexpr uint16_t kYearOfDates = 80; // the packed form's first year, less 1900

int16_t tryOpening(const char* path, uint16_t mode) {
    SFILE* stream;
    const int16_t status = KalOpenFile(&stream, path, mode, 0);
    if (status == KAL_OK)
        stream->close(stream);
    return status;
}

// The second half of trying to make a file, after reserveName: opens what that made and deletes it again.
// Only a file that was made here is deleted, and none is emptied.
int16_t tryReserved(const char* path, bool made) {
    if (!made)
        return openStatus();
    const int16_t status = tryOpening(path, KAL_MODE_UPDATE);
    _unlink(path);
    return status;
}

int16_t tryMaking(const char* path) {
    bool made = false;
    const bool isThere = !reserveName(path, &made);
    return isThere ? tryOpening(path, KAL_MODE_UPDATE) : tryReserved(path, made);
}

bool wouldEmpty(const char* path, uint16_t mode) {
    return (mode & KAL_MODE_CREATE) != 0 && isDiskMode(mode) && _access(path, 0) == 0;
}

uint16_t bits(uint16_t word, int low, int count) {
    return static_cast<uint16_t>((word >> low) & ((1 << count) - 1));
}

} // namespace

FILESTAT* KalOpenFileStat() {
    return static_cast<FILESTAT*>(KalAllocSMem(sizeof(FILESTAT)));
}

void KalCloseFileStat(FILESTAT* stat) {
    KalFreeSMem(stat);
}

int16_t KalFileStat(const char* path, FILESTAT* stat) {
    const size_t length = path != nullptr ? std::strlen(path) : 0;
    if (length >= KAL_NAME_SIZE)
        return KAL_ERR_SERVICE;
    auto* name = static_cast<char*>(KalAllocSMem(KAL_NAME_SIZE));
    if (name == nullptr)
        return KAL_ERR_MEMORY;
    if (length > 0)
        std::memcpy(name, path, length);
    bool made = false;
    int16_t status = findUniqueName(name, KAL_NAME_SIZE, reserveName, &made);
    if (status == KAL_OK) {
        status = tryReserved(name, made);
        stat->writable = status == KAL_OK ? 1 : 0;
    }
    KalFreeSMem(name);
    return status;
}

int16_t KalFileAttr(const char*, uint32_t*) {
    return KAL_OK;
}

int16_t KalGetFileDateTimeSize(const char* path, FILEINFO* info) {
    const int file = _open(path, 0);
    if (file < 0)
        return KAL_ERR_EXAMINE;
    BY_HANDLE_FILE_INFORMATION found;
    const bool known = GetFileInformationByHandle(file, &found) != 0;
    _close(file);
    uint16_t date, time;
    if (!known || FileTimeToDosDateTime(&found.ftLastWriteTime, &date, &time) == 0)
        return KAL_ERR_EXAMINE;
    info->month = bits(date, 5, 4);
    info->day = bits(date, 0, 5);
    info->year = static_cast<uint16_t>(bits(date, 9, 7) + kYearOfDates);
    info->hour = bits(time, 11, 5);
    info->minute = bits(time, 5, 6);
    info->seconds2 = bits(time, 0, 5);
    info->size = found.nFileSizeLow;
    return KAL_OK;
}

uint32_t KalGetFileSize(const char* path) {
    FileStatus found;
    const bool known = _stat(path, &found) == 0;
    return known ? static_cast<uint32_t>(found.st_size) : static_cast<uint32_t>(int32_t(KAL_ERR_EXAMINE));
}

int16_t KalAccessFile(const char* path, uint16_t mode) {
    return mode == KAL_MODE_NEW_FILE ? KalExplicitAccessFile(path, mode)
                                     : static_cast<int16_t>(_access(path, mode));
}

int16_t KalExplicitAccessFile(const char* path, uint16_t mode) {
    if (mode == KAL_MODE_NEW_FILE)
        return tryMaking(path);
    return tryOpening(path, wouldEmpty(path, mode) ? KAL_MODE_UPDATE : mode);
}
