// Closing a stream that nobody could close again.
#ifndef KAL_STREAMS_CLOSE_H
#define KAL_STREAMS_CLOSE_H

#include <kal/stream.h>

// Closes the stream also when its buffer cannot be written back, which a close otherwise refuses so that its
// caller can make room and try again: here the caller is about to lose sight of the stream. The first close's status,
// which tells whether anything was lost.
inline int16_t closeForGood(SFILE* stream) {
    const int16_t status = stream->close(stream);
    if (status != KAL_OK && status != KAL_ERR_CLOSE) {
        stream->dirty = 0;
        stream->close(stream);
    }
    return status;
}

#endif
