// Small memory for those who fill it at once.
#ifndef KAL_PLATFORM_UNCLEARED_H
#define KAL_PLATFORM_UNCLEARED_H

#include <cstdint>

// KalAllocSMem, but the bytes are undefined.
void* allocateUncleared(uint32_t size);

#endif
