#include "platform/windows_directory.h"

#include "platform/host_path.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* nonEmpty(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != 0 ? value : nullptr;
}

bool configurationDirectory(HostPath& result) {
    const char* configured = nonEmpty("XDG_CONFIG_HOME");
    const char* home = nonEmpty("HOME");
    if (configured == nullptr && home == nullptr)
        return false;
    const int length = configured != nullptr
                           ? std::snprintf(result.text, sizeof result.text, "%s", configured)
                           : std::snprintf(result.text, sizeof result.text, "%s/.config", home);
    return length > 0 && static_cast<size_t>(length) < sizeof result.text;
}

} // namespace

uint32_t GetWindowsDirectoryA(char* destination, uint32_t size) {
    HostPath host;
    HostPath platform;
    const char* directory = nonEmpty("WINDIR");
    if (directory == nullptr) {
        if (!configurationDirectory(host) || !toPlatformPath(host.text, platform.text, sizeof platform.text))
            return 0;
        directory = platform.text;
    }
    const size_t length = std::strlen(directory);
    if (length >= size)
        return static_cast<uint32_t>(length + 1);
    std::memcpy(destination, directory, length + 1);
    return static_cast<uint32_t>(length);
}
