// The bytes ahead of a stream: those that can be taken from where they lie, without a call of a slot for each.
//
//     BytesAhead ahead(stream);
//     use(ahead.bytes(), ahead.count());     // count() may be 0 at any time: a slot then goes on, or tells the end
//     ahead.take(used);                      // the stream stands as if so many get-character calls had been made
//
// Nothing else is done to the stream while one lives. Where there is a buffer its bytes are ahead, also those of a
// stream that somebody else made; elsewhere the back-end says what is (see Backend).
#ifndef KAL_STREAMS_BYTES_AHEAD_H
#define KAL_STREAMS_BYTES_AHEAD_H

#include "streams/backends.h"

#include <algorithm>

// Whether there is a buffer and it holds the byte at `pos`. The end of one that nothing was read into yet may lie
// before its start.
inline bool isInBuffer(const SFILE* stream, uint32_t pos) {
    return pos - stream->bufStart < stream->bufSize && pos < stream->bufEnd;
}

// The bytes in the buffer from `pos` on. In a window what lies past its end is not the stream's.
inline uint32_t bytesInBuffer(const SFILE* stream) {
    if (!isInBuffer(stream, stream->pos))
        return 0;
    const uint32_t bufEnd = stream->bufEnd;
    const bool isWindow = stream->getChar == ConstGetDiskChar;
    const uint32_t end = isWindow ? std::min(bufEnd, static_cast<uint32_t>(stream->backData)) : bufEnd;
    return end > stream->pos ? end - stream->pos : 0;
}

// Takes bytes of the buffer, or of a mapping, where `bufPtr` goes with `pos`.
inline void advance(SFILE* stream, uint32_t count) {
    stream->pos += count;
    stream->bufPtr += count;
}

class BytesAhead {
public:
    explicit BytesAhead(SFILE* stream) : stream_(stream), inBuffer_(bytesInBuffer(stream)) {
        if (inBuffer_ == 0)
            if (const Backend* backend = backendOf(stream); backend != nullptr && backend->look != nullptr) {
                backend_ = backend;
                backend->look(stream, &placed_);
            }
    }
    ~BytesAhead() {
        if (placed_.bytes != nullptr && backend_->letGo != nullptr)
            backend_->letGo(&placed_);
    }
    BytesAhead(const BytesAhead&) = delete;
    BytesAhead& operator=(const BytesAhead&) = delete;

    uint32_t count() const { return backend_ == nullptr ? inBuffer_ : placed_.count; }
    const uint8_t* bytes() const { return backend_ == nullptr ? stream_->bufPtr : placed_.bytes; }
    void take(uint32_t count) {
        if (backend_ == nullptr) {
            inBuffer_ -= count;
            advance(stream_, count);
        } else if (count > 0) {
            placed_.bytes += count;
            placed_.count -= count;
            backend_->take(stream_, count);
        }
    }

private:
    SFILE* stream_;
    uint32_t inBuffer_;
    const Backend* backend_ = nullptr; // null while the bytes are those of the buffer
    PlacedBytes placed_;
};

#endif
