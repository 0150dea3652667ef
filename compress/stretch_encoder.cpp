#include "compress/stretch_encoder.h"

#include "compress/stream_bytes.h"

#include <array>

namespace {

constexpr uint32_t kNoCode = StretchStrings::kNoCode;

// One number a character, spread over all slots: strings of neighbouring codes and characters fall apart.
constexpr auto spread = [] {
    std::array<uint16_t, 256> table{};
    for (uint32_t character = 0; character < table.size(); character++)
        table[character] = static_cast<uint16_t>(character * 0x9E3779B1u >> (32 - StretchStrings::kSlotBits));
    return table;
}();

// Where codes go: whole bytes to `out`, the bits of the last, unfinished byte kept.
struct BitWriter {
    uint8_t* out;
    uint64_t bits;
    uint32_t count; // of `bits`, fewer than 8

    // One code or several, at most 56 bits.
    void put(uint64_t codes, uint32_t width) {
        bits |= codes << count;
        count += width;
        storeLittle<uint64_t>(out, bits);
        out += count >> 3;
        bits >>= count & ~7u;
        count &= 7;
    }
};

// The encoder's record keeps the unfinished byte with the newest bit highest.
uint32_t unfinishedBits(const TAGWRITELZW* encoder) {
    const uint32_t count = encoder->bitCount % 8u;
    return count == 0 ? 0 : static_cast<uint32_t>(encoder->bitBuffer) >> (7 - count);
}

void keepUnfinished(TAGWRITELZW* encoder, uint64_t bits, uint32_t bitsWritten) {
    encoder->bitCount = static_cast<uint16_t>(encoder->bitCount + bitsWritten);
    const uint32_t count = encoder->bitCount % 8u;
    encoder->bitBuffer = static_cast<uint8_t>(count == 0 ? 0 : bits << (7 - count));
}

uint32_t lengthOf(const StretchStrings* strings, uint32_t code) {
    uint32_t length = 1;
    for (; code >= kFirstCode; length++)
        code = strings->maker[code] >> 8;
    return length;
}

// The slot of the string that `prefix` and `character` make, or the empty one where it belongs.
inline uint32_t findSlot(const StretchStrings* strings, uint32_t prefix, uint32_t character) {
    const uint32_t wanted = prefix << 8 | character;
    uint32_t at = prefix ^ spread[character];
    while (strings->slots[at] != kNoCode && strings->maker[strings->slots[at]] != wanted)
        [[unlikely]] at = (at + 1) % StretchStrings::kSlots;
    return at;
}

inline void takeSlot(StretchStrings* strings, uint32_t at, uint32_t code) {
    strings->slots[at] = static_cast<uint16_t>(code);
    strings->taken[strings->takenCount++] = static_cast<uint16_t>(at);
}

void emptySlots(StretchStrings* strings) {
    for (uint32_t i = 0; i < strings->takenCount; i++)
        strings->slots[strings->taken[i]] = kNoCode;
    strings->takenCount = 0;
}

// Forgets the codes from `next` up to `end`, the highest one known.
void forgetFrom(StretchStrings* strings, uint32_t next, uint32_t end) {
    emptySlots(strings);
    for (uint32_t code = kFirstCode; code < end; code++) {
        const uint32_t maker = strings->maker[code];
        if (maker >> 8 < kRoots)
            strings->pairs[maker] = code < next ? strings->pairs[maker] : uint16_t{0};
        else if (code < next)
            takeSlot(strings, findSlot(strings, maker >> 8, maker & 0xFF), code);
    }
}

// Puts the codes that were written while `next` rose from `first` to `end`.
void putCodes(const uint16_t* codes, uint32_t first, uint32_t end, BitWriter* writer) {
    BitWriter out = *writer;
    for (uint32_t next = first; next < end;) {
        const uint32_t width = widthFor(next);
        const uint32_t lastOfWidth = std::min(end, (1u << width) + 1);
        for (; next + 4 <= lastOfWidth; next += 4) {
            const uint64_t low = codes[next] | uint32_t{codes[next + 1]} << width;
            const uint64_t high = codes[next + 2] | uint32_t{codes[next + 3]} << width;
            out.put(low | high << 2 * width, 4 * width);
        }
        for (; next < lastOfWidth; next++)
            out.put(codes[next], width);
    }
    *writer = out;
}

// Codes the bytes until they are used up or the stretch is full; whole bytes go to `strings->coded`. Returns
// the end of what was consumed; encoder and writer are moved on.
const uint8_t* codeStretch(StretchStrings* strings, TAGWRITELZW* encoder, const uint8_t* in,
                           const uint8_t* end, BitWriter* writer) {
    const uint32_t first = encoder->nextCode;
    const uint32_t tag = strings->pairTag;
    uint32_t current = encoder->currentCode;
    uint32_t next = first;
    if (current == kClearCode)
        current = *in++;

    while (in != end && next <= kLastAssigned) {
        const uint32_t character = *in++;
        const uint32_t wanted = current << 8 | character;
        if (current < kRoots) {
            const uint32_t code = strings->pairs[wanted] ^ tag;
            if (code < KAL_LZW_CODES) {
                current = code;
                continue;
            }
            strings->pairs[wanted] = static_cast<uint16_t>(tag | next);
        } else {
            const uint32_t at = findSlot(strings, current, character);
            if (strings->slots[at] != kNoCode) {
                current = strings->slots[at];
                continue;
            }
            takeSlot(strings, at, next);
        }
        strings->maker[next] = wanted;
        strings->codes[next] = static_cast<uint16_t>(current);
        current = character;
        next++;
    }
    putCodes(strings->codes, first, next, writer);

    encoder->character = end[-1];
    encoder->currentCode = static_cast<uint16_t>(current);
    encoder->nextCode = static_cast<uint16_t>(next);
    encoder->codeWidth = static_cast<uint8_t>(widthFor(next));
    return in;
}

// Where a stretch, or this call's part of it, began.
struct Mark {
    uint16_t currentCode;
    uint16_t nextCode;
    uint32_t bitCount;
    uint32_t consumed;
};

// The stream took only `accepted` of the coded bytes: puts the encoder back before the code that would have
// completed the next one. Returns the bytes consumed until then.
uint32_t stepBack(StretchStrings* strings, TAGWRITELZW* encoder, const Mark& mark, uint32_t accepted) {
    uint32_t bit = mark.bitCount;
    uint32_t next = mark.nextCode;
    uint32_t consumed =
        mark.consumed - (mark.currentCode == kClearCode ? 0 : lengthOf(strings, mark.currentCode));
    for (;;) {
        const uint32_t width = widthFor(next);
        const auto code = static_cast<uint32_t>(loadLittle<uint64_t>(strings->coded + bit / 8) >> bit % 8) &
                          ((1u << width) - 1);
        const bool closing = next > kLastAssigned;
        // The byte whose own code closes a stretch counts only with the clear code behind it.
        const uint32_t length = closing ? 0 : lengthOf(strings, code);
        if ((bit + width) / 8 > accepted) {
            forgetFrom(strings, next, encoder->nextCode);
            encoder->nextCode = static_cast<uint16_t>(next);
            encoder->codeWidth = static_cast<uint8_t>(width);
            encoder->currentCode = encoder->outputCode = static_cast<uint16_t>(code);
            encoder->bitCount = static_cast<uint16_t>(encoder->bitCount - encoder->bitCount % 8);
            keepUnfinished(encoder, strings->coded[bit / 8] & ((1u << bit % 8) - 1), bit % 8);
            return consumed + length;
        }
        consumed += length;
        bit += width;
        if (!closing)
            next++;
    }
}

} // namespace

void startStretch(StretchStrings* strings, TAGWRITELZW* encoder) {
    emptySlots(strings);
    strings->pairTag = static_cast<uint16_t>(strings->pairTag + KAL_LZW_CODES);
    if (strings->pairTag == 0) {
        std::fill_n(strings->pairs, kRoots * kRoots, uint16_t{0});
        strings->pairTag = KAL_LZW_CODES;
    }
    encoder->nextCode = kFirstCode;
    encoder->codeWidth = kFirstWidth;
    encoder->currentCode = encoder->outputCode = kClearCode;
}

uint16_t encodeBytes(StretchStrings* strings, TAGWRITELZW* encoder, SFILE* stream, const uint8_t* data,
                     uint16_t count) {
    const uint8_t* in = data;
    const uint8_t* const end = data + count;
    while (in != end) {
        const Mark mark = {encoder->currentCode, encoder->nextCode, encoder->bitCount % 8u,
                           static_cast<uint32_t>(in - data)};
        BitWriter writer = {strings->coded, unfinishedBits(encoder), mark.bitCount};
        in = codeStretch(strings, encoder, in, end, &writer);
        const bool full = encoder->nextCode > kLastAssigned;
        if (full) {
            writer.put(encoder->currentCode, encoder->codeWidth);
            writer.put(kClearCode, encoder->codeWidth);
        }

        const auto coded = static_cast<uint32_t>(writer.out - strings->coded);
        const uint32_t accepted = coded > 0 ? putBytes(stream, strings->coded, coded) : 0;
        if (accepted < coded)
            return static_cast<uint16_t>(stepBack(strings, encoder, mark, accepted));
        keepUnfinished(encoder, writer.bits, coded * 8 + writer.count - mark.bitCount);
        if (full)
            startStretch(strings, encoder);
    }
    const uint16_t current = encoder->currentCode;
    encoder->outputCode =
        current < kFirstCode ? current : static_cast<uint16_t>(strings->maker[current] >> 8);
    return count;
}
