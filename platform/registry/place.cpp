#include "platform/registry/place.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

const char* nonEmpty(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != 0 ? value : nullptr;
}

void put(char (&path)[PATH_MAX], const char* folder, const char* below) {
    const int length = std::snprintf(path, sizeof path, "%s%s", folder, below);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path)
        path[0] = 0;
}

} // namespace

bool RegistryPlace::operator==(const RegistryPlace& other) const {
    return std::strcmp(persistent, other.persistent) == 0 && std::strcmp(runtime, other.runtime) == 0;
}

RegistryPlace registryPlace() {
    RegistryPlace place;
    place.persistent[0] = 0;
    if (const char* given = nonEmpty("KAL_REGISTRY"))
        put(place.persistent, given, "");
    else if (const char* data = nonEmpty("XDG_DATA_HOME"))
        put(place.persistent, data, "/kal/registry");
    else if (const char* home = nonEmpty("HOME"))
        put(place.persistent, home, "/.local/share/kal/registry");
    const char* runtime = nonEmpty("XDG_RUNTIME_DIR");
    put(place.runtime, runtime != nullptr ? runtime : "/dev/shm", "");
    return place;
}

bool volatileFolder(const RegistryPlace& place, char (&folder)[PATH_MAX]) {
    char whole[PATH_MAX];
    const char* text = realpath(place.persistent, whole);
    uint64_t mark = 14695981039346656037u; // FNV-1a
    for (const char* c = text != nullptr ? text : place.persistent; *c != 0; c++)
        mark = (mark ^ static_cast<unsigned char>(*c)) * 1099511628211u;
    const int length = std::snprintf(folder, sizeof folder, "%s/kal-registry-%u-%016" PRIx64, place.runtime,
                                     static_cast<unsigned>(geteuid()), mark);
    return length > 0 && static_cast<size_t>(length) < sizeof folder;
}
