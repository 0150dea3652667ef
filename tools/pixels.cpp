#include "tools/pixels.h"

#include "tools/failure.h"
#include "tools/png_file.h"

#include <bit>
#include <cstring>

namespace {

// The number of pixel `x` of a row where pixels of `bits` bits share a byte, the first in the high bits.
uint32_t packed(const uint8_t* row, uint32_t x, uint32_t bits) {
    const uint32_t perByte = 8 / bits;
    return row[x / perByte] >> (8 - bits - x % perByte * bits) & ((1U << bits) - 1);
}

uint8_t* putRgba(uint8_t* to, uint8_t red, uint8_t green, uint8_t blue, uint8_t alpha) {
    to[0] = red;
    to[1] = green;
    to[2] = blue;
    to[3] = alpha;
    return to + 4;
}

} // namespace

void FrontParts::take(PicturePart part, ByteView bytes) {
    if (part == PicturePart::After)
        return;
    constexpr size_t most = mostBmpHeaders + 1024;
    std::vector<uint8_t>& to = part == PicturePart::Before ? before : transparency;
    bytes = bytes.first(std::min(bytes.size(), most - to.size()));
    to.insert(to.end(), bytes.begin(), bytes.end());
}

Pixels::Pixels(const PictureForm& form, const FrontParts& parts)
    : form_(form), transparency_(parts.transparency) {
    form.kind == PictureKind::Bmp ? takeBmp(parts.before) : takePng(parts.before);
}

void Pixels::takeBmp(ByteView before) {
    BmpLayout layout;
    try {
        layout = bmpLayout(before, UINT64_MAX);
    } catch (const Failure& failure) {
        throw Damaged(failure.what());
    }
    if (layout.width != form_.width || layout.height != form_.height || layout.bits != form_.bits ||
        layout.runs)
        throw Damaged("its headers are those of another picture");
    if (form_.bits <= 8) {
        palette_.resize(size_t{3} << form_.bits);
        for (uint32_t i = 0; i < layout.colours && 3 * i < palette_.size(); i++) {
            const size_t at = layout.paletteStart + size_t{i} * layout.colourBytes;
            if (at + 3 > before.size())
                break;
            palette_[3 * i] = before[at + 2];
            palette_[3 * i + 1] = before[at + 1];
            palette_[3 * i + 2] = before[at];
        }
    }
    for (int i = 0; i < 4; i++) {
        const uint32_t mask = layout.masks[i];
        const uint32_t shift = mask != 0 ? static_cast<uint32_t>(std::countr_zero(mask)) : 0;
        channels_[i] = {mask, shift, mask >> shift};
    }
    hasAlpha_ = form_.bits > 8 && layout.masks[3] != 0;
}

void Pixels::takePng(ByteView before) {
    const auto colour = PngColour{form_.colour};
    hasAlpha_ = colour == PngColour::GreyAlpha || colour == PngColour::RgbAlpha || !transparency_.empty();
    if (colour == PngColour::Palette) {
        palette_.assign(before.begin(), before.end());
        palette_.resize(size_t{3} << form_.bits);
        transparency_.resize(transparency_.empty() ? 0 : size_t{1} << form_.bits, 255);
    } else if (colour == PngColour::Grey && form_.depth <= 8) {
        const uint32_t most = (1U << form_.depth) - 1;
        for (uint32_t level = 0; level <= most; level++)
            palette_.insert(palette_.end(), 3, static_cast<uint8_t>(level * 255 / most));
        if (!transparency_.empty()) { // one level that is not seen
            const uint32_t unseen =
                transparency_.size() == 2 ? transparency_[0] * 256U + transparency_[1] : most + 1;
            transparency_.assign(most + size_t{1}, 255);
            if (unseen <= most)
                transparency_[unseen] = 0;
        }
    } else if (!transparency_.empty() && transparency_.size() != (colour == PngColour::Rgb ? 6 : 2)) {
        throw Damaged("its transparency makes no sense");
    }
}

void Pixels::toRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const {
    if (!palette_.empty())
        indexedToRgba(row, count, rgba);
    else if (form_.kind == PictureKind::Bmp)
        bmpToRgba(row, count, rgba);
    else
        pngToRgba(row, count, rgba);
}

void Pixels::indexedToRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const {
    for (uint32_t x = 0; x < count; x++) {
        const uint32_t index = packed(row, x, form_.bits);
        const uint8_t* colour = &palette_[3 * index];
        rgba = putRgba(rgba, colour[0], colour[1], colour[2],
                       transparency_.empty() ? 255 : transparency_[index]);
    }
}

void Pixels::bmpToRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const {
    const uint32_t bytes = form_.bits / 8U;
    for (uint32_t x = 0; x < count; x++, row += bytes) {
        uint32_t pixel = 0;
        std::memcpy(&pixel, row, bytes);
        rgba = putRgba(rgba, channels_[0].of(pixel), channels_[1].of(pixel), channels_[2].of(pixel),
                       hasAlpha_ ? channels_[3].of(pixel) : 255);
    }
}

// Of 16-bit samples the high byte.
void Pixels::pngToRgba(const uint8_t* row, uint32_t count, uint8_t* rgba) const {
    const auto colour = PngColour{form_.colour};
    const bool grey = colour == PngColour::Grey || colour == PngColour::GreyAlpha;
    const bool alpha = colour == PngColour::GreyAlpha || colour == PngColour::RgbAlpha;
    const uint32_t sample = form_.depth / 8U;
    for (uint32_t x = 0; x < count; x++, row += form_.bits / 8U) {
        const uint8_t red = row[0];
        const uint8_t green = grey ? red : row[sample];
        const uint8_t blue = grey ? red : row[2 * sample];
        uint8_t seen = alpha ? row[(grey ? 1 : 3) * sample] : 255;
        if (!transparency_.empty()) {
            // tRNS has 16 bits a sample, whatever the depth.
            bool same = true;
            for (uint32_t i = 0; i < (grey ? 1U : 3U); i++)
                same = same && row[i * sample + sample - 1] == transparency_[2 * i + 1] &&
                       (sample == 1 || row[i * sample] == transparency_[2 * i]);
            seen = same ? 0 : 255;
        }
        rgba = putRgba(rgba, red, green, blue, seen);
    }
}
