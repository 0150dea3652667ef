#include "platform/directory_calls.h"

#include "platform/host_calls.h"
#include "platform/host_path.h"

#include <cerrno>
#include <cstring>

int _mkdir(const char* path) {
    HostPath host;
    return toHostPath(path, host) ? hostCalls.mkdir(host.text, 0777) : -1;
}

int _chdir(const char* path) {
    // A drive alone is no directory, only what a path in its current directory begins with.
    if (path != nullptr && path[0] != 0 && std::strcmp(path + 1, ":") == 0) {
        errno = ENOENT;
        return -1;
    }
    HostPath host;
    return toHostPath(path, host) ? hostCalls.chdir(host.text) : -1;
}

char* _getcwd(char* destination, int size) {
    HostPath host;
    HostPath platform;
    if (hostCalls.getcwd(host.text, sizeof host.text) == nullptr)
        return nullptr;
    // A directory out of reach of the root comes without a leading separator.
    if (host.text[0] != '/' || !toPlatformPath(host.text, platform.text, sizeof platform.text)) {
        errno = ENOENT;
        return nullptr;
    }
    const size_t length = std::strlen(platform.text);
    if (size <= 0 || length >= static_cast<size_t>(size)) {
        errno = ERANGE;
        return nullptr;
    }
    return static_cast<char*>(std::memcpy(destination, platform.text, length + 1));
}
