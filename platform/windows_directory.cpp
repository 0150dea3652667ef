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

// Stores `text` followed by `behind` when both fit. The length, or the room needed.
uint32_t deliver(const char* text, const char* behind, char* destination, uint32_t size) {
    const size_t length = std::strlen(text) + std::strlen(behind);
    if (length >= size)
        return static_cast<uint32_t>(length + 1);
    std::snprintf(destination, size, "%s%s", text, behind);
    return static_cast<uint32_t>(length);
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
    return deliver(directory, "", destination, size);
}

uint32_t GetTempPathA(uint32_t size, char* destination) {
    HostPath platform;
    const char* directory = nonEmpty("TMPDIR");
    if (!toPlatformPath(directory != nullptr ? directory : "/tmp", platform.text, sizeof platform.text))
        return 0;
    const size_t length = std::strlen(platform.text);
    return deliver(platform.text, length > 0 && platform.text[length - 1] == '\\' ? "" : "\\", destination,
                   size);
}
