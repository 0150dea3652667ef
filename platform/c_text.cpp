#include "platform/c_text.h"

#include <charconv>
#include <strings.h>

int _strnicmp(const char* left, const char* right, size_t count) {
    return strncasecmp(left, right, count);
}

char* _itoa(int value, char* destination, int radix) {
    constexpr size_t kMost = 34; // sign, 32 digits, terminating zero
    auto [end, error] = std::to_chars(destination, destination + kMost - 1, value, radix);
    *end = 0;
    return destination;
}

char* _gcvt(double value, int digits, char* destination) {
    constexpr size_t kMostBeside = 8; // sign, point, and an exponent or the zeros before the first digit
    char* const last = destination + digits + kMostBeside;
    *std::to_chars(destination, last, value, std::chars_format::general, digits).ptr = 0;
    return destination;
}
