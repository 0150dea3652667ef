#include "tools/failure.h"

#include <cstring>

std::string statusText(int16_t status) {
    switch (status) {
    case KAL_ERR_MEMORY:
    case KAL_ERR_BUFFER:
        return "not enough memory";
    case KAL_ERR_WRITE:
    case KAL_ERR_TAG_WRITE:
        return "cannot be written";
    case KAL_ERR_READ:
        return "cannot be read";
    case KAL_ERR_TAG_KEY:
        return "cannot be opened";
    case KAL_ERR_CLOSE:
        return "cannot be closed";
    case KAL_ERR_DISK_FULL:
        return "no room left for it";
    case KAL_ERR_SHORT_READ:
    case KAL_ERR_END:
        return "it ends too early";
    case KAL_ERR_SEEK:
        return "a position in it cannot be reached";
    case KAL_ERR_FORMAT:
        return "it has another format";
    case KAL_ERR_RUN:
        return "its compressed data makes no sense";
    default:
        return "status " + std::to_string(status);
    }
}

std::string hostErrorText(int error) {
    return std::strerror(error);
}

std::string onOneLine(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F)
            c = '?';
    return text;
}
