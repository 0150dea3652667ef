// A swap file as its manager uses it.
#ifndef KAL_MEMORY_SWAP_FILE_H
#define KAL_MEMORY_SWAP_FILE_H

#include <kal/vmem.h>

// The extent of an item, or null.
vitem* findItem(vfile* file, uint16_t id);

// Frees the extent of an item, if there is one.
void dropItem(vfile* file, uint16_t id);

// KalWriteVFile without a look at every extent: one that a caller freed in the list itself, without KalFindVItem, may be
// overlooked for some writes.
int32_t writeItem(vfile* file, const void* data, uint32_t size, uint16_t id);

// The memory in bytes that the file's extent list takes.
uint64_t extentListBytes(vfile* file);

#endif
