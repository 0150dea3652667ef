#include "tools/picture_ops.h"

#include "tools/failure.h"
#include "tools/ops.h"
#include "tools/png_file.h"

#include <cstring>
#include <zlib.h>

namespace {

constexpr uint32_t mostBandBytes = mostPayload - KAL_DIB_OP_HEADER;

uint64_t bmpRowBytes(const PictureForm& form) {
    return (uint64_t{form.width} * form.bits + 31) / 32 * 4;
}

uint64_t pngRowBytes(const PictureForm& form) {
    PngLayout layout = {};
    layout.width = form.width;
    layout.depth = form.depth;
    layout.colour = PngColour{form.colour};
    return layout.bitsPerPixel() == form.bits ? layout.rowBytes() : 0;
}

bool makesSense(const PictureForm& form) {
    const uint64_t rowBytes = form.kind == PictureKind::Bmp ? bmpRowBytes(form) : pngRowBytes(form);
    return form.kind <= PictureKind::Png && form.width > 0 && form.height > 0 && form.bits > 0 &&
           form.bits <= 64 && form.rowBytes == rowBytes && rowBytes > 0 && rowBytes <= mostRowBytes &&
           form.rowsBytes() <= UINT32_MAX;
}

} // namespace

void storeForm(uint8_t (&to)[formPayload], const PictureForm& form, uint16_t id) {
    std::memset(to, 0, sizeof to);
    store16(to, id);
    to[2] = static_cast<uint8_t>(form.kind);
    to[3] = form.colour;
    to[4] = form.depth;
    to[5] = form.bits;
    to[6] = form.topDown ? 1 : 0;
    store32(to + 8, form.width);
    store32(to + 12, form.height);
    store32(to + 16, form.rowBytes);
    store32(to + 20, form.fileBytes);
}

PictureForm loadForm(ByteView from, uint16_t id) {
    if (from.size() != formPayload)
        throw Damaged("it does not begin as a picture does");
    if (load16(from, 0) != id)
        throw Damaged("it is picture " + std::to_string(load16(from, 0)));
    PictureForm form = {};
    form.kind = PictureKind{from[2]};
    form.colour = from[3];
    form.depth = from[4];
    form.bits = from[5];
    form.topDown = from[6] != 0;
    form.width = load32(from, 8);
    form.height = load32(from, 12);
    form.rowBytes = load32(from, 16);
    form.fileBytes = load32(from, 20);
    if (!makesSense(form))
        throw Damaged("its form makes no sense");
    return form;
}

void Checksum::add(ByteView more) {
    if (!more.empty()) // else it would begin anew
        crc = static_cast<uint32_t>(crc32_z(crc, more.data(), more.size()));
    bytes += more.size();
}

Bands::Bands(const PictureForm& form) : width_(form.width), wide_(form.bits == 24) {
    fit_ = form.kind == PictureKind::Bmp && (form.bits <= 8 || wide_) && form.width <= UINT16_MAX &&
           form.height <= UINT16_MAX;
    if (!fit_)
        return;
    lineBytes_ = KalDIBLineBytes(form.width, form.bits);
    carriedBytes_ = wide_ ? form.width * 3 : lineBytes_;
    paddingBytes_ = form.rowBytes - carriedBytes_;
    mostLines_ = mostBandBytes / lineBytes_;
    fit_ = mostLines_ > 0;
}

void Bands::toLine(const uint8_t* row, uint8_t* to) const {
    if (!wide_) {
        std::memcpy(to, row, carriedBytes_);
        return;
    }
    for (uint32_t x = 0; x < width_; x++, row += 3, to += 4)
        std::memcpy(to, row, 3);
}

void Bands::fromLine(const uint8_t* from, uint8_t* row) const {
    if (!wide_) {
        std::memcpy(row, from, carriedBytes_);
        return;
    }
    for (uint32_t x = 0; x < width_; x++, from += 4, row += 3)
        std::memcpy(row, from, 3);
}
