// A swap file as its manager uses it.
#ifndef KAL_MEMORY_SWAP_FILE_H
#define KAL_MEMORY_SWAP_FILE_H

#include <kal/vmem.h>

// The extent of an item, for the moment; KalFindVItem hands one out for good.
const vitem* findItem(const vfile* file, uint16_t id);

// Frees the extent of an item, if there is one.
void dropItem(vfile* file, uint16_t id);

// The memory in bytes that the file's extent list takes.
uint64_t extentListBytes(const vfile* file);

#endif
