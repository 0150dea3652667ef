// Little-endian numbers in bytes.
#ifndef KAL_TOOLS_BYTES_H
#define KAL_TOOLS_BYTES_H

#include <cstddef>
#include <cstdint>
#include <span>

using ByteView = std::span<const uint8_t>;

// `offset` and the number behind it must lie within `bytes`.
inline uint16_t load16(ByteView bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}
inline uint32_t load32(ByteView bytes, size_t offset) {
    return load16(bytes, offset) | static_cast<uint32_t>(load16(bytes, offset + 2)) << 16;
}
inline void store16(uint8_t* place, uint32_t number) {
    place[0] = static_cast<uint8_t>(number);
    place[1] = static_cast<uint8_t>(number >> 8);
}
inline void store32(uint8_t* place, uint32_t number) {
    store16(place, number);
    store16(place + 2, number >> 16);
}

#endif
