// Grouped allocations, as-much-as-possible allocations, and copies and transfers of huge blocks.
#ifndef KAL_MEMORY_H
#define KAL_MEMORY_H

#include <kal/base.h>
#include <kal/list.h>

// One entry of a group; the entries stand in the group's list in the order of their allocation.
#pragma pack(push, 1)
struct KalGroupEntry {
    uint32_t kind; // 1 from KalGroupMem, 2 from KalGroupSMem
    void* block;   // the block handed out
};
#pragma pack(pop)

// Allocates a block of `size` bytes, all 0, that belongs to the group `*group`; a null `*group` is an empty
// group, whose list the first call makes. Null when `group` is null or memory is short; the group then gains
// nothing. KalGroupFree frees the block; both calls may serve one group.
KAL_API void* KalGroupMem(listhd** group, uint32_t size);
KAL_API void* KalGroupSMem(listhd** group, uint32_t size);

// Frees every block of the group and its list, and sets `*group` to null. Does nothing for null.
KAL_API void KalGroupFree(listhd** group);

// Allocates up to `*size` bytes, all 0: halves the wish, down to a try below 128, until the heap has such a
// block. `*size` becomes the size of the block, or of the last try when the result is null. The caller frees
// the block with KalFreeSMem.
KAL_API void* KalAsMuchMem(uint32_t* size);
KAL_API void* KalAsMuchSMem(uint32_t* size);

// Moves `count` bytes; the ranges may overlap. A count below 1 moves nothing.
KAL_API void KalHMemCpy(void* destination, const void* source, int32_t count);

// Reads or writes `count` bytes at the current position of an operating-system file handle. The number of
// bytes moved, or -1 on failure (a negative count included).
KAL_API int32_t KalHRead(int32_t handle, void* destination, int32_t count);
KAL_API int32_t KalHWrite(int32_t handle, const void* source, int32_t count);

#endif
