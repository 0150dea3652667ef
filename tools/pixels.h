// The pixels of a stored picture in colours that a screen shows.
#ifndef KAL_TOOLS_PIXELS_H
#define KAL_TOOLS_PIXELS_H

#include "tools/bmp.h"
#include "tools/picture_form.h"

// The parts in front of the rows, of which a long one is not kept whole.
struct FrontParts {
    std::vector<uint8_t> before;
    std::vector<uint8_t> transparency;
    void take(PicturePart part, ByteView bytes);
};

class Pixels {
public:
    // Throws Damaged when the parts make no sense.
    Pixels(const PictureForm& form, const FrontParts& parts);

    bool hasAlpha() const { return hasAlpha_; }
    // The colours of a picture of 1 to 8 bits without alpha, as many as its bits can name: red, green, blue. Else none.
    const std::vector<uint8_t>& palette() const { return palette_; }

    // Red, green, blue and alpha of so many pixels of a row, 8 bits each; the first begins at a byte.
    void toRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const;

private:
    struct Channel {
        uint32_t mask;
        uint32_t shift;
        uint32_t most; // its greatest number
        uint8_t of(uint32_t pixel) const {
            return most == 0
                       ? uint8_t{0}
                       : static_cast<uint8_t>((uint64_t{(pixel & mask) >> shift} * 255 + most / 2) / most);
        }
    };

    void takeBmp(ByteView before);
    void takePng(ByteView before);
    void indexedToRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const;
    void bmpToRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const;
    void pngToRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const;

    PictureForm form_;
    std::vector<uint8_t> transparency_;
    std::vector<uint8_t> palette_;
    Channel channels_[4] = {};
    bool hasAlpha_ = false;
};

#endif
