// The decoder of compressed streams. A string is kept in blocks of eight characters, so that it is written
// with one store a block wherever the caller's bytes stand: an entry holds the last block and names the
// string that ends where that block begins.
//
//     "abcdefghij"  ->  { "ij", skip -> "abcdefgh", length 10 }  ->  { "abcdefgh", length 8 }
#ifndef KAL_COMPRESS_STRETCH_DECODER_H
#define KAL_COMPRESS_STRETCH_DECODER_H

#include "compress/lzw_codes.h"
#include "platform/little_endian.h"

// Two words, so that making and taking a string costs two stores and two loads.
struct BlockString {
    uint64_t block; // the last 1 to 8 characters, the first lowest
    uint64_t about; // length, first character, and the string before the block, where there is one

    // 0 for the codes that stand for no string.
    uint32_t length() const { return static_cast<uint16_t>(about); }
    uint8_t first() const { return static_cast<uint8_t>(about >> kFirstShift); }
    uint32_t skip() const { return static_cast<uint32_t>(about >> kSkipShift); }

    static BlockString root(uint8_t character) { return {character, uint64_t{character} << kFirstShift | 1}; }

    static BlockString pair(uint8_t first, uint8_t second) {
        return {first | uint64_t{second} << 8, uint64_t{first} << kFirstShift | 2};
    }

    // This string, whose code is `code`, with one character more.
    BlockString extended(uint32_t code, uint8_t character) const {
        const uint32_t inBlock = length() % kBlock;
        const uint64_t startsBlock = uint64_t{code} << kSkipShift | static_cast<uint32_t>(about);
        return {(inBlock == 0 ? 0 : block) | uint64_t{character} << inBlock * 8,
                (inBlock == 0 ? startsBlock : about) + 1};
    }

    static constexpr uint32_t kBlock = 8;

private:
    static constexpr uint32_t kFirstShift = 16;
    static constexpr uint32_t kSkipShift = 32;
};

// One more than there are codes: the string being made when the table is full.
struct BlockStrings {
    BlockString of[KAL_LZW_CODES + 1];
};

// Fills in the roots.
void startStrings(BlockStrings* strings);

// Where a decoder stands: the decoder's record in a form made for speed.
struct DecoderState {
    uint64_t bits;     // taken from the stream and not yet from a code, lowest first
    uint32_t bitCount; // of them
    uint32_t width;
    uint32_t next;
    uint32_t previous;
    bool firstAfterClear;
    bool mostlySingle; // whether nearly all codes of late were single characters

    // After a clear code.
    void clear();
    // Takes over from, and hands back to, the decoder that works byte by byte.
    void load(const readlzw* decoder);
    void store(readlzw* decoder) const;
};

enum class Taken { string, noString, endOfRun };

// Takes the code at the head of `bits`, which must hold one: a string (it is `previous` then), a clear code,
// or, as endOfRun, the end code or one that makes the run damaged.
Taken takeCode(BlockStrings* strings, DecoderState* state);

// Decodes from [in, inEnd) to [out, outEnd) as long as both have room to spare and nothing but strings comes.
// Both move on; input is consumed up to the byte that holds the last bit of the last code. `state` must hold
// fewer than 8 bits, and not be the first after a clear code.
void decodeInBulk(BlockStrings* strings, DecoderState* state, const uint8_t** in, const uint8_t* inEnd,
                  uint8_t** out, const uint8_t* outEnd);

// Writes a string to `to`, from the last character to the first; up to 7 bytes more are touched.
void writeReversed(const BlockStrings* strings, uint32_t code, uint8_t* to);

#endif
