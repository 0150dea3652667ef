#include "platform/registry/names.h"

#include <cstdint>
#include <cstring>

namespace {

bool standsForItself(char c, bool first) {
    if (c < ' ' || c > '~' || c == '%' || c == '/' || c == '\\')
        return false;
    return !first || (c != '.' && c != '@');
}

// Writes behind the first `used` characters of the result.
bool escape(const char* name, size_t length, FileName& result, size_t used) {
    static constexpr char digits[] = "0123456789ABCDEF";
    for (size_t i = 0; i < length; i++) {
        const char c = foldedCharacter(name[i]);
        const bool plain = standsForItself(c, i == 0);
        if (used + (plain ? 1 : 3) > kMostFileName)
            return false;
        if (!plain) {
            result.text[used++] = '%';
            result.text[used++] = digits[static_cast<uint8_t>(c) >> 4];
        }
        result.text[used++] = plain ? c : digits[static_cast<uint8_t>(c) & 15];
    }
    result.text[used] = 0;
    return true;
}

int hexDigit(char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

} // namespace

bool toFolderName(const char* name, size_t length, FileName& result) {
    return escape(name, length, result, 0);
}

bool toValueFileName(const char* name, FileName& result) {
    result.text[0] = '@';
    return escape(name, name != nullptr ? std::strlen(name) : 0, result, 1);
}

bool fromFolderName(const char* folder, FileName& result) {
    size_t length = 0;
    for (const char* c = folder; *c != 0; c++) {
        if (length == kMostFileName)
            return false;
        result.text[length] = *c;
        if (*c == '%') {
            const int high = hexDigit(c[1]);
            const int low = high < 0 ? -1 : hexDigit(c[2]);
            if (low < 0)
                return false;
            result.text[length] = static_cast<char>(high * 16 + low);
            c += 2;
        }
        length++;
    }
    result.text[length] = 0;
    // Only the one folder that the name itself leads to counts: not `Name`, not `%41`, not `%00x`.
    FileName back;
    return length > 0 && toFolderName(result.text, std::strlen(result.text), back) &&
           std::strcmp(back.text, folder) == 0;
}

bool isSpellingOf(const char* spelling, const char* small) {
    for (; *spelling != 0 && foldedCharacter(*spelling) == *small; spelling++)
        small++;
    return *spelling == 0 && *small == 0;
}
