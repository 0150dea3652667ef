#include "platform/registry/record.h"

#include "platform/little_endian.h"

#include <cerrno>

uint32_t checkOf(uint32_t logNumber, std::string_view record) {
    char number[4];
    storeLittle(number, logNumber);
    uint32_t hash = 2166136261u; // FNV-1a
    for (const std::string_view part : {std::string_view(number, 4), record.substr(0, 4), record.substr(8)})
        for (const char byte : part)
            hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619u;
    return hash;
}

int checkPath(std::string_view path) {
    uint32_t name = 0;
    for (const char c : path) {
        if (c == 0 || (c == '\\' && name == 0))
            return EINVAL;
        name = c == '\\' ? 0 : name + 1;
        if (name > kMostNameBytes)
            return ENAMETOOLONG;
    }
    return path.size() > kMostPathBytes ? ENAMETOOLONG : name == 0 ? EINVAL : 0;
}

bool RegistryRecord::store(uint32_t logNumber, Array<char>& to) const {
    const size_t start = to.size();
    if (!to.resize(start + length()))
        return false;
    char* const at = to.data() + start;
    storeLittle(at, length());
    at[8] = static_cast<char>(kind);
    storeLittle(at + 10, static_cast<uint16_t>(path.size()));
    storeLittle(at + 12, static_cast<uint16_t>(name.size()));
    storeLittle(at + 16, type);
    char* end = at + kRecordHead;
    for (const std::string_view part : {path, name, bytes})
        end += part.copy(end, part.size());
    storeLittle(at + 4, checkOf(logNumber, {at, length()}));
    return true;
}

bool RegistryRecord::load(uint32_t logNumber, std::string_view from) {
    const char* const at = from.data();
    const uint32_t stored = from.size() < kRecordHead ? 0 : loadLittle<uint32_t>(at);
    if (stored < kRecordHead || stored > from.size() ||
        loadLittle<uint32_t>(at + 4) != checkOf(logNumber, from.substr(0, stored)))
        return false;
    kind = static_cast<RecordKind>(at[8]);
    type = loadLittle<uint32_t>(at + 16);
    path = {at + kRecordHead, loadLittle<uint16_t>(at + 10)};
    name = {path.end(), loadLittle<uint16_t>(at + 12)};
    const size_t texts = kRecordHead + path.size() + name.size();
    bytes = {at + texts, stored - texts};
    return texts <= stored && name.size() <= kMostNameBytes && bytes.size() <= kMostValueBytes &&
           kind >= RecordKind::key && kind <= RecordKind::deleted && checkPath(path) == 0;
}
