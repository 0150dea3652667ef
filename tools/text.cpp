#include "tools/text.h"

namespace {

bool isControl(char c) {
    return (c >= 0 && c < ' ') || c == 0x7F;
}

void appendHex(std::string& text, char c, const char* digits = "0123456789ABCDEF") {
    const auto byte = static_cast<unsigned char>(c);
    text += {digits[byte >> 4], digits[byte & 15]};
}

} // namespace

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (isControl(c))
            appendHex(result += "\\x", c);
        else
            result.append(c == '\\' ? 2 : 1, c);
    }
    return result;
}

std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += {'\\', c};
        else if (isControl(c) || c < 0)
            appendHex(result += "\\x", c);
        else
            result += c;
    }
    return result + '"';
}

std::string jsonText(std::string_view text, Encoding encoding) {
    std::string result = "\"";
    for (const char c : text) {
        if (isControl(c) || (c < 0 && encoding == Encoding::Bytes))
            appendHex(result += "\\u00", c, "0123456789abcdef");
        else if (c == '"' || c == '\\')
            result += {'\\', c};
        else
            result += c;
    }
    return result + '"';
}
