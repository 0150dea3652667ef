// Where things stand in a BMP file:
//
//     file header | bitmap header | masks | palette | gap | rows | rest
//
// Each of masks, palette, gap and rest may be empty. A row is padded to a multiple of four bytes. All documented forms
// are known: bitmap headers from 12 bytes (16-bit sizes) to 124, 1 to 32 bits per pixel, bit fields, RLE4 and RLE8.
#ifndef KAL_TOOLS_BMP_H
#define KAL_TOOLS_BMP_H

#include "tools/bytes.h"

#include <vector>

struct BmpLayout {
    uint32_t width;    // pixels
    uint32_t height;   // rows
    uint32_t bits;     // per pixel: 1, 4, 8, 16, 24 or 32
    bool topDown;      // the first row is the topmost
    bool runs;         // the rows are RLE4 or RLE8
    uint32_t masks[4]; // 16 and 32 bits: which bits of a pixel are red, green, blue and alpha; 0 for no alpha
    // Byte offsets in the file.
    uint32_t paletteStart;
    uint32_t rowsStart;
    uint64_t rowsEnd;     // of rows that are no runs
    uint32_t colours;     // entries of the palette
    uint32_t colourBytes; // of an entry: blue, green, red and, in four bytes, one that is not used
    uint32_t rowBytes;    // of a row without runs, padding included
};

// The most bytes that a bitmap header may have and that its layout asks for.
inline constexpr uint32_t mostBmpHeaders = 4096;

// Reads the headers at the start of a file of `fileBytes` bytes; `start` holds the first mostBmpHeaders of them, or all
// there are. Throws a Failure that says why when the file is no such BMP, or its parts do not fit into it or over one
// another.
BmpLayout bmpLayout(ByteView start, uint64_t fileBytes);

// The headers of a BMP file whose rows follow them at once: of 1, 4 or 8 bits with a palette of four-byte entries, of 24
// bits, or of 32 bits with alpha.
std::vector<uint8_t> bmpHeaders(uint32_t width, uint32_t height, bool topDown, uint32_t bits,
                                ByteView palette);

#endif
