// Which addresses are live blocks: one bit for each 16 bytes of address space, in leaves made on demand.
// Asking about any address reads nothing at that address.
#ifndef KAL_PLATFORM_BLOCK_MAP_H
#define KAL_PLATFORM_BLOCK_MAP_H

#include <cstdint>

// Marks a block's address, a multiple of 16. False when memory for the map is short or the address lies
// beyond what it covers; nothing is marked then.
bool markBlock(const void* address);

// Unmarks it. False when it was not marked.
bool unmarkBlock(const void* address);

bool isBlock(const void* address);

// The number of marked addresses; walks the whole map.
uint64_t countBlocks();

#endif
