// The VMem manager of the calling task, and how its parts see it.
#ifndef KAL_MEMORY_VMEM_MANAGER_H
#define KAL_MEMORY_VMEM_MANAGER_H

#include "memory/lru_list.h"

#include <kal/heap.h>
#include <kal/vmem.h>

// The record that callers see, and the rest. The counters here are what counts; the record shows them as far
// as its fields reach.
struct VMemManager {
    vmemstate state;
    uint64_t used;
    uint64_t resident;
    uint64_t pages; // the resident blocks in whole pages, in bytes
};

inline constexpr uint16_t kSlotManager = 6;

inline VMemManager* currentManager() {
    return static_cast<VMemManager*>(KalGetTaskData(kSlotManager));
}

inline LruList* lruListOf(const VMemManager* manager) {
    return reinterpret_cast<LruList*>(manager->state.lruList);
}

// The id of a block's copy in the swap file.
inline uint16_t itemIdOf(void* handle) {
    return static_cast<uint16_t>(reinterpret_cast<uintptr_t>(handle));
}

// Counts a block of `size` bytes in or out.
void countUsed(VMemManager* manager, int64_t size);
void countResident(VMemManager* manager, uint32_t size);
void countNotResident(VMemManager* manager, uint32_t size);

// The limit of all tasks, in bytes; 0 while there is none.
uint32_t vmemLimit();

// Swaps out the oldest blocks until `size` more bytes fit under the limit, as far as that can be done. May
// call the error handler, which may do anything to the manager: look it up again.
void makeRoom(VMemManager* manager, uint32_t size);

// The host has no memory: swaps out at least `size` bytes whatever the limit. False when not a single block
// could go. May call the error handler as makeRoom does.
bool swapOutSome(VMemManager* manager, uint32_t size);

// Keeps memory of freed blocks only as far as the limit has room beside the blocks that are resident.
void trimKept(const VMemManager* manager);

// Brings a swapped-out block back and locks it: its address, or null.
void* restore(VMemManager* manager, void* handle);

#endif
