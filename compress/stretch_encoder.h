// The coder of compressed streams. A stretch is what lies between two clear codes; its codes are numbered in
// the order in which they are written, so the n-th code of a stretch has a known width.
#ifndef KAL_COMPRESS_STRETCH_ENCODER_H
#define KAL_COMPRESS_STRETCH_ENCODER_H

#include "compress/lzw_codes.h"
#include "platform/little_endian.h"

// The strings of one stretch, found from (string, next character). Pairs of characters have a place each, which
// names their stretch too, so that it is emptied only when the 15 names are used up. Longer strings lie in an open
// hash of codes alone, small enough to stay near the processor; `maker` tells whether a code is the one looked for.
struct StretchStrings {
    static constexpr uint32_t kSlotBits = 15;
    static constexpr uint32_t kSlots = 1u << kSlotBits;
    static constexpr uint32_t kNoCode = 0;
    // All codes of a stretch at full width, and room for a whole word at the end.
    static constexpr uint32_t kCodedBytes = KAL_LZW_CODES * kWidestCode / 8 + 8;

    uint32_t maker[KAL_LZW_CODES];   // by code: its prefix << 8 | last character
    uint16_t pairs[kRoots * kRoots]; // by maker of a pair: `pairTag` | code
    uint16_t slots[kSlots];          // codes, kNoCode while empty
    uint16_t taken[KAL_LZW_CODES];   // the slots in use
    uint16_t takenCount;
    uint16_t pairTag;              // in the bits above a code's; never 0
    uint16_t codes[KAL_LZW_CODES]; // by next code: the code that was written when it was the next
    uint8_t coded[kCodedBytes];    // the bytes of one hand-over
};

// Empties the strings and sets the encoder to the first code and width, with nothing pending.
void startStretch(StretchStrings* strings, TAGWRITELZW* encoder);

// Compresses `count` bytes onto the stream, going on from the encoder's state. Bytes consumed; fewer than
// `count` when the stream refused a byte. The encoder then stands before the code that failed.
uint16_t encodeBytes(StretchStrings* strings, TAGWRITELZW* encoder, SFILE* stream, const uint8_t* data,
                     uint16_t count);

#endif
