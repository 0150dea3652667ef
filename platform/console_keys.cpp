#include "platform/console_keys.h"

namespace {

constexpr int kEscape = 27;
constexpr ConsoleKey kIncomplete = {0, 0, 0};
constexpr ConsoleKey kLoneEscape = {1, kEscape, 0};

ConsoleKey special(size_t byteCount, int specialCode) {
    return {byteCount, 0, specialCode};
}

// Code of `ESC [ <final>` and `ESC O <final>`.
int codeOfLetter(uint8_t final) {
    switch (final) {
    case 'A':
        return 72;
    case 'B':
        return 80;
    case 'C':
        return 77;
    case 'D':
        return 75;
    case 'F':
        return 79;
    case 'H':
        return 71;
    default:
        return 0;
    }
}

// Code of `ESC [ <digit> ~`.
int codeOfDigit(uint8_t digit) {
    constexpr int codes[] = {0, 71, 82, 83, 79, 73, 81, 71, 79, 0};
    return digit >= '0' && digit <= '9' ? codes[digit - '0'] : 0;
}

bool isBetween(uint8_t byte, uint8_t low, uint8_t high) {
    return byte >= low && byte <= high;
}

// `ESC [`, parameters and a final byte. A key with other parameters than those above is one without a code.
ConsoleKey decodeControlSequence(const uint8_t* bytes, size_t count) {
    if (count > 2 && bytes[2] == '[') // function keys of the bare console
        return count == 3 ? kIncomplete : special(4, 0);
    size_t end = 2;
    while (end < count && isBetween(bytes[end], 0x20, 0x3F))
        end++;
    if (end == count)
        return count < kKeyBytes ? kIncomplete : kLoneEscape;
    if (!isBetween(bytes[end], 0x40, 0x7E))
        return kLoneEscape;
    const bool numbered = end == 3 && bytes[end] == '~';
    return special(end + 1, end == 2 ? codeOfLetter(bytes[end]) : numbered ? codeOfDigit(bytes[2]) : 0);
}

ConsoleKey decodeEscape(const uint8_t* bytes, size_t count) {
    if (count == 1)
        return kIncomplete;
    if (bytes[1] == '[')
        return decodeControlSequence(bytes, count);
    if (bytes[1] != 'O')
        return kLoneEscape;
    return count == 2 ? kIncomplete : special(3, codeOfLetter(bytes[2]));
}

} // namespace

ConsoleKey decodeKey(const uint8_t* bytes, size_t count, bool complete) {
    switch (bytes[0]) {
    case kEscape: {
        const ConsoleKey key = decodeEscape(bytes, count);
        return key.byteCount == 0 && complete ? kLoneEscape : key;
    }
    case '\n':
        return {1, '\r', 0};
    case 0x7F:
        return {1, '\b', 0};
    default:
        return {1, bytes[0], 0};
    }
}
