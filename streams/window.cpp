// The constrained window: a stretch of a disk file as a file of its own.
#include "streams/backends.h"

namespace {

// An origin that is none of the three counts from the file's start and leaves the base offset out.
constexpr uint32_t kFileStart = 3;

uint32_t windowEnd(const SFILE* stream) {
    return static_cast<uint32_t>(stream->backData);
}

void installReading(SFILE* stream, decltype(SFILE::read) read, decltype(SFILE::getChar) getChar,
                    decltype(SFILE::seek) seek) {
    stream->read = read;
    stream->getChar = getChar;
    stream->seek = seek;
}

void removeWindow(SFILE* stream) {
    stream->backData = 0;
    installReading(stream, KalReadDiskFile, KalGetDiskChar, KalSeekDiskPos);
}

} // namespace

int16_t KalConstrainFile(SFILE* stream, int32_t start, int32_t end) {
    if (!isDiskStream(stream))
        return 1;
    const auto first = static_cast<uint32_t>(start);
    KalSetOffset(stream, first);
    if (end <= start) {
        removeWindow(stream);
        return KAL_OK;
    }
    stream->backData = static_cast<uint32_t>(end);
    installReading(stream, ConstReadDiskFile, ConstGetDiskChar, ConstSeekDiskPos);
    stream->dirty = 0;
    stream->pos = first;
    stream->bufPtr = stream->buf;
    if (stream->bufSize != 0)
        stream->bufStart = stream->bufEnd = first;
    return KAL_OK;
}

void KalUnconstrainFile(SFILE* stream) {
    if (!isDiskStream(stream))
        return;
    KalSetOffset(stream, 0);
    removeWindow(stream);
}

int32_t ConstReadDiskFile(SFILE* stream, void* destination, uint32_t count) {
    const uint32_t end = windowEnd(stream);
    const uint32_t left = stream->pos < end ? end - stream->pos : 0;
    if (count <= left)
        return KalReadDiskFile(stream, destination, count);
    const int32_t got = left > 0 ? KalReadDiskFile(stream, destination, left) : 0;
    if (got >= 0)
        stream->status = got > 0 ? KAL_ERR_SHORT_READ : KAL_ERR_END;
    return got;
}

int32_t ConstGetDiskChar(SFILE* stream) {
    uint8_t byte;
    return stream->read(stream, &byte, 1) == 1 ? byte : stream->status;
}

int16_t ConstSeekDiskPos(SFILE* stream, int32_t offset, uint32_t origin) {
    const int64_t end = windowEnd(stream);
    const int64_t target = origin == KAL_SEEK_END       ? end - offset
                           : origin == KAL_SEEK_CURRENT ? int64_t(stream->pos) + offset
                                                        : int64_t(stream->offset) + offset;
    if (target > end || target < 0)
        return stream->status = KAL_ERR_SEEK;
    return KalSeekDiskPos(stream, static_cast<int32_t>(static_cast<uint32_t>(target)), kFileStart);
}
