#include "tools/failure.h"

#include <cstring>

std::string statusText(int16_t status) {
    return KalStatusText(status);
}

std::string hostErrorText(int error) {
    return std::strerror(error);
}

std::string onOneLine(std::string text) {
    for (char& c : text)
        c = onOneLine(c);
    return text;
}
