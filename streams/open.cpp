// Where streams are born by name.
#include <kal/stream.h>

#include "platform/file_calls.h"
#include "streams/backends.h"
#include "streams/search.h"

#include <kal/heap.h>

// Each in its own source.
extern const Backend memoryBackend, vmemBackend, mappingBackend, storageBackend;

namespace {

// In the order in which their bits are looked at; a mode with none of them is a disk stream.
constexpr const Backend* backends[] = {&memoryBackend, &vmemBackend, &mappingBackend, &storageBackend};

const Backend* backendFor(uint16_t mode) {
    for (const Backend* backend : backends)
        if ((mode & backend->modeBit) != 0)
            return backend;
    return nullptr;
}

constexpr uint16_t kWriteAccess = KAL_MODE_WRITE | KAL_MODE_UPDATE;

// Opens `name` in the directories of the search text, one after another.
HFILE openAlongSearchText(const char* name, int access) {
    HFILE file = HFILE_ERROR;
    alongSearchText(name, [&file, access](const char* candidate) {
        file = _lopen(candidate, access);
        return file != HFILE_ERROR;
    });
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

int16_t openDiskStream(SFILE* record, const char* name) {
    if (name == nullptr)
        name = "";
    const HFILE file = openOrCreate(name, record->mode);
    if (file == HFILE_ERROR) {
        const int16_t status = openStatus();
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
        KalFreeSMem(record->name);
        KalFreeSMem(record);
        return status;
    }
    setUpDiskStream(record, file, position);
    return KAL_OK;
}

} // namespace

const Backend* backendOf(const SFILE* stream) {
    for (const Backend* backend : backends)
        if (stream->close == backend->close)
            return backend;
    return nullptr;
}

bool isDiskMode(uint16_t mode) {
    return backendFor(mode) == nullptr;
}

bool isDiskStream(const SFILE* stream) {
    return stream != nullptr && isDiskMode(stream->mode) && stream->write == KalWriteDiskFile;
}

int16_t KalOpenFile(SFILE** out, const char* name, uint16_t mode, int32_t size) {
    *out = nullptr;
    auto* record = static_cast<SFILE*>(KalAllocSMem(sizeof(SFILE)));
    if (record == nullptr)
        return KAL_ERR_MEMORY;
    record->mode = mode;
    const Backend* backend = backendFor(mode);
    const int16_t status =
        backend != nullptr ? backend->setUp(record, name, size) : openDiskStream(record, name);
    if (status == KAL_OK)
        *out = record;
    return status;
}
