#include "tools/row_filter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

enum Filter : uint8_t { kNone, kLeft, kAbove, kAverage, kNearest, kFilters };

// Of left, above and the one before above, that which lies nearest to left + above - before.
int nearest(int left, int above, int before) {
    const int toLeft = std::abs(above - before);
    const int toAbove = std::abs(left - before);
    const int toBefore = std::abs(left + above - 2 * before);
    return toLeft <= toAbove && toLeft <= toBefore ? left : toAbove <= toBefore ? above : before;
}

// What the filter foretells for a byte.
template <Filter filter>
int foretold(int left, int above, int before) {
    switch (filter) {
    case kLeft:
        return left;
    case kAbove:
        return above;
    case kAverage:
        return (left + above) / 2;
    case kNearest:
        return nearest(left, above, before);
    default:
        return 0;
    }
}

// Gives the sum of the absolute differences.
template <Filter filter>
uint32_t differences(const uint8_t* row, const uint8_t* above, uint32_t count, uint32_t pixelBytes,
                     uint8_t* out) {
    const uint8_t* left = row - pixelBytes;
    const uint8_t* before = above - pixelBytes;
    uint32_t sum = 0;
    for (uint32_t i = 0; i < count; i++) {
        out[i] = static_cast<uint8_t>(row[i] - foretold<filter>(left[i], above[i], before[i]));
        sum += static_cast<uint32_t>(std::abs(static_cast<int8_t>(out[i])));
    }
    return sum;
}

// The distance to the pixel before as a constant, or 0 for any other.
template <Filter filter, uint32_t fixedPixelBytes>
void undoAt(const uint8_t* stored, const uint8_t* above, uint32_t count, uint32_t pixelBytes, uint8_t* row) {
    const uint32_t distance = fixedPixelBytes != 0 ? fixedPixelBytes : pixelBytes;
    const uint8_t* left = row - distance;
    const uint8_t* before = above - distance;
    for (uint32_t i = 0; i < count; i++)
        row[i] = static_cast<uint8_t>(stored[i] + foretold<filter>(left[i], above[i], before[i]));
}

template <Filter filter>
void undo(const uint8_t* stored, const uint8_t* above, uint32_t count, uint32_t pixelBytes, uint8_t* row) {
    if (pixelBytes == 3)
        undoAt<filter, 3>(stored, above, count, pixelBytes, row);
    else if (pixelBytes == 4)
        undoAt<filter, 4>(stored, above, count, pixelBytes, row);
    else
        undoAt<filter, 0>(stored, above, count, pixelBytes, row);
}

} // namespace

RowFilter::RowFilter(uint32_t rowBytes, uint32_t pixelBytes)
    : rowBytes_(rowBytes), pixelBytes_(pixelBytes), rows_(2 * (size_t{pixelBytes} + rowBytes)),
      above_(rows_.data() + pixelBytes), current_(above_ + rowBytes + pixelBytes) {}

void RowFilter::filter(const uint8_t* row, uint8_t* stored, bool filtering) {
    std::memcpy(current_, row, rowBytes_);
    uint32_t best = kNone;
    const uint8_t* differs = row;
    if (filtering) {
        tries_.resize(size_t{kFilters} * rowBytes_);
        const auto place = [this](uint32_t filter) { return tries_.data() + size_t{filter} * rowBytes_; };
        const uint32_t sums[kFilters] = {
            differences<kNone>(current_, above_, rowBytes_, pixelBytes_, place(kNone)),
            differences<kLeft>(current_, above_, rowBytes_, pixelBytes_, place(kLeft)),
            differences<kAbove>(current_, above_, rowBytes_, pixelBytes_, place(kAbove)),
            differences<kAverage>(current_, above_, rowBytes_, pixelBytes_, place(kAverage)),
            differences<kNearest>(current_, above_, rowBytes_, pixelBytes_, place(kNearest)),
        };
        best = static_cast<uint32_t>(std::min_element(sums, sums + kFilters) - sums);
        differs = place(best);
    }
    stored[0] = static_cast<uint8_t>(best);
    std::memcpy(stored + 1, differs, rowBytes_);
    std::swap(above_, current_);
}

bool RowFilter::restore(const uint8_t* stored, uint8_t* row) {
    constexpr decltype(&undo<kNone>) undoes[kFilters] = {undo<kNone>, undo<kLeft>, undo<kAbove>,
                                                         undo<kAverage>, undo<kNearest>};
    if (stored[0] >= kFilters)
        return false;
    undoes[stored[0]](stored + 1, above_, rowBytes_, pixelBytes_, current_);
    std::memcpy(row, current_, rowBytes_);
    std::swap(above_, current_);
    return true;
}
