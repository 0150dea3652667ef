// Reading lines and writing texts, on any stream.
#include <kal/stream.h>

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

// The bytes that may be taken straight from the buffer. In a window what lies past its end is not the
// stream's.
uint32_t bytesAhead(const SFILE* stream) {
    uint32_t end = stream->bufEnd;
    if (stream->getChar == ConstGetDiskChar)
        end = std::min(end, static_cast<uint32_t>(stream->backData));
    const bool inBuffer = stream->bufSize != 0 && stream->bufStart <= stream->pos && stream->pos < end;
    return inBuffer ? end - stream->pos : 0;
}

void advance(SFILE* stream, uint32_t count) {
    stream->pos += count;
    stream->bufPtr += count;
}

// What a line feed after a carriage return is: part of the same line end.
void skipLineFeed(SFILE* stream) {
    if (bytesAhead(stream) > 0) {
        if (*stream->bufPtr == kLineFeed)
            advance(stream, 1);
    } else if (stream->getChar(stream) != kLineFeed && stream->status == KAL_OK) {
        KalUnGetChar(stream);
    }
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
        const uint32_t ahead = bytesAhead(stream);
        uint8_t byte;
        if (ahead > 0) {
            // Under a status that stands from before, the first character that ends no line is the last one.
            const auto room = static_cast<uint32_t>(last - out);
            const uint32_t run = stream->status == KAL_OK ? std::min(ahead, room) : 1;
            const uint32_t copied = copyLine(out, stream->bufPtr, run);
            advance(stream, copied);
            out += copied;
            if (copied == run) {
                if (stream->status != KAL_OK)
                    return stream->status;
                continue;
            }
            byte = *stream->bufPtr;
            advance(stream, 1);
        } else {
            byte = static_cast<uint8_t>(stream->getChar(stream));
            if (!endsLine(byte)) {
                *out++ = byte;
                if (stream->status != KAL_OK)
                    return stream->status;
                continue;
            }
        }
        *out = 0;
        if (byte == kReturn)
            skipLineFeed(stream);
        return KAL_OK;
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
