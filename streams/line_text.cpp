// Reading lines and writing texts, on any stream.
#include "streams/bytes_ahead.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr char kReturn = '\r';
constexpr char kLineFeed = '\n';
constexpr uint32_t kLongestText = 65535;

constexpr uint64_t kOnes = 0x0101010101010101;

bool endsLine(uint8_t byte) {
    return byte == kReturn || byte == kLineFeed;
}

// A word that has a bit set in each byte of `word` that is 0; the lowest one set is exact.
uint64_t zeroBytes(uint64_t word) {
    return (word - kOnes) & ~word & (kOnes << 7);
}

// Copies bytes up to, not including, the first that ends a line, at most `count`. How many.
uint32_t copyLine(uint8_t* to, const uint8_t* from, uint32_t count) {
    uint32_t done = 0;
    for (; count - done >= sizeof(uint64_t); done += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, from + done, sizeof word);
        std::memcpy(to + done, &word, sizeof word);
        const uint64_t ends = zeroBytes(word ^ kOnes * kReturn) | zeroBytes(word ^ kOnes * kLineFeed);
        if (ends != 0)
            return done + uint32_t(std::countr_zero(ends)) / 8;
    }
    while (done < count && !endsLine(from[done])) {
        to[done] = from[done];
        done++;
    }
    return done;
}

// What a line feed after a carriage return is: part of the same line end.
void skipLineFeed(SFILE* stream) {
    {
        BytesAhead ahead(stream);
        if (ahead.count() > 0) {
            if (*ahead.bytes() == kLineFeed)
                ahead.take(1);
            return;
        }
    }
    if (stream->getChar(stream) != kLineFeed && stream->status == KAL_OK)
        KalUnGetChar(stream);
}

// Takes up to `room` bytes of a line from those ahead, and the byte that ends it. Under a status that stands from
// before, and that taking a byte does not clear, the first that ends no line is the last one. The bytes of the line;
// `ended` is the byte that ended it, or 0.
uint32_t takeLine(SFILE* stream, uint8_t* out, uint32_t room, uint8_t* ended) {
    BytesAhead ahead(stream);
    const uint32_t run = std::min({ahead.count(), room, stream->status == KAL_OK ? room : 1});
    const uint32_t copied = copyLine(out, ahead.bytes(), run);
    *ended = copied < run ? ahead.bytes()[copied] : uint8_t(0);
    ahead.take(copied < run ? copied + 1 : copied);
    return copied;
}

} // namespace

int16_t KalUnGetChar(SFILE* stream) {
    return stream->seek(stream, -1, KAL_SEEK_CURRENT);
}

int16_t KalGetStr(SFILE* stream, char* destination, uint32_t size) {
    if (size == 0)
        return KAL_OK;
    auto* out = reinterpret_cast<uint8_t*>(destination);
    for (uint8_t* const last = out + (size - 1); out < last;) {
        uint8_t ended;
        const uint32_t taken = takeLine(stream, out, static_cast<uint32_t>(last - out), &ended);
        out += taken;
        if (taken == 0 && ended == 0) { // nothing is ahead
            const auto byte = static_cast<uint8_t>(stream->getChar(stream));
            if (endsLine(byte))
                ended = byte;
            else
                *out++ = byte;
        }
        if (ended != 0) {
            *out = 0;
            if (ended == kReturn)
                skipLineFeed(stream);
            return KAL_OK;
        }
        if (stream->status != KAL_OK)
            return stream->status;
    }
    *out = 0;
    return KAL_OK;
}

int16_t KalPutStr(SFILE* stream, const char* text) {
    stream->write(stream, text, uint32_t(std::min<size_t>(std::strlen(text), kLongestText)));
    return stream->status;
}

int16_t KalPutStrX(SFILE* stream, const char* text) {
    for (; *text != 0; text++) {
        if (*text == kLineFeed) {
            const int16_t status = stream->putChar(stream, kReturn);
            if (status != KAL_OK)
                return status;
        }
        const int16_t status = stream->putChar(stream, *text);
        if (status != KAL_OK)
            return status;
    }
    return KAL_OK;
}
