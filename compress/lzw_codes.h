// The numbers of the codec with 256 roots, as the compressed stream uses it.
#ifndef KAL_COMPRESS_LZW_CODES_H
#define KAL_COMPRESS_LZW_CODES_H

#include <kal/lzw.h>

#include <bit>

inline constexpr uint16_t kRoots = 256;
inline constexpr uint16_t kClearCode = kRoots;
inline constexpr uint16_t kEndCode = kRoots + 1;
inline constexpr uint16_t kFirstCode = kRoots + 2;
inline constexpr uint16_t kFirstWidth = 9;
inline constexpr uint16_t kWidestCode = 12;

// The encoder clears its table as soon as this code is assigned.
inline constexpr uint16_t kLastAssigned = 4093;

// The smallest width of at least 1 bit in which `count` codes can be told apart.
constexpr uint16_t widthFor(uint32_t count) {
    return count <= 2 ? uint16_t{1} : static_cast<uint16_t>(std::bit_width(count - 1));
}

// Whether a table can hold `rootCount` single characters and the clear and end codes behind them.
constexpr bool fitsTable(uint16_t rootCount) {
    return rootCount + 2u <= KAL_LZW_CODES;
}

#endif
