#include "tools/thumbnail.h"

Thumbnail::Thumbnail(const PictureForm& form, uint32_t most) : form_(form) {
    const uint32_t longer = std::max(form.width, form.height);
    const auto fitted = [&](uint32_t side) {
        return longer <= most ? side : std::max(1U, static_cast<uint32_t>(uint64_t{side} * most / longer));
    };
    width_ = fitted(form.width);
    height_ = fitted(form.height);
    sums_.resize(size_t{width_} * height_);
}

void Thumbnail::part(PicturePart part, ByteView bytes) {
    parts_.take(part, bytes);
}

void Thumbnail::rows(const uint8_t* rows, uint32_t count) {
    if (!pixels_)
        pixels_.emplace(form_, parts_);
    for (; count > 0; count--, line_++, rows += form_.rowBytes) {
        const uint32_t y = form_.topDown ? line_ : form_.height - 1 - line_;
        Sum* sums = &sums_[static_cast<size_t>(uint64_t{y} * height_ / form_.height) * width_];
        for (uint32_t x = 0; x < form_.width; x++) {
            if (x % piece == 0)
                pixels_->toRgba(rows + uint64_t{x} * form_.bits / 8, std::min(piece, form_.width - x), rgba_);
            const uint8_t* pixel = &rgba_[size_t{x % piece} * 4];
            const uint32_t alpha = pixel[3];
            const auto onWhite = [alpha](uint32_t sample) {
                return (sample * alpha + 255 * (255 - alpha)) / 255;
            };
            Sum& sum = sums[uint64_t{x} * width_ / form_.width];
            sum.red += onWhite(pixel[0]);
            sum.green += onWhite(pixel[1]);
            sum.blue += onWhite(pixel[2]);
            sum.pixels++;
        }
    }
}

std::vector<uint8_t> Thumbnail::row(uint32_t y) const {
    std::vector<uint8_t> bytes;
    bytes.reserve(size_t{width_} * 3);
    for (uint32_t x = 0; x < width_; x++) {
        const Sum& sum = sums_[size_t{y} * width_ + x];
        const uint64_t pixels = std::max<uint64_t>(1, sum.pixels);
        for (const uint64_t sample : {sum.red, sum.green, sum.blue})
            bytes.push_back(static_cast<uint8_t>((sample + pixels / 2) / pixels));
    }
    return bytes;
}
