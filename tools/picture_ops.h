// The operations of a stored picture.
#ifndef KAL_TOOLS_PICTURE_OPS_H
#define KAL_TOOLS_PICTURE_OPS_H

#include "tools/picture_form.h"

#include <kal.h>

inline constexpr uint16_t opForm = 0x101;
inline constexpr uint16_t opBefore = 0x102;
inline constexpr uint16_t opTransparency = 0x103;
inline constexpr uint16_t opRows = 0x104;
inline constexpr uint16_t opPadding = 0x105;
inline constexpr uint16_t opAfter = 0x106;
inline constexpr uint16_t opEnd = 0x107;

inline constexpr uint32_t formPayload = 24;
inline constexpr uint32_t endPayload = 12;

void storeForm(uint8_t (&to)[formPayload], const PictureForm& form, uint16_t id);
// Throws Damaged when the payload is no form, or that of another picture.
PictureForm loadForm(ByteView from, uint16_t id);

// Over the bytes of a picture, as they come.
struct Checksum {
    uint32_t crc = 0; // the CRC-32 of ISO 3309
    uint64_t bytes = 0;
    void add(ByteView more);
};

// How a picture's rows stand in bands.
class Bands {
public:
    explicit Bands(const PictureForm& form);
    // Whether the rows fit bands at all.
    bool fit() const { return fit_; }
    uint32_t lineBytes() const { return lineBytes_; }       // in a band
    uint32_t carriedBytes() const { return carriedBytes_; } // of a row, in a line
    uint32_t paddingBytes() const { return paddingBytes_; } // of a row, in none
    uint32_t mostLines() const { return mostLines_; }       // of a band

    // `to` and `from` are a line, the other a row without its padding. 24 bits take four bytes a pixel in a line.
    void toLine(const uint8_t* row, uint8_t* to) const;
    void fromLine(const uint8_t* from, uint8_t* row) const;

private:
    uint32_t width_;
    bool wide_; // 24 bits
    bool fit_;
    uint32_t lineBytes_ = 0;
    uint32_t carriedBytes_ = 0;
    uint32_t paddingBytes_ = 0;
    uint32_t mostLines_ = 0;
};

#endif
