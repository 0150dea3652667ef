// What a terminal sends for a key, to the codes of the console keyboard.
#ifndef KAL_PLATFORM_CONSOLE_KEYS_H
#define KAL_PLATFORM_CONSOLE_KEYS_H

#include <cstddef>
#include <cstdint>

// The longest sequence that is waited for.
inline constexpr size_t kKeyBytes = 16;

struct ConsoleKey {
    size_t byteCount; // bytes that the key takes; 0: the bytes may be the start of a longer key
    int code;         // 0 for a special key
    int specialCode;  // its second code
};

// The key at the start of `count` bytes, at least 1. With `complete`, no more bytes are to come: what could
// be the start of a longer key is an Escape followed by keys of their own.
ConsoleKey decodeKey(const uint8_t* bytes, size_t count, bool complete);

#endif
