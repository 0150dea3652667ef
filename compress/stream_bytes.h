// Bytes to and from the stream under a compressed one, in runs where that has the same effect as one call a
// byte: same position, same buffer, same status, same bytes at a failure.
#ifndef KAL_COMPRESS_STREAM_BYTES_H
#define KAL_COMPRESS_STREAM_BYTES_H

#include "streams/bytes_ahead.h"

// Whether `dirty` tells of every byte put: a buffer of one byte is passed by.
inline bool keepsDirty(const SFILE* stream) {
    return usesBuffer(stream) && stream->bufSize > 1;
}

// Takes the stream's next byte. False when there is none; `status` of the stream then says why.
inline bool takeByte(SFILE* stream, uint8_t* byte) {
    if (bytesInBuffer(stream) > 0) {
        *byte = *stream->bufPtr;
        advance(stream, 1);
        return true;
    }
    const int32_t got = stream->getChar(stream);
    *byte = static_cast<uint8_t>(got);
    return stream->status == KAL_OK;
}

// How many of `count` bytes one write call takes just as so many single puts would: all where there is no
// buffer, else what goes into the buffer. 0 when a single put must show the way: it fills a new buffer, or
// finds out whether a full disk has room again.
inline uint32_t bytesInOneWrite(const SFILE* stream, uint32_t count) {
    if (stream->write == nullptr || stream->status != KAL_OK)
        return 0;
    if (!usesBuffer(stream))
        return count;
    const uint32_t at = stream->pos - stream->bufStart;
    const uint32_t filled = stream->bufEnd - stream->bufStart;
    return at <= filled && at < stream->bufSize ? std::min(count, stream->bufSize - at) : 0;
}

// Puts the bytes. How many were accepted: all, or fewer with the reason in the stream's status.
inline uint32_t putBytes(SFILE* stream, const uint8_t* bytes, uint32_t count) {
    uint32_t done = 0;
    while (done < count) {
        const uint32_t run = bytesInOneWrite(stream, count - done);
        const uint32_t start = stream->pos;
        if (run == 0) {
            stream->putChar(stream, static_cast<char>(bytes[done]));
            if (stream->status != KAL_OK)
                break;
            done++;
        } else {
            const int32_t accepted = stream->write(stream, bytes + done, run);
            if (accepted != static_cast<int32_t>(run))
                return done + std::min(stream->pos - start, run);
            done += run;
        }
    }
    return done;
}

#endif
