#include "settings/tag_keys.h"

namespace {

char upperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

uint8_t* bytesOf(char* text) {
    return reinterpret_cast<uint8_t*>(text);
}

} // namespace

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

HKEY makeKey(HKEY above, const char* name, bool persistent) {
    HKEY key = nullptr;
    RegCreateKeyExA(above, name, 0, "string", persistent ? REG_OPTION_NON_VOLATILE : REG_OPTION_VOLATILE,
                    KEY_ALL_ACCESS, nullptr, &key, nullptr);
    return key;
}

HKEY openKey(HKEY above, const char* name) {
    HKEY key = nullptr;
    RegOpenKeyExA(above, name, 0, KEY_ALL_ACCESS, &key);
    return key;
}

void readValue(HKEY key, const char* valueName, char* buffer, int size) {
    const uint32_t room = size > 0 ? static_cast<uint32_t>(size) : 0;
    uint32_t got = room;
    const int32_t code = RegQueryValueExA(key, valueName, nullptr, nullptr, bytesOf(buffer), &got);
    // A value that somebody else stored need not end in a zero.
    if (code == ERROR_SUCCESS && buffer != nullptr && got < room)
        buffer[got] = 0;
}

char* loadValue(HKEY key) {
    uint32_t size = 0;
    char* text = nullptr;
    // Another process may make the value larger between the two questions.
    int32_t code = RegQueryValueExA(key, nullptr, nullptr, nullptr, nullptr, &size);
    do {
        KalFreeSMem(text);
        text = code == ERROR_SUCCESS || code == ERROR_MORE_DATA ? static_cast<char*>(KalAllocSMem(size + 1))
                                                                : nullptr;
        if (text != nullptr)
            code = RegQueryValueExA(key, nullptr, nullptr, nullptr, bytesOf(text), &size);
    } while (text != nullptr && code == ERROR_MORE_DATA);
    if (code == ERROR_SUCCESS)
        return text;
    KalFreeSMem(text);
    return nullptr;
}

void deleteSubkeys(HKEY key) {
    char name[kTagNameSize];
    for (uint32_t kept = 0; RegEnumKeyA(key, kept, name, sizeof name) == ERROR_SUCCESS;)
        kept += RegDeleteTreeA(key, name) != ERROR_SUCCESS;
}
