#include "platform/registry/place.h"

#include "platform/host_calls.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace {

// The first of the variables that is not empty, with what lies below it; empty when it does not fit.
void find(char (&path)[PATH_MAX], std::initializer_list<std::pair<const char*, std::string_view>> variables) {
    path[0] = 0;
    for (const auto& [variable, below] : variables)
        if (const char* folder = std::getenv(variable); folder != nullptr && *folder != 0) {
            const std::string_view above = folder;
            if (above.size() + below.size() < PATH_MAX)
                path[above.copy(path, PATH_MAX) + below.copy(path + above.size(), PATH_MAX)] = 0;
            return;
        }
}

} // namespace

RegistryPlace::RegistryPlace() {
    find(persistent,
         {{"KAL_REGISTRY", ""}, {"XDG_DATA_HOME", "/kal/registry"}, {"HOME", "/.local/share/kal/registry"}});
    find(runtime, {{"XDG_RUNTIME_DIR", ""}});
    if (runtime[0] == 0)
        std::strcpy(runtime, "/dev/shm");
}

bool RegistryPlace::operator==(const RegistryPlace& other) const {
    return std::strcmp(persistent, other.persistent) == 0 && std::strcmp(runtime, other.runtime) == 0;
}

void RegistryPlace::findVolatile(char (&folder)[PATH_MAX]) const {
    char whole[PATH_MAX];
    const char* text = hostCalls.realpath(persistent, whole);
    uint64_t mark = 14695981039346656037u; // FNV-1a
    for (const char* c = text != nullptr ? text : persistent; *c != 0; c++)
        mark = (mark ^ static_cast<unsigned char>(*c)) * 1099511628211u;
    if (std::snprintf(folder, sizeof folder, "%s/kal-registry-%u-%016" PRIx64, runtime,
                      static_cast<unsigned>(hostCalls.geteuid()), mark) >= PATH_MAX)
        folder[0] = 0;
}
