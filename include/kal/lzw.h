// LZW codec: variable-width codes, least significant bit first.
//
// With 256 roots the code stream is the one of the GIF format with a minimum code size of 8 (described in
// "Graphics Interchange Format, Version 89a", Appendix F): clear code 256, end code 257, first free code 258,
// widths of 9 to 12 bits. The encoder clears its table as soon as code 4093 is assigned. Most callers want
// the compressed stream of kal/cfile.h instead.
#ifndef KAL_LZW_H
#define KAL_LZW_H

#include <kal/base.h>
#include <kal/stream.h>

// Codes that a table holds: 0 to 4095, 12 bits.
inline constexpr uint16_t KAL_LZW_CODES = 4096;

#pragma pack(push, 1)
// One string of the encoder's table. The strings that extend another by one character form a binary search
// tree on that character; 0 is the empty link.
struct KalLzwTreeEntry {
    uint8_t character;       // the string's last character
    uint16_t firstExtension; // the first string that extends this one
    uint16_t lowerSibling;   // same prefix, smaller last character
    uint16_t higherSibling;  // same prefix, larger last character
};

// Encoder. Lives on the small-memory heap; KalDestroyWriteLZW frees it.
struct TAGWRITELZW {
    uint8_t codeWidth;     // bits per code now
    uint8_t character;     // the character being appended
    uint16_t currentCode;  // code of the string matched so far
    uint16_t outputCode;   // the code that KalWriteLZWCode writes next
    uint16_t nextCode;     // the next free code
    uint16_t bitCount;     // bits written so far; counts modulo 8
    uint8_t bitBuffer;     // the byte being filled, newest bit highest
    KalLzwTreeEntry* tree; // KAL_LZW_CODES entries; owned
};

// One code of the decoder's table: its string is the prefix's string and then the character.
struct KalLzwTableEntry {
    uint16_t prefix;   // code of the string before the character; 0xFFFF marks a root
    uint8_t character; // the string's last character
};

// Decoder. The caller's record.
struct readlzw {
    uint16_t clearCode;       // the root count
    uint16_t endCode;         // the one behind it
    uint16_t rootCount;       // single characters
    uint16_t firstAfterClear; // 1 until the first code after a clear was taken
    KalLzwTableEntry* table;  // KAL_LZW_CODES entries; owned
    uint16_t codeWidth;       // bits per code now
    uint16_t codeRegister;    // the code being put together
    uint16_t bitCounter;      // bits taken since the last change of width
    uint16_t inputByte;       // set before each KalDecodeLZW
    uint16_t codes[4];        // codes that the last KalDecodeLZW completed
    uint16_t nextCode;        // the next free code
    uint16_t previousCode;    // the last code taken
};

// One code of the second decoder's table, which keeps each string's first character too.
struct KalLzwQuickEntry {
    uint16_t prefix;        // as in KalLzwTableEntry
    uint8_t character;      // the string's last character
    uint8_t firstCharacter; // the string's first character
};

// Second decoder state, for a caller's own decoding loop. The caller's record.
struct readlzw_q {
    uint16_t codeWidth;       // bits per code after a clear
    KalLzwQuickEntry* table;  // KAL_LZW_CODES entries; owned
    uint16_t codeWidthNow;    // bits per code now
    uint16_t codeMask;        // 2^codeWidth - 1
    uint16_t codeMaskNow;     // 2^codeWidthNow - 1
    uint16_t clearCode;       // the root count
    uint16_t endCode;         // the one behind it
    uint16_t firstAfterClear; // 1 until the first code after a clear was taken
    uint16_t nextCode;        // the next free code
    uint16_t bitBuffer;       // bits not taken yet
    uint16_t bitCount;        // their number
};
#pragma pack(pop)

static_assert(KAL_SIZE(KalLzwTreeEntry, 7, 7));
static_assert(KAL_AT(KalLzwTreeEntry, character, 0, 0) && KAL_AT(KalLzwTreeEntry, firstExtension, 1, 1) &&
              KAL_AT(KalLzwTreeEntry, lowerSibling, 3, 3) && KAL_AT(KalLzwTreeEntry, higherSibling, 5, 5));
static_assert(KAL_SIZE(TAGWRITELZW, 15, 19));
static_assert(KAL_AT(TAGWRITELZW, codeWidth, 0, 0) && KAL_AT(TAGWRITELZW, character, 1, 1) &&
              KAL_AT(TAGWRITELZW, currentCode, 2, 2) && KAL_AT(TAGWRITELZW, outputCode, 4, 4) &&
              KAL_AT(TAGWRITELZW, nextCode, 6, 6) && KAL_AT(TAGWRITELZW, bitCount, 8, 8) &&
              KAL_AT(TAGWRITELZW, bitBuffer, 10, 10) && KAL_AT(TAGWRITELZW, tree, 11, 11));
static_assert(KAL_SIZE(KalLzwTableEntry, 3, 3));
static_assert(KAL_AT(KalLzwTableEntry, prefix, 0, 0) && KAL_AT(KalLzwTableEntry, character, 2, 2));
static_assert(KAL_SIZE(readlzw, 32, 36));
static_assert(KAL_AT(readlzw, clearCode, 0, 0) && KAL_AT(readlzw, endCode, 2, 2) &&
              KAL_AT(readlzw, rootCount, 4, 4) && KAL_AT(readlzw, firstAfterClear, 6, 6) &&
              KAL_AT(readlzw, table, 8, 8) && KAL_AT(readlzw, codeWidth, 12, 16) &&
              KAL_AT(readlzw, codeRegister, 14, 18) && KAL_AT(readlzw, bitCounter, 16, 20) &&
              KAL_AT(readlzw, inputByte, 18, 22) && KAL_AT(readlzw, codes, 20, 24) &&
              KAL_AT(readlzw, nextCode, 28, 32) && KAL_AT(readlzw, previousCode, 30, 34));
static_assert(KAL_SIZE(KalLzwQuickEntry, 4, 4));
static_assert(KAL_AT(KalLzwQuickEntry, prefix, 0, 0) && KAL_AT(KalLzwQuickEntry, character, 2, 2) &&
              KAL_AT(KalLzwQuickEntry, firstCharacter, 3, 3));
static_assert(KAL_SIZE(readlzw_q, 24, 28));
static_assert(KAL_AT(readlzw_q, codeWidth, 0, 0) && KAL_AT(readlzw_q, table, 2, 2) &&
              KAL_AT(readlzw_q, codeWidthNow, 6, 10) && KAL_AT(readlzw_q, codeMask, 8, 12) &&
              KAL_AT(readlzw_q, codeMaskNow, 10, 14) && KAL_AT(readlzw_q, clearCode, 12, 16) &&
              KAL_AT(readlzw_q, endCode, 14, 18) && KAL_AT(readlzw_q, firstAfterClear, 16, 20) &&
              KAL_AT(readlzw_q, nextCode, 18, 22) && KAL_AT(readlzw_q, bitBuffer, 20, 24) &&
              KAL_AT(readlzw_q, bitCount, 22, 26));

// Starts an encoder for `rootCount` single characters (2 counts as 4): allocates its tree, sets next code and
// width. The caller sets current and output code. 0, or KAL_ERR_BUFFER when memory is short or the roots and
// the two codes behind them do not fit the table.
KAL_API int16_t KalInitWriteLZW(TAGWRITELZW* encoder, uint16_t rootCount);

// Frees the tree and the record itself. 0, also for null.
KAL_API int16_t KalDestroyWriteLZW(TAGWRITELZW* encoder);

// Looks for the current string extended by `character`: 1 and the longer string's code is current, or 0; a
// miss must be followed by KalAddTreeEntry. The output code becomes the string before the extension.
KAL_API uint16_t KalFindString(TAGWRITELZW* encoder);

// Gives the next code to the string just looked up, and widens the codes when it is a power of two. 0.
KAL_API int16_t KalAddTreeEntry(TAGWRITELZW* encoder);

// Writes the output code's bits through the stream's putChar slot. 0, or the stream's status; the code is
// then written in part, and bit buffer and count are as before.
KAL_API int16_t KalWriteLZWCode(TAGWRITELZW* encoder, SFILE* stream);

// Starts a decoder: allocates its table, sets the code numbers and the width. 0, or KAL_ERR_BUFFER as above.
KAL_API int16_t KalInitReadLZW(readlzw* decoder, uint16_t rootCount);
KAL_API int16_t KalInitReadLZW(readlzw_q* decoder, uint16_t rootCount);

// Frees the decoder's table, not the record. 0.
KAL_API int16_t KalDestroyReadLZW(readlzw* decoder);
KAL_API int16_t KalDestroyReadLZW(readlzw_q* decoder);

// Takes the eight bits of `inputByte`. The number of codes completed (0 to 4), which stand in `codes`; none
// for an end code. Damaged input never leads outside the table: such a code is dropped.
KAL_API uint16_t KalDecodeLZW(readlzw* decoder);

#endif
