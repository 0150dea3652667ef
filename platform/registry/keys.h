// The registry in memory: one tree of keys for both logs, which tells of each key which logs have it.
#ifndef KAL_PLATFORM_REGISTRY_KEYS_H
#define KAL_PLATFORM_REGISTRY_KEYS_H

#include "platform/array.h"
#include "platform/registry/record.h"

enum LogIndex : uint8_t { kPersistent, kVolatile, kLogs };

struct KeyValue {
    KeyValue* next;
    uint32_t type;
    uint32_t size;
    uint8_t nameLength;

    // Behind it: the name, then the bytes.
    std::string_view name() const { return {reinterpret_cast<const char*>(this + 1), nameLength}; }
    std::string_view bytes() const { return {name().end(), size}; }
};

struct KeyNode {
    Array<KeyNode*> below;        // the subkeys, in the order of their names
    KeyValue* values[kLogs] = {}; // what each log says
    bool in[kLogs] = {};          // the logs that have the key: one at least
    uint8_t nameLength = 0;

    // Behind it: the name as its maker spelled it.
    std::string_view name() const { return {reinterpret_cast<const char*>(this + 1), nameLength}; }
    // The value of that name; null when there is none. A persistent value hides a volatile one.
    const KeyValue* value(std::string_view name) const;
};

// Both logs are to be forgotten before it goes.
class KeyTree {
public:
    // Null when there is no such key; the top for an empty path.
    const KeyNode* find(std::string_view path) const;
    // Makes true what a log's record says. False when memory is short; it may be asked again.
    bool apply(LogIndex log, const RegistryRecord& record);
    // Takes back all that a log said.
    void forget(LogIndex log);
    // The bytes of the fewest records that say what the log says now; adds them to `to`, which has room or is null.
    uint64_t pack(LogIndex log, uint32_t logNumber = 0, Array<char>* to = nullptr) const;

private:
    KeyNode top_ = {{}, {}, {true, true}};
};

#endif
