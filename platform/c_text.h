// Text helpers of the C runtime that the standard library lacks.
#ifndef KAL_PLATFORM_C_TEXT_H
#define KAL_PLATFORM_C_TEXT_H

#include <cstddef>

// Compares up to `count` characters without regard to ASCII case.
int _strnicmp(const char* left, const char* right, size_t count);

// Writes `value` in base `radix` (2 to 36); returns `destination`.
char* _itoa(int value, char* destination, int radix);

// Writes `value` with `digits` significant digits (at least 1), without or with an exponent as is shorter;
// returns `destination`, which needs `digits` + 9 bytes.
char* _gcvt(double value, int digits, char* destination);

#endif
