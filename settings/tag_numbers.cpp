// Tags that hold numbers.
#include "platform/c_text.h"

#include <kal/tagset.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kNumberSize = 40;

// Always with a point, whatever the program's locale: processes of different locales share settings.
double numberIn(const char* text) {
    text += std::strspn(text, " \t\n\v\f\r");
    text += *text == '+' && text[1] != '-';
    double value = 0.0;
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), value);
    return error == std::errc::result_out_of_range ? std::strtod(text, nullptr) : value;
}

} // namespace

int TagSet::GetIntTag(const char* tag) {
    const char* text = GetTempTag(tag);
    return text != nullptr ? std::atoi(text) : 0;
}

int16_t TagSet::SetIntTag(const char* tag, int value) {
    char text[kNumberSize];
    SetTag(tag, value != 0 ? _itoa(value, text, 10) : nullptr, nullptr);
    return KAL_OK;
}

double TagSet::GetFloatTag(const char* tag) {
    const char* text = GetTempTag(tag);
    return text != nullptr ? numberIn(text) : 0.0;
}

int16_t TagSet::SetFloatTag(const char* tag, double value, int digits) {
    char text[kNumberSize];
    return SetTag(tag, value != 0.0 ? _gcvt(value, std::clamp(digits, 1, 30), text) : nullptr, nullptr);
}
