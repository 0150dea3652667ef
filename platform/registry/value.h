// A value as the process holds it.
#ifndef KAL_PLATFORM_REGISTRY_VALUE_H
#define KAL_PLATFORM_REGISTRY_VALUE_H

#include <cstdint>
#include <cstdlib>

struct RegistryValue {
    uint8_t* block = nullptr; // owned; null: there is no value
    uint32_t start = 0;       // where the data begin in the block
    uint32_t size = 0;
    uint32_t type = 0;

    RegistryValue() = default;
    RegistryValue(const RegistryValue&) = delete;
    RegistryValue& operator=(const RegistryValue&) = delete;
    ~RegistryValue() { clear(); }

    bool present() const { return block != nullptr; }
    const uint8_t* data() const { return block + start; }
    bool assign(uint32_t newType, const uint8_t* newData, uint32_t newSize); // false when memory is short
    void clear() {
        std::free(block);
        block = nullptr;
        size = 0;
    }
};

#endif
