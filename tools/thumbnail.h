// A stored picture made small, row by row as it is read.
#ifndef KAL_TOOLS_THUMBNAIL_H
#define KAL_TOOLS_THUMBNAIL_H

#include "tools/picture.h"
#include "tools/pixels.h"

#include <optional>

class Thumbnail : public PictureTaker {
public:
    // At most `most` pixels each way; a smaller picture stays as it is.
    Thumbnail(const PictureForm& form, uint32_t most);

    void part(PicturePart part, ByteView bytes) override;
    void rows(const uint8_t* rows, uint32_t count) override;

    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    // Red, green and blue of each pixel of a row, from the top; on white where the picture lets it through.
    std::vector<uint8_t> row(uint32_t y) const;

private:
    struct Sum { // over the pixels that a small one stands for
        uint64_t red, green, blue, pixels;
    };

    PictureForm form_;
    uint32_t width_;
    uint32_t height_;
    FrontParts parts_;
    std::optional<Pixels> pixels_;
    static constexpr uint32_t piece = 4096; // pixels of a row at a time, which may be long
    uint8_t rgba_[4 * piece] = {};
    std::vector<Sum> sums_;
    uint32_t line_ = 0;
};

#endif
