// Small texts in a picture: digits and the few signs of a size.
#ifndef KAL_TOOLS_LABEL_H
#define KAL_TOOLS_LABEL_H

#include <cstdint>
#include <string>

inline constexpr uint32_t labelHeight = 7; // pixels

// Width in pixels.
uint32_t labelWidth(const std::string& text);
// Whether the text has ink at this pixel of it.
bool labelInk(const std::string& text, uint32_t x, uint32_t y);

#endif
