// A value's bytes in its file. Text (REG_SZ) stands there as it is, so that it can be read with any tool; a
// value of another type, or text that would be mistaken for one, has a line `REG_<type>` in front.
#ifndef KAL_PLATFORM_REGISTRY_VALUE_FILE_H
#define KAL_PLATFORM_REGISTRY_VALUE_FILE_H

#include "platform/registry/value.h"

// The line in front, or nothing. Its length.
inline constexpr uint32_t kMostTypeLine = 16;
uint32_t typeLineOf(uint32_t type, const uint8_t* data, uint32_t size, char (&line)[kMostTypeLine]);

// Sets type, start and size of a value whose block holds the file's `bytes` bytes.
void parseValueFile(RegistryValue& value, uint32_t bytes);

#endif
