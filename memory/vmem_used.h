// Blocks of which only the first bytes matter, for those who fill them bit by bit: no others are written to the swap
// file and read back, whatever the block's size, which stays what was asked for. The bytes behind are undefined once
// the block was out. KalMarkDirtyVMem makes the whole block matter.
#ifndef KAL_MEMORY_VMEM_USED_H
#define KAL_MEMORY_VMEM_USED_H

#include <cstdint>

// KalAllocVMem for a block of which no byte matters yet.
void* allocateUnusedVMem(uint32_t size);

// KalMarkDirtyVMem for a change that ends at `end`, in a block that is locked: the bytes before matter.
void markUsedVMem(void* handle, uint32_t end);

#endif
