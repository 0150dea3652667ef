#include "platform/registry/value_file.h"

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
