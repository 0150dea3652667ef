// Integers as they stand in files and ops: little-endian on any host, at any address.
#ifndef KAL_MEMORY_LITTLE_ENDIAN_H
#define KAL_MEMORY_LITTLE_ENDIAN_H

#include <bit>
#include <cstdint>
#include <cstring>

static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big);

template <class Integer>
inline Integer loadLittle(const void* from) {
    uint8_t bytes[sizeof(Integer)];
    std::memcpy(bytes, from, sizeof bytes);
    Integer value;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&value, bytes, sizeof value);
    } else {
        value = 0;
        for (size_t i = sizeof bytes; i-- > 0;)
            value = static_cast<Integer>(value << 8 | bytes[i]);
    }
    return value;
}

template <class Integer>
inline void storeLittle(void* to, Integer value) {
    uint8_t bytes[sizeof(Integer)];
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(bytes, &value, sizeof value);
    } else {
        for (auto& byte : bytes) {
            byte = static_cast<uint8_t>(value);
            value = static_cast<Integer>(value >> 8);
        }
    }
    std::memcpy(to, bytes, sizeof bytes);
}

#endif
