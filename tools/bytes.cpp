#include "tools/bytes.h"

#include <array>

namespace {

constexpr std::array<uint32_t, 256> remainders = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); byte++) {
        uint32_t remainder = byte;
        for (int bit = 0; bit < 8; bit++)
            remainder = remainder >> 1 ^ ((remainder & 1) != 0 ? 0xEDB88320U : 0U);
        table[byte] = remainder;
    }
    return table;
}();

} // namespace

uint32_t crc32(ByteView bytes, uint32_t crc) {
    crc = ~crc;
    for (uint8_t byte : bytes)
        crc = crc >> 8 ^ remainders[(crc ^ byte) & 0xFF];
    return ~crc;
}
