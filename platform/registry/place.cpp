#include "platform/registry/place.h"

#include "platform/host_calls.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// False when the variable is empty. A path that does not fit becomes empty.
bool place(char (&path)[PATH_MAX], const char* variable, const char* below) {
    const char* folder = std::getenv(variable);
    if (folder == nullptr || *folder == 0)
        return false;
    if (std::snprintf(path, sizeof path, "%s%s", folder, below) >= PATH_MAX)
        path[0] = 0;
    return true;
}

} // namespace

bool RegistryPlace::operator==(const RegistryPlace& other) const {
    return std::strcmp(persistent, other.persistent) == 0 && std::strcmp(runtime, other.runtime) == 0;
}

RegistryPlace::RegistryPlace() {
    if (!place(persistent, "KAL_REGISTRY", "") && !place(persistent, "XDG_DATA_HOME", "/kal/registry") &&
        !place(persistent, "HOME", "/.local/share/kal/registry"))
        persistent[0] = 0;
    if (!place(runtime, "XDG_RUNTIME_DIR", ""))
        std::strcpy(runtime, "/dev/shm");
}

void volatileFolder(const RegistryPlace& place, char (&folder)[PATH_MAX]) {
    char whole[PATH_MAX];
    const char* text = hostCalls.realpath(place.persistent, whole);
    uint64_t mark = 14695981039346656037u; // FNV-1a
    for (const char* c = text != nullptr ? text : place.persistent; *c != 0; c++)
        mark = (mark ^ static_cast<unsigned char>(*c)) * 1099511628211u;
    if (std::snprintf(folder, sizeof folder, "%s/kal-registry-%u-%016" PRIx64, place.runtime,
                      static_cast<unsigned>(hostCalls.geteuid()), mark) >= PATH_MAX)
        folder[0] = 0;
}
