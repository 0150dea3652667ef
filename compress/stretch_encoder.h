// The coder of compressed streams. A stretch is what lies between two clear codes; its codes are numbered in
// the order in which they are written, so the n-th code of a stretch has a known width.
#ifndef KAL_COMPRESS_STRETCH_ENCODER_H
#define KAL_COMPRESS_STRETCH_ENCODER_H

#include "compress/lzw_codes.h"
#include "platform/little_endian.h"

// The strings of one stretch, found from (string, next character). Pairs of characters have a place each; it
// counts only if the code there has that maker now, so it is never emptied. Longer strings lie in an open
// hash.
struct StretchStrings {
    static constexpr uint32_t kSlotBits = 14;
    static constexpr uint32_t kSlots = 1u << kSlotBits;
    // All codes of a stretch at full width, and room for a whole word at the end.
    static constexpr uint32_t kCodedBytes = KAL_LZW_CODES * kWidestCode / 8 + 8;

    static constexpr uint32_t kNobody = 0xFFFFFFFF;

    uint32_t maker[KAL_LZW_CODES];   // by code: its prefix << 8 | last character, kNobody while it is free
    uint16_t pairs[kRoots * kRoots]; // by maker of a pair: the code that it had last
    uint32_t slots[kSlots];          // maker << 12 | code, kNobody while empty
    uint8_t coded[kCodedBytes];      // the bytes of one hand-over
};

// Empties the strings and sets the encoder to the first code and width, with nothing pending.
void startStretch(StretchStrings* strings, TAGWRITELZW* encoder);

// Compresses `count` bytes onto the stream, going on from the encoder's state. Bytes consumed; fewer than
// `count` when the stream refused a byte. The encoder then stands before the code that failed.
uint16_t encodeBytes(StretchStrings* strings, TAGWRITELZW* encoder, SFILE* stream, const uint8_t* data,
                     uint16_t count);

#endif
