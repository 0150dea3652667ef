#include "platform/registry/value_file.h"

#include "platform/heap_faults.h"
#include "platform/registry.h"

#include <charconv>
#include <cstring>

namespace {

constexpr char kMark[] = "REG_";
constexpr uint32_t kMarkLength = sizeof kMark - 1;

bool startsWithMark(const uint8_t* data, uint32_t size) {
    return size >= kMarkLength && std::memcmp(data, kMark, kMarkLength) == 0;
}

} // namespace

bool RegistryValue::assign(uint32_t newType, const uint8_t* newData, uint32_t newSize) {
    void* room = heapFaultDue() ? nullptr : std::realloc(block, size_t{newSize} + 1);
    if (room == nullptr) {
        clear();
        return false;
    }
    block = static_cast<uint8_t*>(room);
    if (newSize != 0)
        std::memcpy(block, newData, newSize);
    start = 0;
    size = newSize;
    type = newType;
    return true;
}

uint32_t typeLineOf(uint32_t type, const uint8_t* data, uint32_t size, char (&line)[kMostTypeLine]) {
    if (type == REG_SZ && !startsWithMark(data, size))
        return 0;
    std::memcpy(line, kMark, kMarkLength);
    char* end = std::to_chars(line + kMarkLength, line + kMostTypeLine - 1, type).ptr;
    *end++ = '\n';
    return static_cast<uint32_t>(end - line);
}

void parseValueFile(RegistryValue& value, uint32_t bytes) {
    value.type = REG_SZ;
    value.start = 0;
    value.size = bytes;
    if (!startsWithMark(value.block, bytes))
        return;
    const char* const first = reinterpret_cast<const char*>(value.block);
    const char* const last = first + bytes;
    uint32_t type;
    const auto [end, error] = std::from_chars(first + kMarkLength, last, type);
    if (error != std::errc() || end == last || *end != '\n')
        return; // text that a person wrote
    value.type = type;
    value.start = static_cast<uint32_t>(end + 1 - first);
    value.size = bytes - value.start;
}
