// Small memory: the zero-filled heap from which every record, buffer and op of the library comes, the data
// slots of the calling task, and the base of the library's classes.
#ifndef KAL_HEAP_H
#define KAL_HEAP_H

#include <kal/base.h>

// The 16-bit word that follows the last usable byte of each small-memory block, so that an overrun is seen.
inline constexpr uint16_t KAL_HEAP_GUARD = 0xCDAB;

// Allocates a block of `size` bytes, all 0, aligned for any type. Null when memory is short. A size of 0
// gives a block without usable bytes. The caller frees it with KalFreeSMem.
KAL_API void* KalAllocSMem(uint32_t size);

// Frees a block. 0, or KAL_ERR_MEMORY when `block` is not a live block of this heap (null, foreign, freed
// before) or when the guard word behind it was overwritten; nothing is freed then.
KAL_API int16_t KalFreeSMem(void* block);

// Resizes a block, which may move; bytes gained are 0. Null when memory is short or the block is refused as
// KalFreeSMem refuses it; the old block then stays as it was.
KAL_API void* KalReAllocSMem(void* block, uint32_t size);

// How often calls of small memory have failed in this process for want of memory. A caller that must know whether
// an answer such as "there is none" (TagSearch, TagSet::GetTag) was one of these compares two counts.
KAL_API uint32_t KalFailedSMem();

// The usable size of a block in bytes: what was asked for. 0 for anything that is not a live block.
KAL_API uint32_t KalSizeSMem(const void* block);

// Resizes a global memory block, such as a memory stream's; bytes gained are 0. The block, or null with
// nothing changed when memory is short or the block is locked and has no room to grow in place. `flags` is 2
// (movable).
KAL_API void* KalGlobalReAlloc(void* block, uint32_t size, uint32_t flags);

// 1 when the byte at `address` can be read, else 0.
KAL_API uint16_t KalIsValidFarPointer(const void* address);

// The pointer kept in data slot `slot` of the calling task (thread), or null.
KAL_API void* KalGetTaskData(uint16_t slot);

// Keeps `data` in the slot. The slot does not own what it holds. Slots are 0 to 31; others hold nothing.
KAL_API void KalSetTaskData(void* data, uint16_t slot);

// Empties the slot; what it held is not freed.
KAL_API void KalRemoveTaskData(uint16_t slot);

// Base of the library's classes: objects live on the small-memory heap. `new` gives null when memory is
// short.
class ZEPObject {
public:
    // As KalAllocSMem and KalFreeSMem.
    KAL_API static void* operator new(size_t size) noexcept;
    KAL_API static void operator delete(void* object) noexcept;
};

#endif
