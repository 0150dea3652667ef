// Integers as they stand in files and ops, at any address. They are little-endian, and so is every host of this
// library: what it reads and writes are the bytes of its own numbers.
#ifndef KAL_PLATFORM_LITTLE_ENDIAN_H
#define KAL_PLATFORM_LITTLE_ENDIAN_H

#include <bit>
#include <cstdint>
#include <cstring>

static_assert(std::endian::native == std::endian::little);

template <class Integer>
inline Integer loadLittle(const void* from) {
    Integer value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <class Integer>
inline void storeLittle(void* to, Integer value) {
    std::memcpy(to, &value, sizeof value);
}

#endif
