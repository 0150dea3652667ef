// Open keys by handle: a number that is not used again soon after its key was closed, so that a dead handle
// is refused and not followed.
#ifndef KAL_PLATFORM_REGISTRY_HANDLES_H
#define KAL_PLATFORM_REGISTRY_HANDLES_H

#include "platform/registry.h"
#include "platform/registry/store.h"

struct OpenKey {
    RegistryStore* store; // null in a free entry
    KeyNode* node;
    uint32_t uses; // of the entry, so far
    uint32_t nextFree;
};

class HandleTable {
public:
    // Null when there is no room for another one.
    HKEY open(RegistryStore* store, KeyNode* node);
    // Null for anything but a live handle.
    OpenKey* find(HKEY handle);
    void close(OpenKey* entry);

private:
    OpenKey* entries_ = nullptr;
    uint32_t count_ = 0; // entry 0 is never used
    uint32_t room_ = 0;
    uint32_t firstFree_ = 0;
};

#endif
