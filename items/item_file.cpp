// Opening, making, freeing and closing item files.
#include "items/item_index.h"

#include "streams/close.h"

#include <kal/heap.h>

namespace {

bool readWhole(SFILE* stream, void* destination, uint32_t count) {
    return stream->read(stream, destination, count) == static_cast<int32_t>(count);
}

bool writeWhole(SFILE* stream, const void* source, uint32_t count) {
    return stream->write(stream, source, count) == static_cast<int32_t>(count);
}

// Format flags and count: made for a new file, else read from the stream.
int16_t takeHeader(IFILE* file, uint16_t format) {
    SFILE* stream = file->stream;
    if (!seekTo(stream, 0))
        return stream->status;
    if ((file->mode & KAL_MODE_CREATE) != 0) {
        file->formatFlags = format;
        return KAL_OK;
    }
    uint8_t header[kItemHeaderBytes];
    if (!readWhole(stream, header, sizeof header))
        return stream->status;
    file->formatFlags = loadLittle<uint16_t>(header);
    file->count = loadLittle<uint16_t>(header + 2);
    return format != 0 && format != file->formatFlags ? int16_t(KAL_ERR_FORMAT) : int16_t(KAL_OK);
}

// The index array with its spare entries, filled from the stream behind the header.
int16_t takeIndex(IFILE* file) {
    const uint32_t capacity = uint32_t(file->count) + kSpareEntries;
    const uint32_t room = capacity * entryBytes(file);
    if (room > KAL_INDEX_ROOM_MAX)
        return KAL_ERR_BUFFER;
    file->capacity = static_cast<uint16_t>(capacity);
    file->index = static_cast<ItemIndex*>(KalAllocSMem(room));
    if (file->index == nullptr)
        return KAL_ERR_BUFFER;
    if (file->count > 0)
        return readWhole(file->stream, file->index, file->count * entryBytes(file)) ? KAL_OK : KAL_ERR_READ;
    if (!hasWriteAccess(file))
        return KAL_OK;
    // An empty file gets the layout of a new one: the header, and room for the first entries.
    uint8_t header[kItemHeaderBytes] = {};
    storeLittle(header, uint16_t(file->formatFlags));
    SFILE* stream = file->stream;
    const bool written = seekTo(stream, 0) && writeWhole(stream, header, sizeof header) &&
                         writeWhole(stream, file->index, room);
    return written ? int16_t(KAL_OK) : int16_t(stream->status);
}

void release(IFILE* file) {
    if (file->index != nullptr)
        KalFreeSMem(file->index);
    KalFreeSMem(file);
}

// Lays an item file over a stream that was just opened for it.
int16_t makeOverOwnStream(IFILE** out, SFILE* stream, uint16_t format) {
    const int16_t status = KalMakeIFile(out, stream, format);
    if (status != KAL_OK)
        closeForGood(stream);
    return status;
}

} // namespace

int16_t KalOpenIFile(IFILE** out, const char* name, uint16_t mode, uint16_t format) {
    *out = nullptr;
    SFILE* stream;
    const int16_t status = KalOpenFile(&stream, name, mode, 0);
    return status == KAL_OK ? makeOverOwnStream(out, stream, format) : status;
}

int16_t KalOpenTempIFile(IFILE** out) {
    *out = nullptr;
    SFILE* stream;
    const int16_t status = KalOpenTempFile(&stream, KAL_MODE_NEW_FILE, 0);
    return status == KAL_OK ? makeOverOwnStream(out, stream, 0) : status;
}

int16_t KalMakeIFile(IFILE** out, SFILE* stream, uint16_t format) {
    *out = nullptr;
    auto* file = static_cast<IFILE*>(KalAllocSMem(sizeof(IFILE)));
    if (file == nullptr)
        return KAL_ERR_MEMORY;
    file->stream = stream;
    file->mode = stream->mode;
    int16_t status = takeHeader(file, format);
    if (status == KAL_OK)
        status = takeIndex(file);
    if (status != KAL_OK) {
        release(file);
        return status;
    }
    *out = file;
    return KAL_OK;
}

int16_t KalFreeIFile(IFILE* file) {
    if (file == nullptr)
        return KAL_OK;
    const int16_t status = hasWriteAccess(file) ? flushWhole(file) : int16_t(KAL_OK);
    release(file);
    return status;
}

int16_t KalCloseIFile(IFILE* file) {
    if (file == nullptr)
        return KAL_OK;
    SFILE* stream = file->stream;
    const int16_t status = KalFreeIFile(file);
    const int16_t closed = closeForGood(stream);
    return status != KAL_OK ? status : closed;
}
