#include "bench/handle_table.h"

#include <cstdint>

#define EXPORTED [[gnu::visibility("default")]]

namespace {

struct Entry {
    void* address;
    uint32_t locks;
    uint32_t isLive;
};
Entry entries[0x10000];
uintptr_t count;

Entry& entryOf(void* handle) {
    return entries[reinterpret_cast<uintptr_t>(handle) & 0xFFFF];
}

} // namespace

EXPORTED void* tableAdd(void* address) {
    entries[++count] = {address, 0, 1};
    return reinterpret_cast<void*>(count);
}

EXPORTED void* tableLock(void* handle) {
    Entry& entry = entryOf(handle);
    if (entry.isLive == 0)
        return nullptr;
    entry.locks++;
    return entry.address;
}

EXPORTED void tableUnlock(void* handle) {
    Entry& entry = entryOf(handle);
    if (entry.isLive != 0 && entry.locks > 0)
        entry.locks--;
}

EXPORTED void tableClear() {
    count = 0;
}
