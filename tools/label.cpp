#include "tools/label.h"

#include <cstring>

namespace {

constexpr uint32_t glyphWidth = 5;
constexpr uint32_t advance = glyphWidth + 1;

constexpr char known[] = "0123456789x#?";
// A row a line, from the top; the bits of a line from the left.
constexpr uint8_t glyphs[][labelHeight] = {
    {0b01110, 0b10001, 0b10011, 0b10101, 0b11001, 0b10001, 0b01110}, // 0
    {0b00100, 0b01100, 0b00100, 0b00100, 0b00100, 0b00100, 0b01110}, // 1
    {0b01110, 0b10001, 0b00001, 0b00010, 0b00100, 0b01000, 0b11111}, // 2
    {0b11111, 0b00010, 0b00100, 0b00010, 0b00001, 0b10001, 0b01110}, // 3
    {0b00010, 0b00110, 0b01010, 0b10010, 0b11111, 0b00010, 0b00010}, // 4
    {0b11111, 0b10000, 0b11110, 0b00001, 0b00001, 0b10001, 0b01110}, // 5
    {0b00110, 0b01000, 0b10000, 0b11110, 0b10001, 0b10001, 0b01110}, // 6
    {0b11111, 0b00001, 0b00010, 0b00100, 0b01000, 0b01000, 0b01000}, // 7
    {0b01110, 0b10001, 0b10001, 0b01110, 0b10001, 0b10001, 0b01110}, // 8
    {0b01110, 0b10001, 0b10001, 0b01111, 0b00001, 0b00010, 0b01100}, // 9
    {0b00000, 0b00000, 0b10001, 0b01010, 0b00100, 0b01010, 0b10001}, // x
    {0b01010, 0b01010, 0b11111, 0b01010, 0b11111, 0b01010, 0b01010}, // #
    {0b01110, 0b10001, 0b00001, 0b00110, 0b00100, 0b00000, 0b00100}, // ?
};
static_assert(sizeof known - 1 == sizeof glyphs / sizeof glyphs[0]);

} // namespace

uint32_t labelWidth(const std::string& text) {
    return text.empty() ? 0 : static_cast<uint32_t>(text.size()) * advance - 1;
}

bool labelInk(const std::string& text, uint32_t x, uint32_t y) {
    const uint32_t column = x % advance;
    const char* glyph = x / advance < text.size() ? std::strchr(known, text[x / advance]) : nullptr;
    return glyph != nullptr && *glyph != 0 && column < glyphWidth && y < labelHeight &&
           (glyphs[glyph - known][y] >> (glyphWidth - 1 - column) & 1) != 0;
}
