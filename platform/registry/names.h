// Names of keys and values as names of folders and files.
#ifndef KAL_PLATFORM_REGISTRY_NAMES_H
#define KAL_PLATFORM_REGISTRY_NAMES_H

#include <cstddef>

// What a host's file system takes in one component.
inline constexpr size_t kMostFileName = 255;

struct FileName {
    char text[kMostFileName + 1];
};

inline char foldedCharacter(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

// The folder's name for a key's name: letters A to Z become small; `%`, `/`, `\`, whatever is not a printing
// ASCII character, and a `.` or `@` at the start are written `%XX`. So no two keys share a folder, none
// leaves the tree, and names that begin with `.` or `@` stay free for what a folder holds beside its subkeys.
// False when the result is too long.
bool toFolderName(const char* name, size_t length, FileName& result);

// The file's name for a value's name: `@`, then the name as a folder's would be; `@` alone for null or "".
bool toValueFileName(const char* name, FileName& result);

// The (small-letter) key's name for a folder's name; false when no key has that folder.
bool fromFolderName(const char* folder, FileName& result);

// Whether the texts are one name. `small` is folded already.
bool isSpellingOf(const char* spelling, const char* small);

#endif
