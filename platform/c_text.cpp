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
