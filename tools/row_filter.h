// Rows made easier to compress: each byte becomes its difference from what its neighbours foretell. The five
// filters are those of PNG (ISO/IEC 15948, clause 9); "left" is the byte one pixel before.
#ifndef KAL_TOOLS_ROW_FILTER_H
#define KAL_TOOLS_ROW_FILTER_H

#include "tools/bytes.h"

#include <vector>

class RowFilter {
public:
    // Rows of `rowBytes` bytes, a pixel taking `pixelBytes` of them (1 where pixels share a byte).
    RowFilter(uint32_t rowBytes, uint32_t pixelBytes);
    RowFilter(const RowFilter&) = delete;
    RowFilter& operator=(const RowFilter&) = delete;

    uint32_t storedBytes() const { return rowBytes_ + 1; }

    // Stores a row as the number of a filter and what it makes of the row: the filter with the least sum of absolute
    // differences, or none where `filtering` is false. Rows go in and come out in one order.
    void filter(const uint8_t* row, uint8_t* stored, bool filtering);
    // Stores the row that `stored` came from. False when it names no filter.
    bool restore(const uint8_t* stored, uint8_t* row);

private:
    uint32_t rowBytes_;
    uint32_t pixelBytes_;
    std::vector<uint8_t> rows_;  // the row before and this one, each behind a pixel of zeros
    std::vector<uint8_t> tries_; // what each filter makes of this row; empty until rows are filtered
    uint8_t* above_;
    uint8_t* current_;
};

#endif
