// The platform's global memory: movable blocks by handle. Only between lock and unlock has a block an
// address; any other time it may move, and an unlocked block can be discarded, keeping its handle without
// memory.
#ifndef KAL_PLATFORM_GLOBAL_MEMORY_H
#define KAL_PLATFORM_GLOBAL_MEMORY_H

#include "platform/pages.h"

#include <cstdint>

// A 32-bit number: the low half is never 0 and no two live blocks of the process have it alike, the high
// half changes each time the low half is used again. A handle that is no longer live is refused everywhere.
using HGLOBAL = void*;

inline constexpr uint32_t GMEM_MOVEABLE = 0x02;
inline constexpr uint32_t GMEM_ZEROINIT = 0x40;
inline constexpr uint32_t GMEM_MODIFY = 0x80; // changes nothing here: every block is movable

// Allocates a block, its bytes undefined unless GMEM_ZEROINIT asks for zeros. A block of 0 bytes is born
// discarded. Null when memory is short or 65,535 blocks are live.
HGLOBAL GlobalAlloc(uint32_t flags, uint32_t size);

// Resizes a block; the same handle, or null with nothing changed when memory is short or the block is dead.
// A discarded block gets memory, its bytes undefined; size 0 discards an unlocked block. A locked block is
// never moved: it grows only as far as its place has room. GMEM_ZEROINIT clears the bytes gained. Growing a
// block by many small steps costs time in proportion to its final size.
HGLOBAL GlobalReAlloc(HGLOBAL block, uint32_t size, uint32_t flags);

// The size asked for; 0 for a discarded or dead block.
uint32_t GlobalSize(HGLOBAL block);

// Frees a block, locked or not. Null, or the handle when it is dead.
HGLOBAL GlobalFree(HGLOBAL block);

inline constexpr uint32_t GMEM_LOCKCOUNT = 0x00FF;
inline constexpr uint32_t GMEM_DISCARDED = 0x4000;
inline constexpr uint32_t GMEM_INVALID_HANDLE = 0x8000;

// The lock count (255 at most) and GMEM_DISCARDED, or GMEM_INVALID_HANDLE for a dead block.
uint32_t GlobalFlags(HGLOBAL block);

struct MEMORYSTATUS {
    uint32_t dwLength;
    uint32_t
        dwAvailPhys; // available physical memory in bytes, 0xFFFFFFFF at most, or half of that in 32 bits
};
void GlobalMemoryStatus(MEMORYSTATUS* status);

// Freed blocks keep their memory for the next that ask for as much, the most recently freed first, because
// a page new from the host costs more than filling it does. How many bytes are kept so; and gives memory
// back to the host until no more than `most` are.
uint64_t keptGlobalMemory();
void trimGlobalMemory(uint64_t most);

// Live blocks of the process, for tests.
uint32_t liveGlobalBlocks();

// What a handle's low half numbers. Seen here for the two calls that are made most.
struct GlobalSlot {
    uint8_t* span;   // null while the block is discarded
    uint32_t handle; // of the live block; else its high half alone, from which the next one counts on
    uint32_t locks;
};
extern GlobalSlot globalSlots[0x10000];

// The sizes asked for, apart from what a lock looks at; 0 while discarded.
extern uint32_t globalSizes[0x10000];

// The address sanitizer does not watch over large blocks, whose marks take long.
inline constexpr uint32_t kMostWatched = 0x40000;

inline GlobalSlot* slotOf(HGLOBAL block) {
    return &globalSlots[reinterpret_cast<uintptr_t>(block) & 0xFFFF];
}

// An unlocked block must not be touched.
inline void watch(const GlobalSlot* slot, void (*mark)(uint8_t*, size_t)) {
    const uint32_t size = globalSizes[slot - globalSlots];
    if (size <= kMostWatched)
        mark(slot->span, size);
}

// The block's address, which holds until as many unlocks. Null for a discarded or dead block.
inline void* GlobalLock(HGLOBAL block) {
    GlobalSlot* slot = slotOf(block);
    if (slot->handle != reinterpret_cast<uintptr_t>(block) || slot->span == nullptr)
        return nullptr;
    slot->locks++;
    watch(slot, markUsable);
    return slot->span;
}

// Takes one lock back. Non-zero while locks remain.
inline int32_t GlobalUnlock(HGLOBAL block) {
    GlobalSlot* slot = slotOf(block);
    if (slot->handle != reinterpret_cast<uintptr_t>(block) || slot->locks == 0)
        return 0;
    if (--slot->locks != 0)
        return 1;
    watch(slot, markUnusable);
    return 0;
}

#endif
