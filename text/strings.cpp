// Upper case, centring, and the comparison of byte blocks.
#include <kal/text.h>

#include <cstring>

char* toupper(char* text) {
    if (text == nullptr)
        return nullptr;
    for (char* c = text; *c != 0; c++)
        if (*c >= 'a' && *c <= 'z')
            *c = static_cast<char>(*c - 0x20);
    return text;
}

void KalCenterString(char* text, uint32_t width, char fill) {
    const size_t length = text != nullptr ? std::strlen(text) : 0;
    if (text == nullptr || length > width)
        return;
    const size_t left = (width - length) / 2;
    std::memmove(text + left, text, length);
    std::memset(text, fill, left);
    std::memset(text + left + length, fill, width - left - length);
    text[width] = 0;
}

int32_t KalMemCmp(const void* left, const void* right, int32_t count) {
    const auto* a = static_cast<const int8_t*>(left);
    const auto* b = static_cast<const int8_t*>(right);
    constexpr int32_t kStride = 64; // equal stretches are skipped by the C library's own, faster comparison
    while (count >= kStride && std::memcmp(a, b, kStride) == 0) {
        a += kStride;
        b += kStride;
        count -= kStride;
    }
    for (; count > 0; a++, b++, count--)
        if (*a != *b)
            return *b > *a ? -1 : 1;
    return 0;
}
