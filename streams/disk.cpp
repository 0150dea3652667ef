// The disk back-end, and the buffer controls of every stream.
#include <kal/stream.h>

#include "platform/file_calls.h"
#include "streams/backends.h"
#include "streams/buffered.h"

#include <kal/heap.h>

namespace {

constexpr uint32_t kDefaultBuffer = 512;

struct DiskSource {
    static int32_t handle(const SFILE* s) { return static_cast<int32_t>(s->handle); }
    static uint32_t seek(SFILE* s, int32_t offset, int origin) {
        return static_cast<uint32_t>(_llseek(handle(s), offset, origin));
    }
    static uint32_t read(SFILE* s, void* destination, uint32_t count) {
        return _lread(handle(s), destination, count);
    }
    static uint32_t write(SFILE* s, const void* source, uint32_t count) {
        return _lwrite(handle(s), source, count);
    }
    // Only these two open the handle for writing, so nothing else may put bytes into the buffer.
    static bool isWritable(const SFILE* s) { return (s->mode & (KAL_MODE_WRITE | KAL_MODE_UPDATE)) != 0; }
};

using Disk = BufferedStream<DiskSource>;

constexpr StreamOperations diskOperations = {KalReadDiskFile, KalGetDiskChar, KalWriteDiskFile,
                                             KalPutDiskChar,  KalSeekDiskPos, KalCloseDiskFile};

// Gives the stream an empty buffer of `size` bytes, or none for 0. False when memory is short: the stream has
// no buffer then.
bool giveBuffer(SFILE* stream, uint32_t size) {
    stream->buf = size > 0 ? static_cast<uint8_t*>(KalAllocSMem(size)) : nullptr;
    stream->bufPtr = stream->buf;
    stream->bufSize = stream->buf != nullptr ? size : 0;
    stream->bufStart = 0;
    stream->bufEnd = stream->buf != nullptr ? 0 : KAL_NO_POSITION;
    stream->dirty = 0;
    return stream->buf != nullptr || size == 0;
}

} // namespace

void setUpDiskStream(SFILE* record, int32_t handle, uint32_t position) {
    record->handle = static_cast<uint32_t>(handle);
    record->pos = record->osPos = position;
    giveBuffer(record, kDefaultBuffer);
    record->bufStart = position;
    installOperations(record, diskOperations);
}

int16_t KalMakeSFile(SFILE** out, int32_t handle) {
    *out = static_cast<SFILE*>(KalAllocSMem(sizeof(SFILE)));
    if (*out == nullptr)
        return KAL_ERR_MEMORY;
    setUpDiskStream(*out, handle, 0);
    return KAL_OK;
}

int16_t KalSetBuf(SFILE* stream, uint32_t size) {
    if (stream == nullptr)
        return KAL_ERR_NULL_STREAM;
    // A mapping keeps no buffer, and VMem streams keep their length in the buffer's fields.
    if ((stream->mode & (KAL_MODE_FILEMAP | KAL_MODE_VMEM)) != 0)
        return KAL_OK;
    const uint32_t oldSize = stream->bufSize;
    KalFreeSMem(stream->buf);
    if (giveBuffer(stream, size))
        return stream->status = KAL_OK;
    giveBuffer(stream, oldSize);
    return stream->status = KAL_ERR_BUFFER;
}

int16_t KalFlushBuf(SFILE* stream) {
    if (stream == nullptr)
        return KAL_ERR_NULL_STREAM;
    const Backend* backend = backendOf(stream);
    return backend != nullptr && backend->flush != nullptr ? backend->flush(stream) : Disk::flush(stream);
}

int16_t KalSetOffset(SFILE* stream, uint32_t offset) {
    if (stream == nullptr)
        return KAL_ERR_NULL_STREAM;
    stream->offset = offset;
    return KAL_OK;
}

int32_t KalReadDiskFile(SFILE* stream, void* destination, uint32_t count) {
    return Disk::read(stream, destination, count);
}

int32_t KalGetDiskChar(SFILE* stream) {
    return Disk::getChar(stream);
}

int32_t KalWriteDiskFile(SFILE* stream, const void* source, uint32_t count) {
    return Disk::write(stream, source, count);
}

int16_t KalPutDiskChar(SFILE* stream, char byte) {
    return Disk::putChar(stream, byte);
}

int16_t KalSeekDiskPos(SFILE* stream, int32_t offset, uint32_t origin) {
    return Disk::seek(stream, offset, origin);
}

int16_t KalCloseDiskFile(SFILE* stream) {
    if (stream->dirty == 1 && stream->tempName == nullptr && Disk::flush(stream) != KAL_OK)
        return stream->status;
    KalFreeSMem(stream->buf);
    const bool closed = _lclose(DiskSource::handle(stream)) == 0;
    KalFreeSMem(stream->name);
    if (stream->tempName != nullptr) {
        _unlink(stream->tempName);
        KalFreeSMem(stream->tempName);
    }
    KalFreeSMem(stream);
    return closed ? KAL_OK : KAL_ERR_CLOSE;
}
