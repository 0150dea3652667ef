#include "tools/picture_rows.h"

#include "tools/failure.h"

#include <algorithm>
#include <new>

namespace {

constexpr uint32_t mostBandBytes = mostPayload - KAL_DIB_OP_HEADER;
constexpr uint32_t rowsAtATime = 1U << 16; // bytes

uint32_t bytesInRow(const BmpLayout& layout) {
    return (layout.width * layout.bits + 7) / 8;
}

uint32_t bytesInBand(const BmpLayout& layout) {
    return KalDIBLineBytes(layout.width, layout.bits);
}

// Bytes of a row that a line carries.
uint32_t bytesCarried(const BmpLayout& layout) {
    return layout.bits == 24 ? bytesInRow(layout) : bytesInBand(layout);
}

[[noreturn]] void refuseBand() {
    throw Damaged("a band of its rows makes no sense");
}

bool isSilent(ByteView bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

} // namespace

bool PictureRows::fit(const BmpLayout& layout) {
    // The list counts a row of 24 bits with its padding when it reckons how many fit a band.
    const uint32_t counted = layout.bits == 24 ? layout.rowBytes * 4 / 3 : bytesInBand(layout);
    return counted <= mostBandBytes;
}

PictureRows::PictureRows(const BmpLayout& layout)
    : layout_(layout), paddingBytes_(layout.rowBytes - bytesCarried(layout)),
      list_(MovableList::Kind::Bitmap) {
    if (KalSetupOpList(list_, 0, 0, static_cast<uint16_t>(layout.width), static_cast<uint16_t>(layout.height),
                       static_cast<uint16_t>(layout.bits), 0, mostBandBytes) != 0)
        throw std::bad_alloc();
}

void PictureRows::putRows(ByteView rows) {
    for (; !rows.empty(); rows = rows.subspan(layout_.rowBytes), line_++) {
        const ByteView row = rows.first(layout_.rowBytes);
        KalPutDIBOpData(list_, row.data(), layout_.rowBytes);
        const ByteView padding = row.last(paddingBytes_);
        if (padding_.empty() && isSilent(padding))
            continue;
        padding_.resize(paddingOffset(layout_.height));
        std::copy(padding.begin(), padding.end(), padding_.begin() + paddingOffset(line_));
    }
    if (KalGetOpError(list_) != 0)
        throw std::bad_alloc();
}

void PictureRows::putBand(const Op& band, ByteView padding) {
    const ByteView bytes = payload(band);
    if (bytes.size() < KAL_DIB_OP_HEADER || load16(bytes, 2) != line_ || load16(bytes, 4) != layout_.width ||
        bytes[8] != layout_.bits)
        refuseBand();
    const uint32_t count = load16(bytes, 6);
    if (count == 0 || count > layout_.height - line_ ||
        bytes.size() < KAL_DIB_OP_HEADER + uint64_t{count} * bytesInBand(layout_))
        refuseBand();
    if (!padding.empty()) {
        if (padding.size() != paddingOffset(count))
            refuseBand();
        padding_.resize(paddingOffset(layout_.height));
        std::copy(padding.begin(), padding.end(), padding_.begin() + paddingOffset(line_));
    }
    putOp(list_, band);
    line_ += count;
}

void PictureRows::getBands(OpList* list, uint16_t paddingType) {
    list_.rewind();
    uint32_t lines = 0;
    while (const Op band = nextOp(list_)) {
        const ByteView bytes = payload(band);
        lines += load16(bytes, 6);
        if (!padding_.empty()) {
            const ByteView padding =
                ByteView(padding_).subspan(paddingOffset(load16(bytes, 2)), paddingOffset(load16(bytes, 6)));
            if (!isSilent(padding))
                putOp(list, paddingType, padding);
        }
        putOp(list, band);
    }
    if (lines != layout_.height) // a band for which there was no memory may look like the end
        throw std::bad_alloc();
}

void PictureRows::getRows(const std::function<void(ByteView)>& use) {
    list_.rewind();
    const uint32_t rowBytes = layout_.rowBytes;
    const uint32_t most = std::max(1U, rowsAtATime / rowBytes);
    std::vector<uint8_t> rows;
    for (uint32_t line = 0; line < layout_.height;) {
        const uint32_t count = std::min(most, layout_.height - line);
        rows.resize(size_t{count} * rowBytes);
        for (uint8_t* row = rows.data(); row < rows.data() + rows.size(); row += rowBytes, line++) {
            if (KalGetDIBOpData(list_, row, static_cast<uint16_t>(rowBytes)) != 0)
                throw std::bad_alloc();
            uint8_t* end = row + rowBytes - paddingBytes_;
            if (padding_.empty())
                std::fill_n(end, paddingBytes_, uint8_t{0});
            else
                std::copy_n(&padding_[paddingOffset(line)], paddingBytes_, end);
        }
        use(rows);
    }
}
