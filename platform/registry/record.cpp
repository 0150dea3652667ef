#include "platform/registry/record.h"

#include "platform/little_endian.h"

#include <cerrno>

namespace {

// FNV-1a.
uint32_t hash(uint32_t state, const uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; i++)
        state = (state ^ bytes[i]) * 16777619u;
    return state;
}

uint32_t checkOf(uint32_t logNumber, const uint8_t* record, uint32_t bytes) {
    uint8_t number[4];
    storeLittle(number, logNumber);
    return hash(hash(hash(2166136261u, number, 4), record, 4), record + 8, bytes - 8);
}

} // namespace

int checkPath(RegistryText path) {
    if (path.length > kMostPathBytes)
        return ENAMETOOLONG;
    uint32_t name = 0;
    for (uint32_t i = 0; i < path.length; i++) {
        if (path.text[i] == 0 || (path.text[i] == '\\' && name == 0))
            return EINVAL;
        name = path.text[i] == '\\' ? 0 : name + 1;
        if (name > kMostNameBytes)
            return ENAMETOOLONG;
    }
    return name == 0 ? EINVAL : 0;
}

void RegistryRecord::store(uint32_t logNumber, uint8_t* at) const {
    std::memset(at, 0, kRecordHead);
    storeLittle(at, bytes());
    at[8] = static_cast<uint8_t>(kind);
    storeLittle(at + 10, static_cast<uint16_t>(path.length));
    storeLittle(at + 12, static_cast<uint16_t>(name.length));
    storeLittle(at + 16, type);
    copyBytes(at + kRecordHead, path.text, path.length);
    copyBytes(at + kRecordHead + path.length, name.text, name.length);
    copyBytes(at + kRecordHead + path.length + name.length, data, size);
    storeLittle(at + 4, checkOf(logNumber, at, bytes()));
}

bool RegistryRecord::load(uint32_t logNumber, const uint8_t* at, size_t available) {
    const uint32_t length = available < kRecordHead ? 0 : loadLittle<uint32_t>(at);
    if (length < kRecordHead || length > available ||
        loadLittle<uint32_t>(at + 4) != checkOf(logNumber, at, length))
        return false;
    kind = static_cast<RecordKind>(at[8]);
    path = {reinterpret_cast<const char*>(at + kRecordHead), loadLittle<uint16_t>(at + 10)};
    name = {path.text + path.length, loadLittle<uint16_t>(at + 12)};
    type = loadLittle<uint32_t>(at + 16);
    const uint32_t texts = kRecordHead + path.length + name.length;
    data = at + texts;
    size = length - texts;
    return texts <= length && name.length <= kMostNameBytes && size <= kMostValueBytes &&
           kind >= RecordKind::key && kind <= RecordKind::deleted && checkPath(path) == 0;
}
