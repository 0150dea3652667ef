// What a stored picture is.
#ifndef KAL_TOOLS_PICTURE_FORM_H
#define KAL_TOOLS_PICTURE_FORM_H

#include "tools/bytes.h"

#include <algorithm>

// The longest row that is stored: two are in memory at a time.
inline constexpr uint32_t mostRowBytes = 1U << 24;

enum class PictureKind : uint8_t { Bmp = 0, Png = 1 };

struct PictureForm {
    PictureKind kind;
    uint8_t colour;     // PNG: its number for the kind of samples
    uint8_t depth;      // PNG: bits of a sample
    uint8_t bits;       // of a pixel
    bool topDown;       // the first row is the topmost
    uint32_t width;     // pixels
    uint32_t height;    // rows
    uint32_t rowBytes;  // a row as the file has it, the padding of a BMP included
    uint32_t fileBytes; // of the file that was stored

    // From a byte to the same byte of the next pixel.
    uint32_t pixelBytes() const { return std::max(1U, bits / 8U); }
    uint64_t rowsBytes() const { return uint64_t{rowBytes} * height; }
};

// What stands before and behind the rows.
enum class PicturePart : uint8_t {
    Before, // BMP: the file's bytes in front of the rows; PNG: the palette, red, green and blue of each entry
    Transparency, // PNG: as the tRNS chunk has it
    After         // BMP: the file's bytes behind the rows
};

#endif
