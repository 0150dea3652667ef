// Services built on streams: temporary files, existence, appending and copying.
#include <kal/stream.h>

#include "paths/temp_names.h"
#include "platform/file_calls.h"
#include "platform/file_information.h"
#include "streams/backends.h"

#include <kal/heap.h>
#include <kal/memory.h>
#include <kal/path.h>

#include <algorithm>

namespace {

constexpr uint32_t kCopyBlock = 32768;
constexpr uint32_t kLeastCatBlock = 512;
constexpr uint8_t kEndOfText = 0x1A;

bool sameFile(const SFILE* left, const SFILE* right) {
    BY_HANDLE_FILE_INFORMATION one, other;
    return GetFileInformationByHandle(static_cast<HFILE>(left->handle), &one) != 0 &&
           GetFileInformationByHandle(static_cast<HFILE>(right->handle), &other) != 0 &&
           one.volume == other.volume && one.fileIndex == other.fileIndex;
}

// Whether `name` is there already and is the file behind `stream`.
bool isSameFile(const char* name, const SFILE* stream) {
    SFILE* present;
    if (KalOpenFile(&present, name, 0, 0) != KAL_OK)
        return false;
    const bool same = sameFile(present, stream);
    present->close(present);
    return same;
}

int16_t copyBlocks(SFILE* to, SFILE* from) {
    int16_t status = KalSetBuf(from, 0);
    if (status == KAL_OK)
        status = KalSetBuf(to, 0);
    if (status != KAL_OK)
        return status;
    uint32_t size = kCopyBlock;
    void* block = KalAsMuchSMem(&size);
    if (block == nullptr)
        return KAL_ERR_BUFFER;
    // The host's own copy first; reads and writes do what it leaves, which may be all.
    const uint32_t copied =
        _lcopy(static_cast<HFILE>(to->handle), static_cast<HFILE>(from->handle), KAL_NO_POSITION - 1);
    from->pos = from->osPos = to->pos = to->osPos = copied;
    int32_t got;
    while ((got = from->read(from, block, size)) > 0)
        if (to->write(to, block, static_cast<uint32_t>(got)) != got)
            break; // what follows could not follow
    return KalFreeSMem(block);
}

} // namespace

int16_t KalOpenTempFile(SFILE** out, uint16_t mode, uint16_t keep) {
    *out = nullptr;
    auto* name = static_cast<char*>(KalAllocSMem(KAL_NAME_SIZE));
    if (name == nullptr)
        return KAL_ERR_MEMORY;
    bool reserved = false;
    const bool onDisk = isDiskMode(mode);
    const bool reserves = onDisk && (mode & KAL_MODE_CREATE) != 0;
    int16_t status = reserves ? findUniqueName(name, KAL_NAME_SIZE, reserveName, &reserved)
                              : KalGetUnique(name, KAL_NAME_SIZE);
    if (status == KAL_OK && reserves && !reserved) // any file of that name is somebody else's
        status = openStatus();
    if (status == KAL_OK)
        status = KalOpenFile(out, name, mode, 0);
    if (status != KAL_OK && reserved)
        _unlink(name);
    if (status == KAL_OK && keep == 0 && onDisk)
        (*out)->tempName = name;
    else // elsewhere there is no file to delete
        KalFreeSMem(name);
    return status;
}

uint16_t KalExistsFile(const char* name) {
    SFILE* stream;
    if (KalOpenFile(&stream, name, 0, 0) != KAL_OK)
        return 0;
    stream->close(stream);
    return 1;
}

int16_t KalFileCat(SFILE* destination, const char* name) {
    if (destination == nullptr)
        return KAL_ERR_NULL_STREAM;
    SFILE* source;
    const int16_t status = KalOpenFile(&source, name, KAL_MODE_SEARCH, 0);
    if (status != KAL_OK)
        return status;
    const uint32_t size = std::max<uint32_t>(source->bufSize, kLeastCatBlock);
    auto* block = static_cast<uint8_t*>(KalAllocSMem(size));
    if (block == nullptr) {
        source->close(source);
        return KAL_ERR_SERVICE;
    }
    // No further than the file reached at the start: the destination may be the same file. (A file of
    // the host's own making may know no length.)
    source->seek(source, 0, KAL_SEEK_END);
    uint32_t left = source->status == KAL_OK && source->pos > 0 ? source->pos : KAL_NO_POSITION;
    source->seek(source, 0, KAL_SEEK_START);
    int32_t got;
    while (left > 0 && (got = source->read(source, block, std::min(size, left))) > 0) {
        left -= static_cast<uint32_t>(got);
        const uint32_t kept = static_cast<uint32_t>(got) - (block[got - 1] == kEndOfText ? 1 : 0);
        destination->write(destination, block, kept);
    }
    source->close(source);
    KalFreeSMem(block);
    return KAL_OK;
}

int16_t KalCopyFile(const char* destination, const char* source) {
    SFILE* from;
    int16_t status = KalOpenFile(&from, source, 0, 0);
    if (status != KAL_OK)
        return status;
    SFILE* to = nullptr;
    if (isSameFile(destination, from))
        status = KAL_ERR_SERVICE;
    else
        status = KalOpenFile(&to, destination, KAL_MODE_NEW_FILE, 0);
    if (status == KAL_OK) {
        status = copyBlocks(to, from);
        to->close(to);
    }
    from->close(from);
    return status;
}
