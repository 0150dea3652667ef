// Copies and transfers of blocks whose size is a 32-bit count.
#include <kal/memory.h>

#include "platform/file_calls.h"

#include <cstring>

void KalHMemCpy(void* destination, const void* source, int32_t count) {
    if (count > 0)
        std::memmove(destination, source, static_cast<size_t>(count));
}

int32_t KalHRead(int32_t handle, void* destination, int32_t count) {
    return _hread(handle, destination, count);
}

int32_t KalHWrite(int32_t handle, const void* source, int32_t count) {
    return _hwrite(handle, source, count);
}
