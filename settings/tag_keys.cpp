#include "settings/tag_keys.h"

#include <cstdio>
#include <cstring>

namespace {

char upperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

uint8_t* bytesOf(char* text) {
    return reinterpret_cast<uint8_t*>(text);
}

} // namespace

bool SetKeyName::join(const char* root, const char* path) {
    const int length = std::snprintf(text, sizeof text, "%s%s", root, path);
    return length > 0 && static_cast<size_t>(length) < sizeof text;
}

bool namesBeginAlike(const char* a, const char* b, size_t count) {
    for (size_t i = 0; i < count; i++) {
        if (upperCase(a[i]) != upperCase(b[i]))
            return false;
        if (a[i] == 0)
            return true;
    }
    return true;
}

bool sameName(const char* a, const char* b) {
    return namesBeginAlike(a, b, SIZE_MAX);
}

bool matchesPattern(const char* stored, const char* tag) {
    for (; *stored != 0 && *tag != 0; stored++, tag++)
        if (*stored != '?' && *tag != '?' && upperCase(*stored) != upperCase(*tag))
            return false;
    return *stored == *tag; // both at their end
}

HKEY makeKey(HKEY above, const char* name, bool persistent, uint32_t* disposition) {
    HKEY key = nullptr;
    RegCreateKeyExA(above, name, 0, "string", persistent ? REG_OPTION_NON_VOLATILE : REG_OPTION_VOLATILE,
                    KEY_ALL_ACCESS, nullptr, &key, disposition);
    return key;
}

HKEY openKey(HKEY above, const char* name) {
    HKEY key = nullptr;
    RegOpenKeyExA(above, name, 0, KEY_ALL_ACCESS, &key);
    return key;
}

bool readSubkey(HKEY above, const char* name, char* buffer, int size, const char* valueName) {
    const HKEY key = openKey(above, name);
    if (key == nullptr)
        return false;
    const uint32_t room = size > 0 ? static_cast<uint32_t>(size) : 0;
    uint32_t got = room;
    const int32_t code = RegQueryValueExA(key, valueName, nullptr, nullptr, bytesOf(buffer), &got);
    // A value that somebody else stored need not end in a zero.
    if (code == ERROR_SUCCESS && buffer != nullptr && got < room)
        buffer[got] = 0;
    RegCloseKey(key);
    return true;
}

char* loadSubkey(HKEY above, const char* name) {
    const HKEY key = openKey(above, name);
    if (key == nullptr)
        return nullptr;
    char* text = nullptr;
    uint32_t size = 0;
    // Another process may make the value larger between the two questions.
    int32_t code = RegQueryValueExA(key, nullptr, nullptr, nullptr, nullptr, &size);
    do {
        if (text != nullptr)
            KalFreeSMem(text);
        text = code == ERROR_SUCCESS || code == ERROR_MORE_DATA ? static_cast<char*>(KalAllocSMem(size + 1))
                                                                : nullptr;
        if (text != nullptr)
            code = RegQueryValueExA(key, nullptr, nullptr, nullptr, bytesOf(text), &size);
    } while (text != nullptr && code == ERROR_MORE_DATA);
    RegCloseKey(key);
    if (text != nullptr && code != ERROR_SUCCESS) {
        KalFreeSMem(text);
        return nullptr;
    }
    return text;
}

void deleteSubkeys(HKEY key) {
    uint32_t count = 0;
    if (RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr) != ERROR_SUCCESS)
        return;
    char name[kTagNameSize];
    while (count-- > 0) // from the last one, so that those to come keep their index
        if (RegEnumKeyA(key, count, name, sizeof name) == ERROR_SUCCESS)
            RegDeleteKeyA(key, name);
}
