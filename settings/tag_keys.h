// Steps over the registry that the members of a tag set share.
#ifndef KAL_SETTINGS_TAG_KEYS_H
#define KAL_SETTINGS_TAG_KEYS_H

#include "platform/registry.h"

#include <kal/tagset.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

inline constexpr const char* kParentTag = "Parent";
inline constexpr const char* kPatternsKey = "Wildcards";

// What subkey names are enumerated into.
inline constexpr uint32_t kTagNameSize = 260;

// Two texts in one. False when they do not fit.
template <size_t room>
bool join(char (&to)[room], const char* first, const char* second) {
    const size_t length = std::strlen(first), rest = strnlen(second, room);
    if (length + rest >= room)
        return false;
    std::memcpy(to, first, length);
    std::memcpy(to + length, second, rest);
    to[length + rest] = 0;
    return true;
}

bool sameName(const char* a, const char* b);
bool namesBeginAlike(const char* a, const char* b, size_t count);

// Whether the stored name, or the tag's own, with `?` standing for any one character, is the other.
bool matchesPattern(const char* stored, const char* tag);

// Makes or opens a key as every tag set's keys are made. Null on failure.
HKEY makeKey(HKEY above, const char* name, bool persistent);
HKEY openKey(HKEY above, const char* name);

// Reads a value of a key into `buffer`, ended by a zero where there is room for it. Whether there is such a value,
// and whether it fits, is not reported.
void readValue(HKEY key, const char* valueName, char* buffer, int size);

// A key's default value, whole, as a block of small memory; null when there is none.
char* loadValue(HKEY key);

// With all that is below them.
void deleteSubkeys(HKEY key);

#endif
