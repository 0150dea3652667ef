// Lists whose ops stand in VMem blocks.
#ifndef KAL_OPLIST_VMEM_MODE_H
#define KAL_OPLIST_VMEM_MODE_H

#include <kal/oplist.h>

// Puts an op that lies in one or two pieces (the second may be empty) at the list's position. When it does not fit
// there, a filler is left (unless `withFiller` is false) and it goes to the next block. The op's position, or
// KAL_OP_FAILED.
uint32_t putInBlocks(OpList* list, const void* first, uint32_t firstBytes, const void* second,
                     uint32_t secondBytes, bool withFiller);

// Puts a raw row of `rowBytes` bytes, of which `count` come from `data` and the rest are 0.
uint32_t putRow(OpList* list, const void* data, uint32_t count, uint32_t rowBytes);

// The op at the list's position, or null at the end or on failure.
void* getFromBlocks(OpList* list);

// Moves the list to a position. 0, or KAL_ERR_POSITION.
int16_t seekInBlocks(OpList* list, uint32_t position);

// Gives back what the block of the end op does not need.
void shrinkBlocks(OpList* list);

#endif
