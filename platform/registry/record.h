// One change in a log, as it stands there:
//
//     0        4       8      9      10       12      14     16     20     20 + P   20 + P + N
//     +--------+-------+------+------+--------+-------+------+------+------+--------+---------+
//     | length | check | kind |  0   | path P | name N|  0   | type | path | name   | bytes   |
//     +--------+-------+------+------+--------+-------+------+------+------+--------+---------+
//
// The check is over the log's number and all of the record but the check itself.
#ifndef KAL_PLATFORM_REGISTRY_RECORD_H
#define KAL_PLATFORM_REGISTRY_RECORD_H

#include "platform/registry.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

inline constexpr uint32_t kMostNameBytes = 255; // of a key, and of a value
inline constexpr uint32_t kMostPathBytes = 4095;
inline constexpr uint32_t kRecordHead = 20;

// The log's header: four numbers, then nothing up to the first record.
inline constexpr uint32_t kMagic = 'K' | 'R' << 8 | 'E' << 16 | uint32_t{'G'} << 24;
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kHeaderBytes = 4096;
inline constexpr uint32_t kReplaced = 0x80000000; // in its last number: another file takes the log's place

// A text that need not end in a zero: a name, or names with `\` between them.
struct RegistryText {
    const char* text;
    uint32_t length;
};

enum class RecordKind : uint8_t {
    key = 1,    // the key is there, and so are those on the way to it
    value = 2,  // the same, and it has this value
    deleted = 3 // the key is gone with all that was below it
};

struct RegistryRecord {
    RecordKind kind;
    RegistryText path; // from the top
    RegistryText name = {nullptr, 0};
    uint32_t type = 0;
    const uint8_t* data = nullptr;
    uint32_t size = 0;

    uint32_t bytes() const { return kRecordHead + path.length + name.length + size; }
    void store(uint32_t logNumber, uint8_t* at) const;
    // The record at the start of `available` bytes, its pointers into them. False when none stands there whole and
    // sound.
    bool load(uint32_t logNumber, const uint8_t* at, size_t available);
};

// Copies bytes that may be none, from nowhere.
inline void copyBytes(void* to, const void* from, uint32_t count) {
    if (count != 0)
        std::memcpy(to, from, count);
}

// 0, EINVAL for a name without characters, ENAMETOOLONG.
int checkPath(RegistryText path);

#endif
