#include "tools/bmp.h"

#include "tools/failure.h"

#include <algorithm>

namespace {

constexpr uint32_t fileHeader = 14;
constexpr uint32_t coreHeader = 12;      // 16-bit sizes, palette entries of three bytes
constexpr uint32_t leastInfoHeader = 16; // 32-bit sizes; what lies past the header's end counts as 0
constexpr uint32_t mostInfoHeader = 4096;

// The bitmap header behind the file header.
class InfoHeader {
public:
    explicit InfoHeader(ByteView bytes) : bytes_(bytes) {}
    bool isCore() const { return bytes_.size() == coreHeader; }
    int64_t width() const { return isCore() ? load16(bytes_, 4) : static_cast<int32_t>(load32(bytes_, 4)); }
    int64_t height() const { return isCore() ? load16(bytes_, 6) : static_cast<int32_t>(load32(bytes_, 8)); }
    uint32_t planes() const { return load16(bytes_, isCore() ? 8 : 12); }
    uint32_t bits() const { return load16(bytes_, isCore() ? 10 : 14); }
    uint32_t compression() const { return optional(16); }
    uint32_t coloursStated() const { return optional(32); }
    uint32_t colourBytes() const { return isCore() ? 3 : 4; }

private:
    uint32_t optional(size_t offset) const {
        return bytes_.size() >= offset + 4 ? load32(bytes_, offset) : 0;
    }
    ByteView bytes_;
};

InfoHeader infoHeader(ByteView start, uint32_t fileBytes) {
    if (start.size() < 2 || start[0] != 'B' || start[1] != 'M')
        throw Failure("not a BMP file");
    if (start.size() < fileHeader + 4)
        throw Failure("it ends inside its headers");
    const uint32_t size = load32(start, fileHeader);
    if (size != coreHeader && (size < leastInfoHeader || size > mostInfoHeader))
        throw Failure("a bitmap header of " + std::to_string(size) + " bytes is unknown");
    if (fileHeader + size > fileBytes || fileHeader + size > start.size())
        throw Failure("it ends inside its headers");
    return InfoHeader(start.subspan(fileHeader, size));
}

void checkKind(const InfoHeader& info) {
    const uint32_t bits = info.bits();
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24)
        throw Failure("it has " + std::to_string(bits) + " bits per pixel; 1, 4, 8 and 24 can be stored");
    if (info.compression() != 0)
        throw Failure("its pixels are compressed (method " + std::to_string(info.compression()) + ")");
    if (info.planes() != 1)
        throw Failure("it has " + std::to_string(info.planes()) + " colour planes instead of 1");
    const int64_t width = info.width(), height = info.height();
    if (width < 1 || width > 0xFFFF || height == 0 || height > 0xFFFF || height < -0xFFFF)
        throw Failure("it measures " + std::to_string(width) + " x " + std::to_string(height) +
                      " pixels; 1 to 65535 each way can be stored");
}

// Bytes of the palette, `room` of them at most: one that only the depth implies may be cut short by the rows.
uint32_t paletteBytes(const InfoHeader& info, uint32_t room) {
    const uint32_t stated = info.coloursStated();
    const uint32_t implied = info.bits() <= 8 ? 1U << info.bits() : 0;
    const uint64_t bytes = uint64_t{stated != 0 ? stated : implied} * info.colourBytes();
    if (bytes > room && stated != 0)
        throw Failure("its palette of " + std::to_string(stated) + " colours does not fit before its pixels");
    return static_cast<uint32_t>(std::min<uint64_t>(bytes, room));
}

} // namespace

BmpLayout bmpLayout(ByteView start, uint32_t fileBytes) {
    const InfoHeader info = infoHeader(start, fileBytes);
    checkKind(info);

    BmpLayout layout = {};
    layout.width = static_cast<uint32_t>(info.width());
    layout.topDown = info.height() < 0;
    layout.height = static_cast<uint32_t>(layout.topDown ? -info.height() : info.height());
    layout.bits = info.bits();
    layout.headersEnd = fileHeader + load32(start, fileHeader);
    layout.rowsStart = load32(start, 10);
    if (layout.rowsStart < layout.headersEnd)
        throw Failure("its pixels would begin inside its headers");
    if (layout.rowsStart > fileBytes)
        throw Failure("its pixels would begin behind its end");
    layout.paletteEnd = layout.headersEnd + paletteBytes(info, layout.rowsStart - layout.headersEnd);

    layout.rowBytes = KalDIBRowBytes(layout.width, layout.bits);
    const uint64_t rowsEnd = layout.rowsStart + uint64_t{layout.rowBytes} * layout.height;
    if (rowsEnd > fileBytes)
        throw Failure("it ends inside its pixels");
    layout.rowsEnd = static_cast<uint32_t>(rowsEnd);
    return layout;
}
