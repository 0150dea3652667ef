// Where streams are born by name.
#include <kal/stream.h>

#include "platform/file_calls.h"
#include "streams/backends.h"

#include <kal/heap.h>
#include <kal/path.h>

#include <cerrno>
#include <cstring>

namespace {

// Until a back-end of its own stands in the table.
int16_t refuse(SFILE* record, const char*, int32_t) {
    KalFreeSMem(record);
    return KAL_ERR_SERVICE;
}

// In the order in which their bits are looked at; a mode with none of them is a disk stream.
constexpr struct {
    uint16_t modeBit;
    SetUpBackend setUp;
} backends[] = {
    {KAL_MODE_MEMORY, setUpMemoryStream},
    {KAL_MODE_VMEM, setUpVMemStream},
    {KAL_MODE_FILEMAP, refuse},
};

constexpr uint16_t kWriteAccess = KAL_MODE_WRITE | KAL_MODE_UPDATE;

int16_t openFailed() {
    return static_cast<int16_t>(KAL_ERR_OPEN - errno);
}

// Opens `name` in the directories of the search text, one after another.
HFILE openAlongSearchText(const char* name, int access) {
    const char* rest = KalGetPath();
    if (rest == nullptr)
        return HFILE_ERROR;
    const size_t room = std::strlen(rest) + 1 + KAL_FILE_SIZE + KAL_EXT_SIZE + 1;
    auto* candidate = static_cast<char*>(KalAllocSMem(static_cast<uint32_t>(room)));
    if (candidate == nullptr) {
        errno = ENOMEM;
        return HFILE_ERROR;
    }
    HFILE file = HFILE_ERROR;
    while (rest != nullptr && file == HFILE_ERROR) {
        rest = KalNextPathFile(candidate, rest, name);
        file = _lopen(candidate, access);
    }
    const int error = errno;
    KalFreeSMem(candidate);
    errno = error;
    return file;
}

HFILE openOrCreate(const char* name, uint16_t mode) {
    if ((mode & KAL_MODE_CREATE) != 0)
        return _lcreat(name, 0);
    const bool append = (mode & KAL_MODE_APPEND) != 0;
    const int access = append || (mode & kWriteAccess) != 0 ? OF_READWRITE : OF_READ;
    HFILE file = _lopen(name, access);
    if (file == HFILE_ERROR && (mode & KAL_MODE_SEARCH) != 0)
        file = openAlongSearchText(name, access);
    if (file == HFILE_ERROR && append)
        file = _lcreat(name, 0);
    return file;
}

char* copyText(const char* text) {
    const size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(KalAllocSMem(static_cast<uint32_t>(size)));
    if (copy != nullptr)
        std::memcpy(copy, text, size);
    return copy;
}

int16_t openDiskStream(SFILE* record, const char* name) {
    if (name == nullptr)
        name = "";
    const HFILE file = openOrCreate(name, record->mode);
    if (file == HFILE_ERROR) {
        const int16_t status = openFailed();
        KalFreeSMem(record);
        return status;
    }
    uint32_t position = 0;
    if ((record->mode & KAL_MODE_APPEND) != 0) {
        if ((record->mode & kWriteAccess) == 0)
            record->mode |= KAL_MODE_WRITE;
        position = static_cast<uint32_t>(_llseek(file, 0, KAL_SEEK_END));
    }
    record->name = copyText(name);
    if (position == KAL_NO_POSITION || record->name == nullptr) {
        const int16_t status = record->name == nullptr ? KAL_ERR_MEMORY : KAL_ERR_SEEK;
        _lclose(file);
        if (record->name != nullptr)
            KalFreeSMem(record->name);
        KalFreeSMem(record);
        return status;
    }
    setUpDiskStream(record, file, position);
    return KAL_OK;
}

} // namespace

int16_t KalOpenFile(SFILE** out, const char* name, uint16_t mode, int32_t size) {
    *out = nullptr;
    auto* record = static_cast<SFILE*>(KalAllocSMem(sizeof(SFILE)));
    if (record == nullptr)
        return KAL_ERR_MEMORY;
    record->mode = mode;
    for (const auto& backend : backends) {
        if ((mode & backend.modeBit) == 0)
            continue;
        const int16_t status = backend.setUp(record, name, size);
        if (status == KAL_OK)
            *out = record;
        return status;
    }
    const int16_t status = openDiskStream(record, name);
    if (status == KAL_OK)
        *out = record;
    return status;
}
