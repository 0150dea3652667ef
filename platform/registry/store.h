// One registry: the persistent log and the volatile one, and the tree of keys that both make. Calls give 0 or an
// error of the host.
#ifndef KAL_PLATFORM_REGISTRY_STORE_H
#define KAL_PLATFORM_REGISTRY_STORE_H

#include "platform/registry/log.h"
#include "platform/registry/place.h"

class RegistryStore {
public:
    explicit RegistryStore(const RegistryPlace& place) : place_(place) { look(); }
    RegistryStore(const RegistryStore&) = delete;
    RegistryStore& operator=(const RegistryStore&) = delete;

    const RegistryPlace& place() const { return place_; }
    const KeyTree& keys() const { return keys_; }
    uint32_t openHandles = 0;

    void look();
    int refresh();
    // ENOENT for a key that is not found, or why it may be there nevertheless.
    int missing() const;
    // 0 where keys can be made in that log.
    int mayCreate(LogIndex log) const { return logs_[log].writable(); }

    // Adds a record that makes a key or a value. `home` takes a key that is not there; `*isNew`, unless null, tells
    // whether it was not, and then a key that was there is left alone.
    int write(const RegistryRecord& record, LogIndex home, bool* isNew);
    // With all below it. ENOTEMPTY when it has subkeys that must not go too.
    int remove(RegistryText path, bool withSubkeys);

private:
    LogIndex logOf(RegistryText path, LogIndex home) const;

    RegistryPlace place_;
    KeyTree keys_;
    char volatileFolder_[PATH_MAX] = {};
    RegistryLog logs_[kLogs] = {{keys_, kPersistent, place_.persistent}, {keys_, kVolatile, volatileFolder_}};
};

#endif
