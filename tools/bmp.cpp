#include "tools/bmp.h"

#include "tools/failure.h"

#include <algorithm>

namespace {

constexpr uint32_t fileHeader = 14;
constexpr uint32_t coreHeader = 12;      // 16-bit sizes, palette entries of three bytes
constexpr uint32_t leastInfoHeader = 16; // 32-bit sizes; what lies past the header's end counts as 0
constexpr uint32_t infoHeader = 40;
constexpr uint32_t alphaHeader = 108; // the least that names a colour space beside its alpha mask
constexpr uint32_t mostInfoHeader = mostBmpHeaders - fileHeader - 16;

enum Compression : uint32_t { kPlain = 0, kRle8 = 1, kRle4 = 2, kBitFields = 3, kAlphaBitFields = 6 };

constexpr uint32_t masks555[4] = {0x7C00, 0x03E0, 0x001F, 0};
constexpr uint32_t masks888[4] = {0xFF0000, 0xFF00, 0xFF, 0};
constexpr uint32_t masks8888[4] = {0xFF0000, 0xFF00, 0xFF, 0xFF000000};

// The bitmap header behind the file header, and the masks behind that.
class InfoHeader {
public:
    InfoHeader(ByteView bytes, uint32_t size) : bytes_(bytes), size_(size) {}
    uint32_t size() const { return size_; }
    bool isCore() const { return size_ == coreHeader; }
    int64_t width() const { return isCore() ? load16(bytes_, 4) : static_cast<int32_t>(load32(bytes_, 4)); }
    int64_t height() const { return isCore() ? load16(bytes_, 6) : static_cast<int32_t>(load32(bytes_, 8)); }
    uint32_t planes() const { return load16(bytes_, isCore() ? 8 : 12); }
    uint32_t bits() const { return load16(bytes_, isCore() ? 10 : 14); }
    uint32_t compression() const { return optional(16); }
    uint32_t coloursStated() const { return optional(32); }
    uint32_t colourBytes() const { return isCore() ? 3 : 4; }
    bool hasRuns() const { return compression() == kRle8 || compression() == kRle4; }

    // A header of 40 bytes has the masks behind it, a longer one in itself.
    uint32_t masksBehind() const {
        return size_ > infoHeader || (compression() != kBitFields && compression() != kAlphaBitFields) ? 0
               : compression() == kBitFields                                                           ? 12
                                                                                                       : 16;
    }
    uint32_t mask(uint32_t number) const {
        const uint32_t at = infoHeader + 4 * number;
        return at + 4 <= size_ + masksBehind() ? load32(bytes_, at) : 0;
    }

private:
    uint32_t optional(uint32_t offset) const { return size_ >= offset + 4 ? load32(bytes_, offset) : 0; }
    ByteView bytes_;
    uint32_t size_;
};

InfoHeader readInfoHeader(ByteView start) {
    if (start.size() < 2 || start[0] != 'B' || start[1] != 'M')
        throw Failure("not a BMP file");
    if (start.size() < fileHeader + 4)
        throw Failure("it ends inside its headers");
    const uint32_t size = load32(start, fileHeader);
    if (size != coreHeader && (size < leastInfoHeader || size > mostInfoHeader))
        throw Failure("a bitmap header of " + std::to_string(size) + " bytes is unknown");
    if (fileHeader + size > start.size())
        throw Failure("it ends inside its headers");
    const InfoHeader info(start.subspan(fileHeader), size);
    if (fileHeader + size + info.masksBehind() > start.size())
        throw Failure("it ends inside its headers");
    return info;
}

void checkKind(const InfoHeader& info) {
    const uint32_t bits = info.bits();
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw Failure("it has " + std::to_string(bits) + " bits per pixel, which no BMP has");
    const uint32_t compression = info.compression();
    const bool known =
        compression == kPlain || (compression == kRle8 && bits == 8) || (compression == kRle4 && bits == 4) ||
        ((compression == kBitFields || compression == kAlphaBitFields) && (bits == 16 || bits == 32));
    if (!known)
        throw Failure("its pixels are compressed in a way that is not known (method " +
                      std::to_string(compression) + ")");
    if (info.planes() != 1)
        throw Failure("it has " + std::to_string(info.planes()) + " colour planes instead of 1");
    if (info.width() < 1 || info.height() == 0 || (info.hasRuns() && info.height() < 0))
        throw Failure("it measures " + std::to_string(info.width()) + " x " + std::to_string(info.height()) +
                      " pixels");
}

void takeMasks(const InfoHeader& info, BmpLayout& layout) {
    if (info.compression() == kPlain || info.hasRuns())
        std::copy_n(info.bits() == 16 ? masks555 : masks888, 4, layout.masks);
    else
        for (uint32_t number = 0; number < 4; number++)
            layout.masks[number] = info.mask(number);
}

// Entries of the palette. One that only the depth implies may be cut short by the rows.
uint32_t paletteColours(const InfoHeader& info, uint32_t room) {
    const uint32_t stated = info.coloursStated();
    const uint32_t implied = info.bits() <= 8 ? 1U << info.bits() : 0;
    const uint32_t most = room / info.colourBytes();
    if (stated > most)
        throw Failure("its palette of " + std::to_string(stated) + " colours does not fit before its pixels");
    return stated != 0 ? stated : std::min(implied, most);
}

} // namespace

BmpLayout bmpLayout(ByteView start, uint64_t fileBytes) {
    const InfoHeader info = readInfoHeader(start);
    checkKind(info);

    BmpLayout layout = {};
    layout.width = static_cast<uint32_t>(info.width());
    layout.topDown = info.height() < 0;
    layout.height = static_cast<uint32_t>(layout.topDown ? -info.height() : info.height());
    layout.bits = info.bits();
    layout.runs = info.hasRuns();
    takeMasks(info, layout);
    layout.paletteStart = fileHeader + info.size() + info.masksBehind();
    layout.rowsStart = load32(start, 10);
    if (layout.rowsStart < layout.paletteStart)
        throw Failure("its pixels would begin inside its headers");
    if (layout.rowsStart > fileBytes)
        throw Failure("its pixels would begin behind its end");
    layout.colourBytes = info.colourBytes();
    layout.colours = paletteColours(info, layout.rowsStart - layout.paletteStart);

    const uint64_t rowBytes = (uint64_t{layout.width} * layout.bits + 31) / 32 * 4;
    layout.rowsEnd = layout.rowsStart + rowBytes * layout.height;
    if (layout.rowsEnd > (layout.runs ? UINT32_MAX : fileBytes))
        throw Failure(layout.runs ? "its pixels would take more than 4 GiB" : "it ends inside its pixels");
    layout.rowBytes = static_cast<uint32_t>(rowBytes);
    return layout;
}

std::vector<uint8_t> bmpHeaders(uint32_t width, uint32_t height, bool topDown, uint32_t bits,
                                ByteView palette) {
    const uint32_t size = bits == 32 ? alphaHeader : infoHeader;
    std::vector<uint8_t> bytes(fileHeader + size);
    const auto rowsStart = static_cast<uint32_t>(bytes.size() + palette.size());
    const auto rowsBytes = static_cast<uint32_t>((uint64_t{width} * bits + 31) / 32 * 4 * height);
    bytes[0] = 'B';
    bytes[1] = 'M';
    store32(&bytes[2], rowsStart + rowsBytes);
    store32(&bytes[10], rowsStart);
    uint8_t* info = &bytes[fileHeader];
    store32(info, size);
    store32(info + 4, width);
    store32(info + 8, topDown ? 0 - height : height);
    store16(info + 12, 1);
    store16(info + 14, bits);
    store32(info + 20, rowsBytes);
    store32(info + 32, static_cast<uint32_t>(palette.size() / 4));
    if (bits == 32) {
        store32(info + 16, kBitFields);
        for (uint32_t number = 0; number < 4; number++)
            store32(info + infoHeader + 4 * number, masks8888[number]);
        store32(info + 56, 0x73524742); // the colour space "sRGB"
    }
    bytes.insert(bytes.end(), palette.begin(), palette.end());
    return bytes;
}
