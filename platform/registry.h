// The registry: a tree of keys that hold values, shared by every process of the user.
//
// Every call returns 0 or one of the codes below. A handle names a key, not what is in it: a key that is deleted
// behind a handle is missing for it, and there again once somebody makes it anew. Where the registry is, calls from the
// top ask the environment, and all handles go with them.
#ifndef KAL_PLATFORM_REGISTRY_H
#define KAL_PLATFORM_REGISTRY_H

#include <cstdint>

using HKEY = void*;

// The key under which all others lie; always open.
#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(uintptr_t{0x80000000u}))

inline constexpr uint32_t KEY_ALL_ACCESS = 0xF003F;
inline constexpr uint32_t REG_OPTION_NON_VOLATILE = 0;
inline constexpr uint32_t REG_OPTION_VOLATILE = 1; // the key lives until the next start of the machine
inline constexpr uint32_t REG_SZ = 1;

inline constexpr int32_t ERROR_SUCCESS = 0;
inline constexpr int32_t ERROR_FILE_NOT_FOUND = 2; // there is no such key or value
inline constexpr int32_t ERROR_ACCESS_DENIED = 5;  // also: the key still has subkeys
inline constexpr int32_t ERROR_INVALID_HANDLE = 6;
inline constexpr int32_t ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr int32_t ERROR_INVALID_PARAMETER = 87;
inline constexpr int32_t ERROR_DISK_FULL = 112;
inline constexpr int32_t ERROR_BAD_PATHNAME = 161; // an empty component in a key's name
inline constexpr int32_t ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr int32_t ERROR_MORE_DATA = 234;
inline constexpr int32_t ERROR_NO_MORE_ITEMS = 259;
inline constexpr int32_t ERROR_REGISTRY_IO_FAILED = 1016; // the registry's file cannot be reached

// The largest value that can be set.
inline constexpr uint32_t kMostValueBytes = 1 << 20;

// `subKey` is a path of names with `\` between them, compared without regard to (ASCII) case; one `\` at its
// end is let through. A name has at most 255 bytes, a path 4,095. The caller closes every handle that it gets.
// Reserved words, classes, access, security and `disposition` are ignored.

// Opens a key, or makes it with the keys on the way to it. A new key appears with its first value, when a key below it
// is asked for or when the handle is closed, whichever comes first: so a key and its value come into being in one step.
int32_t RegCreateKeyExA(HKEY key, const char* subKey, uint32_t reserved, const char* className,
                        uint32_t options, uint32_t access, const void* security, HKEY* result,
                        uint32_t* disposition);

int32_t RegOpenKeyExA(HKEY key, const char* subKey, uint32_t reserved, uint32_t access, HKEY* result);

// Reads the value `name` (null or empty: the default one). `*size` is the room at `data` and becomes the
// value's size; a value that does not fit gives ERROR_MORE_DATA and leaves `data` alone. Null `data` asks for
// the size.
int32_t RegQueryValueExA(HKEY key, const char* name, uint32_t* reserved, uint32_t* type, uint8_t* data,
                         uint32_t* size);

int32_t RegSetValueExA(HKEY key, const char* name, uint32_t reserved, uint32_t type, const uint8_t* data,
                       uint32_t size);

// The name of the `index`-th subkey, in the order of names, as it was spelled when the key was made.
// ERROR_NO_MORE_ITEMS past the last one; ERROR_MORE_DATA when name and terminating zero do not fit.
int32_t RegEnumKeyA(HKEY key, uint32_t index, char* name, uint32_t nameSize);

// Deletes a key with its values. ERROR_ACCESS_DENIED when it has subkeys.
int32_t RegDeleteKeyA(HKEY key, const char* subKey);

// The same with all that is below it, in one step.
int32_t RegDeleteTreeA(HKEY key, const char* subKey);

int32_t RegCloseKey(HKEY key);

// No call of the platform: gives a key's default value a text and makes the key `subKey` below the top, which lives until
// the next start of the machine; in one step, unless the first one outlives that. `*isNew` tells whether it was not there.
int32_t registryDraw(HKEY counter, const char* text, const char* subKey, HKEY* result, bool* isNew);

// No call of the platform: a number that stays while nothing changes in the registry that the key lies in, whatever
// process changes it, so that what was read can be kept. 0 when that is not known.
uint64_t registryState(HKEY key);

// Forgets what this process knows of the registry, which the next call reads again. For tests.
void forgetRegistry();

#endif
