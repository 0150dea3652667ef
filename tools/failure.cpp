#include "tools/failure.h"

#include <cstring>
#include <new>

std::string statusText(int16_t status) {
    return KalStatusText(status);
}

std::string hostErrorText(int error) {
    return std::strerror(error);
}

void requireMemory(int16_t status) {
    if (status == KAL_ERR_MEMORY || status == KAL_ERR_BUFFER || status == KAL_ERR_VMEM)
        throw std::bad_alloc();
}

std::string onOneLine(std::string text) {
    for (char& c : text)
        c = onOneLine(c);
    return text;
}

void Failures::end() const {
    if (count_ > 0)
        throw Failure(count_ == 1 ? first_ : first_ + " (and " + std::to_string(count_ - 1) + " more)");
}
