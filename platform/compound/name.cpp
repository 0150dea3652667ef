#include "platform/compound/name.h"

#include <algorithm>
#include <iterator>

namespace compound {

namespace {

// Small letters `first`, `first` + `step`, ... `last`, whose capitals lie `delta` further on: those of
// Unicode 3, the version of the programs that order by them.
struct Letters {
    uint16_t first;
    uint16_t last;
    uint16_t step;
    int32_t delta;
};

// clang-format off
constexpr Letters kLetters[] = {
    {0x00B5, 0x00B5, 1, 743}, {0x00E0, 0x00F6, 1, -32}, {0x00F8, 0x00FE, 1, -32}, {0x00FF, 0x00FF, 1, 121},
    {0x0101, 0x012F, 2, -1}, {0x0131, 0x0131, 1, -232}, {0x0133, 0x0137, 2, -1}, {0x013A, 0x0148, 2, -1},
    {0x014B, 0x0177, 2, -1}, {0x017A, 0x017E, 2, -1}, {0x017F, 0x017F, 1, -300}, {0x0183, 0x0185, 2, -1},
    {0x0188, 0x0188, 1, -1}, {0x018C, 0x018C, 1, -1}, {0x0192, 0x0192, 1, -1}, {0x0195, 0x0195, 1, 97},
    {0x0199, 0x0199, 1, -1}, {0x019E, 0x019E, 1, 130}, {0x01A1, 0x01A5, 2, -1}, {0x01A8, 0x01A8, 1, -1},
    {0x01AD, 0x01AD, 1, -1}, {0x01B0, 0x01B0, 1, -1}, {0x01B4, 0x01B6, 2, -1}, {0x01B9, 0x01B9, 1, -1},
    {0x01BD, 0x01BD, 1, -1}, {0x01BF, 0x01BF, 1, 56}, {0x01C5, 0x01C5, 1, -1}, {0x01C6, 0x01C6, 1, -2},
    {0x01C8, 0x01C8, 1, -1}, {0x01C9, 0x01C9, 1, -2}, {0x01CB, 0x01CB, 1, -1}, {0x01CC, 0x01CC, 1, -2},
    {0x01CE, 0x01DC, 2, -1}, {0x01DD, 0x01DD, 1, -79}, {0x01DF, 0x01EF, 2, -1}, {0x01F2, 0x01F2, 1, -1},
    {0x01F3, 0x01F3, 1, -2}, {0x01F5, 0x01F5, 1, -1}, {0x01F9, 0x021F, 2, -1}, {0x0223, 0x0233, 2, -1},
    {0x0253, 0x0253, 1, -210}, {0x0254, 0x0254, 1, -206}, {0x0256, 0x0257, 1, -205},
    {0x0259, 0x0259, 1, -202}, {0x025B, 0x025B, 1, -203}, {0x0260, 0x0260, 1, -205},
    {0x0263, 0x0263, 1, -207}, {0x0268, 0x0268, 1, -209}, {0x0269, 0x0269, 1, -211},
    {0x026F, 0x026F, 1, -211}, {0x0272, 0x0272, 1, -213}, {0x0275, 0x0275, 1, -214},
    {0x0280, 0x0280, 1, -218}, {0x0283, 0x0283, 1, -218}, {0x0288, 0x0288, 1, -218},
    {0x028A, 0x028B, 1, -217}, {0x0292, 0x0292, 1, -219}, {0x0345, 0x0345, 1, 84},
    {0x03AC, 0x03AC, 1, -38}, {0x03AD, 0x03AF, 1, -37}, {0x03B1, 0x03C1, 1, -32}, {0x03C2, 0x03C2, 1, -31},
    {0x03C3, 0x03CB, 1, -32}, {0x03CC, 0x03CC, 1, -64}, {0x03CD, 0x03CE, 1, -63}, {0x03D0, 0x03D0, 1, -62},
    {0x03D1, 0x03D1, 1, -57}, {0x03D5, 0x03D5, 1, -47}, {0x03D6, 0x03D6, 1, -54}, {0x03D9, 0x03EF, 2, -1},
    {0x03F0, 0x03F0, 1, -86}, {0x03F1, 0x03F1, 1, -80}, {0x03F5, 0x03F5, 1, -96}, {0x0430, 0x044F, 1, -32},
    {0x0450, 0x045F, 1, -80}, {0x0461, 0x0481, 2, -1}, {0x048B, 0x04BF, 2, -1}, {0x04C2, 0x04CE, 2, -1},
    {0x04D1, 0x04F5, 2, -1}, {0x04F9, 0x04F9, 1, -1}, {0x0501, 0x050F, 2, -1}, {0x0561, 0x0586, 1, -48},
    {0x1E01, 0x1E95, 2, -1}, {0x1E9B, 0x1E9B, 1, -59}, {0x1EA1, 0x1EF9, 2, -1}, {0x1F00, 0x1F07, 1, 8},
    {0x1F10, 0x1F15, 1, 8}, {0x1F20, 0x1F27, 1, 8}, {0x1F30, 0x1F37, 1, 8}, {0x1F40, 0x1F45, 1, 8},
    {0x1F51, 0x1F57, 2, 8}, {0x1F60, 0x1F67, 1, 8}, {0x1F70, 0x1F71, 1, 74}, {0x1F72, 0x1F75, 1, 86},
    {0x1F76, 0x1F77, 1, 100}, {0x1F78, 0x1F79, 1, 128}, {0x1F7A, 0x1F7B, 1, 112}, {0x1F7C, 0x1F7D, 1, 126},
    {0x1F80, 0x1F87, 1, 8}, {0x1F90, 0x1F97, 1, 8}, {0x1FA0, 0x1FA7, 1, 8}, {0x1FB0, 0x1FB1, 1, 8},
    {0x1FB3, 0x1FB3, 1, 9}, {0x1FBE, 0x1FBE, 1, -7205}, {0x1FC3, 0x1FC3, 1, 9}, {0x1FD0, 0x1FD1, 1, 8},
    {0x1FE0, 0x1FE1, 1, 8}, {0x1FE5, 0x1FE5, 1, 7}, {0x1FF3, 0x1FF3, 1, 9}, {0x2170, 0x217F, 1, -16},
    {0x24D0, 0x24E9, 1, -26}, {0xFF41, 0xFF5A, 1, -32},
};
// clang-format on

// A letter's capital, by Unicode's simple mapping of a unit to one unit.
uint16_t upperCase(uint16_t unit) {
    if (unit < 0x80)
        return unit >= 'a' && unit <= 'z' ? static_cast<uint16_t>(unit - 0x20) : unit;
    const Letters* letters =
        std::lower_bound(std::begin(kLetters), std::end(kLetters), unit,
                         [](const Letters& range, uint16_t value) { return range.last < value; });
    if (letters == std::end(kLetters) || unit < letters->first ||
        (unit - letters->first) % letters->step != 0)
        return unit;
    return static_cast<uint16_t>(unit + letters->delta);
}

} // namespace

bool makeName(const wchar_t* text, Name& name) {
    name.length = 0;
    const auto add = [&name](uint32_t unit) {
        if (name.length == kNameUnits)
            return false;
        name.units[name.length++] = static_cast<uint16_t>(unit);
        return true;
    };
    for (; *text != 0; text++) {
        const auto character = static_cast<uint32_t>(*text); // NOLINT(bugprone-signed-char-misuse): wide
        if (character > 0x10FFFF)
            return false;
        const bool pair = character > 0xFFFF;
        if (pair && !add(0xD800 + ((character - 0x10000) >> 10)))
            return false;
        if (!add(pair ? 0xDC00 + (character & 0x3FF) : character))
            return false;
    }
    name.units[name.length] = 0;
    return name.length > 0;
}

bool isProper(const Name& name) {
    constexpr uint16_t kImproper[] = {'/', '\\', ':', '!'};
    return std::find_first_of(name.units, name.units + name.length, std::begin(kImproper),
                              std::end(kImproper)) == name.units + name.length;
}

void nameText(const Name& name, wchar_t* text) {
    for (uint32_t i = 0; i < name.length; i++) {
        const uint32_t high = name.units[i];
        const uint32_t low = i + 1 < name.length ? name.units[i + 1] : 0;
        const bool pair = sizeof(wchar_t) > 2 && (high & 0xFC00) == 0xD800 && (low & 0xFC00) == 0xDC00;
        *text++ = static_cast<wchar_t>(pair ? 0x10000 + ((high & 0x3FF) << 10) + (low & 0x3FF) : high);
        i += pair ? 1 : 0;
    }
    *text = 0;
}

int compareNames(const Name& left, const Name& right) {
    if (left.length != right.length)
        return left.length < right.length ? -1 : 1;
    for (uint32_t i = 0; i < left.length; i++) {
        const int difference = upperCase(left.units[i]) - upperCase(right.units[i]);
        if (difference != 0)
            return difference;
    }
    return 0;
}

} // namespace compound
