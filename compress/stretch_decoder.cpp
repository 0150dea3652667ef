#include "compress/stretch_decoder.h"

namespace {

constexpr uint32_t kBlock = BlockString::kBlock;

// Bytes that one round of the bulk loop takes and gives at most without asking again.
constexpr uint32_t kRoundCodes = 4;
constexpr uint32_t kRoundInput = sizeof(uint64_t);
constexpr uint32_t kRoundOutput = kRoundCodes * kBlock;
static_assert(kRoundCodes * kWidestCode <= 56);

uint32_t maskOf(uint32_t width) {
    return (1u << width) - 1;
}

// Writes the string's blocks, the last one first, since each but the last is whole and covers what the one
// behind it touched too much.
inline void writeBlocks(const BlockStrings* strings, uint32_t code, uint32_t length, uint8_t* out) {
    uint32_t at = (length - 1) / kBlock * kBlock;
    storeLittle<uint64_t>(out + at, strings->of[code].block);
    while (at > 0) {
        code = strings->of[code].skip();
        at -= kBlock;
        storeLittle<uint64_t>(out + at, strings->of[code].block);
    }
}

// The number of codes taken at the present width.
uint32_t codesAtWidth(const DecoderState& state) {
    if (state.width > kFirstWidth)
        return state.next - (1u << (state.width - 1));
    return state.firstAfterClear ? 0 : state.next - kFirstCode + 1;
}

} // namespace

void startStrings(BlockStrings* strings) {
    for (uint16_t code = 0; code < kRoots; code++)
        strings->of[code] = BlockString::root(static_cast<uint8_t>(code));
    strings->of[kClearCode] = strings->of[kEndCode] = {};
}

void DecoderState::clear() {
    width = kFirstWidth;
    next = kFirstCode;
    firstAfterClear = true;
}

void DecoderState::load(const readlzw* decoder) {
    width = decoder->codeWidth;
    bitCount = decoder->bitCounter % width;
    // Each bit came in at the top and moved down by one with every bit, itself included.
    bits = static_cast<uint64_t>(decoder->codeRegister) >> (width - 1 - bitCount);
    next = decoder->nextCode;
    previous = decoder->previousCode;
    firstAfterClear = decoder->firstAfterClear != 0;
}

void DecoderState::store(readlzw* decoder) const {
    decoder->codeWidth = static_cast<uint16_t>(width);
    decoder->bitCounter = static_cast<uint16_t>(codesAtWidth(*this) * width + bitCount);
    decoder->codeRegister = static_cast<uint16_t>(bits << (width - 1 - bitCount));
    decoder->nextCode = static_cast<uint16_t>(next);
    decoder->previousCode = static_cast<uint16_t>(previous);
    decoder->firstAfterClear = firstAfterClear ? 1 : 0;
}

Taken takeCode(BlockStrings* strings, DecoderState* state) {
    const auto code = static_cast<uint32_t>(state->bits) & maskOf(state->width);
    state->bits >>= state->width;
    state->bitCount -= state->width;
    if (code == kClearCode) {
        state->clear();
        return Taken::noString;
    }
    if (state->firstAfterClear) {
        if (code >= kRoots)
            return Taken::endOfRun;
        state->firstAfterClear = false;
        state->previous = code;
        return Taken::string;
    }
    if (code == kEndCode || code > state->next)
        return Taken::endOfRun;
    if (state->next < KAL_LZW_CODES) {
        const BlockString prefix = strings->of[state->previous];
        const uint8_t first = code == state->next ? prefix.first() : strings->of[code].first();
        strings->of[state->next] = prefix.extended(state->previous, first);
        state->next++;
        if (state->next < KAL_LZW_CODES)
            state->width = static_cast<uint32_t>(std::bit_width(state->next));
    }
    state->previous = code;
    return Taken::string;
}

// The bulk loop, in two forms: single characters with a branch of their own, which pays where nearly all
// codes are such, or without, which pays where they come and go.
template <bool kMostlySingle>
void decodeRounds(BlockStrings* strings, DecoderState* state, const uint8_t** inPtr, const uint8_t* inEnd,
                  uint8_t** outPtr, const uint8_t* outEnd) {
    const uint8_t* in = *inPtr;
    uint8_t* out = *outPtr;
    BlockString* const of = strings->of;
    uint64_t bits = state->bits;
    uint32_t count = state->bitCount;
    uint32_t width = state->width;
    uint32_t mask = maskOf(width);
    uint32_t next = state->next;
    uint32_t previousCode = state->previous;
    BlockString previous = of[previousCode];

    const auto advance = [&](uint32_t code) __attribute__((always_inline)) {
        previousCode = code;
        bits >>= width;
        count -= width;
        next++;
        return true;
    };
    // One code; false for what needs the careful way: nonsense, a code without a string, or a string that
    // would not leave the room that the rest of the round may use.
    const auto take = [&]() __attribute__((always_inline)) {
        const auto code = static_cast<uint32_t>(bits) & mask;
        if (code > next)
            return false;
        if (kMostlySingle && code < kRoots) {
            const auto character = static_cast<uint8_t>(code);
            of[next] = previousCode < kRoots
                           ? BlockString::pair(static_cast<uint8_t>(previousCode), character)
                           : of[previousCode].extended(previousCode, character);
            *out++ = character;
            return advance(code);
        }
        if (kMostlySingle)
            previous = of[previousCode];
        // The string that this code adds comes first, since the code may be its own.
        const uint8_t first = code == next ? previous.first() : of[code].first();
        of[next] = previous.extended(previousCode, first);
        const BlockString string = of[code];
        const uint32_t length = string.length();
        if (length - 1 < kBlock) [[likely]] {
            storeLittle<uint64_t>(out, string.block);
        } else {
            if (length == 0 || outEnd - out < static_cast<ptrdiff_t>(length + kRoundOutput))
                return false;
            writeBlocks(strings, code, length, out);
        }
        out += length;
        previous = string;
        return advance(code);
    };

    while (inEnd - in >= static_cast<ptrdiff_t>(kRoundInput) &&
           outEnd - out >= static_cast<ptrdiff_t>(kRoundOutput)) {
        // As many whole bytes as fit are new; what the load brings above them comes again next time.
        bits |= loadLittle<uint64_t>(in) << count;
        in += (63 - count) >> 3;
        count |= 56;
        const bool wholeRound = next + kRoundCodes <= mask + 1;
        if (!take() || (wholeRound && !(take() && take() && take())))
            break;
        if (next <= mask) [[likely]]
            continue;
        if (width < kWidestCode)
            mask = maskOf(++width);
        else
            next = KAL_LZW_CODES; // full: what is added from here on is scratch
    }

    in -= count / 8;
    state->bitCount = count % 8;
    state->bits = bits & maskOf(state->bitCount);
    state->width = width;
    state->next = next;
    state->previous = previousCode;
    *inPtr = in;
    *outPtr = out;
}

void decodeInBulk(BlockStrings* strings, DecoderState* state, const uint8_t** in, const uint8_t* inEnd,
                  uint8_t** out, const uint8_t* outEnd) {
    const uint8_t* const outStart = *out;
    const uint8_t* const inStart = *in;
    if (state->mostlySingle)
        decodeRounds<true>(strings, state, in, inEnd, out, outEnd);
    else
        decodeRounds<false>(strings, state, in, inEnd, out, outEnd);
    // A code takes 1.1 to 1.5 bytes, so that many bytes of output mean that hardly any is longer than one.
    const auto taken = *in - inStart;
    if (taken >= 64)
        state->mostlySingle = *out - outStart < taken;
}

void writeReversed(const BlockStrings* strings, uint32_t code, uint8_t* to) {
    const uint32_t length = strings->of[code].length();
    const uint32_t lastBlock = (length - 1) % kBlock + 1;
    storeLittle<uint64_t>(to, __builtin_bswap64(strings->of[code].block) >> (kBlock - lastBlock) * 8);
    for (uint32_t at = lastBlock; at < length; at += kBlock) {
        code = strings->of[code].skip();
        storeLittle<uint64_t>(to + at, __builtin_bswap64(strings->of[code].block));
    }
}
