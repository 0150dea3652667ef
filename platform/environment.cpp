#include "platform/environment.h"

#include "platform/c_text.h"
#include "platform/heap_faults.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace {

struct Snapshot {
    Snapshot* older; // kept alive: callers hold pointers into it
    size_t size;
    char* block() { return reinterpret_cast<char*>(this + 1); }
};

std::mutex snapshotLock;
Snapshot* newest;

bool isHostSearchPath(const char* entry) {
    return _strnicmp(entry, "PATH=", 5) == 0 && std::strpbrk(entry, ";\\") == nullptr;
}

size_t sizeOfEnvironment() {
    size_t size = 1;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; entry++)
        size += std::strlen(*entry) + 1;
    return size;
}

void copyEnvironment(char* to) {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; entry++) {
        const size_t length = std::strlen(*entry);
        std::memcpy(to, *entry, length + 1);
        if (isHostSearchPath(*entry))
            for (char* c = to; *c != 0; c++)
                *c = *c == ':' ? ';' : *c == '/' ? '\\' : *c;
        to += length + 1;
    }
    *to = 0;
}

} // namespace

const char* GetEnvironmentStrings() {
    const std::lock_guard guard(snapshotLock);
    const size_t size = sizeOfEnvironment();
    auto* fresh = heapFaultDue() ? nullptr : static_cast<Snapshot*>(std::malloc(sizeof(Snapshot) + size));
    if (fresh == nullptr)
        return nullptr;
    fresh->size = size;
    copyEnvironment(fresh->block());
    if (newest != nullptr && newest->size == size &&
        std::memcmp(newest->block(), fresh->block(), size) == 0) {
        std::free(fresh);
    } else {
        fresh->older = newest;
        newest = fresh;
    }
    return newest->block();
}
