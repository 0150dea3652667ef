// Where things stand in an uncompressed BMP file:
//
//     headers | palette | gap | rows | rest
//
// Each of palette, gap and rest may be empty. A row is padded to a multiple of four bytes.
#ifndef KAL_TOOLS_BMP_H
#define KAL_TOOLS_BMP_H

#include "tools/bytes.h"

struct BmpLayout {
    uint32_t width;  // pixels
    uint32_t height; // rows
    uint32_t bits;   // per pixel: 1, 4, 8 or 24
    bool topDown;    // the first row is the topmost
    // Byte offsets in the file.
    uint32_t headersEnd;
    uint32_t paletteEnd;
    uint32_t rowsStart;
    uint32_t rowsEnd;
    uint32_t rowBytes; // padding included
};

// Reads the headers at the start of a file of `fileBytes` bytes; `start` holds them or more. Throws a Failure
// that says why when the file is no such BMP, or its parts do not fit into it or over one another.
BmpLayout bmpLayout(ByteView start, uint32_t fileBytes);

#endif
