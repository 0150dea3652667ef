// Texts as the program prints them: escaped, and as JSON.
#ifndef KAL_TOOLS_TEXT_H
#define KAL_TOOLS_TEXT_H

#include <string>
#include <string_view>

// On one line and without control characters: those are `\x` and two hexadecimal digits, a backslash is doubled. Other
// bytes stay as they are.
std::string escaped(std::string_view text);

// In quotes, which are escaped too, as is every byte that is not ASCII.
std::string quoted(std::string_view text);

// What a text's bytes beyond ASCII are.
enum class Encoding { Utf8, Bytes }; // Bytes: one character each, the first 256 of all

// A text as a JSON string, quotes included.
std::string jsonText(std::string_view text, Encoding encoding);

#endif
