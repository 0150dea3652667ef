#include "compress/stretch_encoder.h"

#include "compress/stream_bytes.h"

#include <array>

namespace {

constexpr uint32_t kNobody = StretchStrings::kNobody;

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

    void put(uint32_t code, uint32_t width) {
        bits |= static_cast<uint64_t>(code) << count;
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

constexpr uint32_t slotOf(uint32_t maker, uint32_t code) {
    return maker * KAL_LZW_CODES + code;
}

// The slot of the string that `wanted` makes, or the empty one where it belongs.
inline uint32_t* findSlot(uint32_t* slots, uint32_t wanted) {
    uint32_t at = wanted >> 8 << 2 ^ spread[wanted & 0xFF];
    while (slots[at] / KAL_LZW_CODES != wanted && slots[at] != kNobody)
        at = (at + 1) % StretchStrings::kSlots;
    return &slots[at];
}

void emptySlots(StretchStrings* strings) {
    std::fill_n(strings->slots, StretchStrings::kSlots, kNobody);
}

// Forgets the codes from `next` on.
void forgetFrom(StretchStrings* strings, uint32_t next) {
    std::fill(strings->maker + next, strings->maker + KAL_LZW_CODES, kNobody);
    emptySlots(strings);
    for (uint32_t code = kFirstCode; code < next; code++) {
        const uint32_t maker = strings->maker[code];
        if (maker >> 8 >= kRoots)
            *findSlot(strings->slots, maker) = slotOf(maker, code);
    }
}

// Codes the bytes until they are used up or the stretch is full; whole bytes go to `strings->coded`. Returns
// the end of what was consumed; encoder and writer are moved on.
const uint8_t* codeStretch(StretchStrings* strings, TAGWRITELZW* encoder, const uint8_t* in,
                           const uint8_t* end, BitWriter* writer) {
    uint32_t* const maker = strings->maker;
    BitWriter out = *writer;
    uint32_t current = encoder->currentCode;
    uint32_t next = encoder->nextCode;
    uint32_t width = encoder->codeWidth;
    if (current == kClearCode && in != end)
        current = *in++;

    while (in != end && next <= kLastAssigned) {
        const uint32_t character = *in++;
        const uint32_t wanted = current << 8 | character;
        if (current < kRoots) {
            const uint32_t code = strings->pairs[wanted];
            if (maker[code] == wanted) {
                current = code;
                continue;
            }
            strings->pairs[wanted] = static_cast<uint16_t>(next);
        } else {
            uint32_t* const slot = findSlot(strings->slots, wanted);
            if (*slot != kNobody) {
                current = *slot % KAL_LZW_CODES;
                continue;
            }
            *slot = slotOf(wanted, next);
        }
        maker[next] = wanted;
        out.put(current, width);
        current = character;
        width += next >> width; // one more when this code was a power of two
        next++;
    }

    encoder->character = end[-1];
    encoder->currentCode = static_cast<uint16_t>(current);
    encoder->nextCode = static_cast<uint16_t>(next);
    encoder->codeWidth = static_cast<uint8_t>(width);
    *writer = out;
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
            forgetFrom(strings, next);
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
    std::fill_n(strings->maker, KAL_LZW_CODES, kNobody);
    emptySlots(strings);
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
