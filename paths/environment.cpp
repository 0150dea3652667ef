// The process environment, and the directory of private settings files.
#include <kal/path.h>

#include "platform/c_text.h"
#include "platform/environment.h"
#include "platform/windows_directory.h"

#include <cstring>

const char* KalGetEnv(const char* name) {
    const char* entry = name != nullptr ? GetEnvironmentStrings() : nullptr;
    if (entry == nullptr)
        return nullptr;
    const size_t length = std::strlen(name);
    for (; *entry != 0; entry += std::strlen(entry) + 1)
        if (std::strcspn(entry, "=") == length && entry[length] == '=' && _strnicmp(entry, name, length) == 0)
            return entry + length + 1;
    return nullptr;
}

int16_t KalGetPrivateDir(char* destination, uint32_t size) {
    const uint32_t length = GetWindowsDirectoryA(destination, size);
    return length > 0 && length < size ? KAL_OK : KAL_ERR_EXAMINE;
}
