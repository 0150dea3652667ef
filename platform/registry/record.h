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

#include "platform/array.h"
#include "platform/registry.h"

#include <cstdint>
#include <string_view>

inline constexpr uint32_t kMostNameBytes = 255; // of a key, and of a value
inline constexpr uint32_t kMostPathBytes = 4095;
inline constexpr uint32_t kRecordHead = 20;

// The log's header: four numbers, then nothing up to the first record.
inline constexpr uint32_t kMagic = 'K' | 'R' << 8 | 'E' << 16 | uint32_t{'G'} << 24;
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kHeaderBytes = 4096;
inline constexpr uint32_t kReplaced = 0x80000000; // in its last number: another file takes the log's place

enum class RecordKind : uint8_t {
    key = 1,    // the key is there, and so are those on the way to it
    value = 2,  // the same, and it has this value
    deleted = 3 // the key is gone with all that was below it
};

struct RegistryRecord {
    RecordKind kind;
    std::string_view path; // names from the top, `\` between them
    std::string_view name = {};
    uint32_t type = 0;
    std::string_view bytes = {};

    uint32_t length() const {
        return static_cast<uint32_t>(kRecordHead + path.size() + name.size() + bytes.size());
    }
    // Adds it to those in `to`. False when memory is short.
    bool store(uint32_t logNumber, Array<char>& to) const;
    // The record at the start of `from`, its texts in there. False when none stands there whole and sound.
    bool load(uint32_t logNumber, std::string_view from);
};

// What the second number of a record is, in the log of that number.
uint32_t checkOf(uint32_t logNumber, std::string_view record);

// 0, EINVAL for a name without characters, ENAMETOOLONG.
int checkPath(std::string_view path);

#endif
