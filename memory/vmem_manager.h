// The VMem manager of the calling task, and how its parts see it.
#ifndef KAL_MEMORY_VMEM_MANAGER_H
#define KAL_MEMORY_VMEM_MANAGER_H

#include "memory/arrivals.h"
#include "memory/record.h"

#include <kal/heap.h>
#include <kal/vmem.h>

// What the manager knows of a block: the node of the LRU list that holds its handle. A freed block's record waits for
// the next block with that id.
#pragma pack(push, 2) // a node of the heap then takes no more than a line of the cache
struct Record {
    void* handle;   // null while no block has the id
    uint32_t size;  // in bytes, also while the block is swapped out
    uint32_t used;  // the first bytes, which matter: no others are swapped out and come back
    uint32_t place; // among the arrivals, or 0
    bool isIn;      // in memory
    bool isListed;  // in the LRU list, which it leaves when a caller takes it out
};
#pragma pack(pop)

// The counters here are what counts; the part that callers see shows them as far as its fields reach.
struct VMemManager {
    vmemstate shown;
    uint64_t used;
    uint64_t resident;
    uint64_t pages;      // the resident blocks in whole pages, in bytes
    Record** records;    // by id
    uint32_t recordsEnd; // behind the last id
    uint32_t recordCount;
    Arrivals* arrivals;
    uint32_t looseNodes; // of the LRU list: handles that callers added, which are nobody's record
    bool mustTell;       // the error handler, once the call at hand has done its work
};

inline constexpr uint16_t kSlotManager = 6;

inline VMemManager* currentManager() {
    return static_cast<VMemManager*>(KalGetTaskData(kSlotManager));
}

// The low half of a block's handle, and the id of its copy in the swap file.
inline uint16_t idOf(const void* handle) {
    return static_cast<uint16_t>(reinterpret_cast<uintptr_t>(handle));
}

// The record of a block of this manager, or null.
inline Record* recordOf(const VMemManager* manager, const void* handle) {
    Record* record = manager->records[idOf(handle)];
    return record != nullptr && record->handle == handle && handle != nullptr ? record : nullptr;
}

// Notes a block just allocated, at the head of the LRU list. Null when memory is short.
Record* addRecord(VMemManager* manager, void* handle, uint32_t size);

// Takes a block out of list, counters and swap file.
void forget(VMemManager* manager, Record* record);

// The block has come into memory, is about to leave it, or gets another size where it is.
void enterMemory(VMemManager* manager, Record* record);
void leaveMemory(VMemManager* manager, Record* record);
void setSize(VMemManager* manager, Record* record, uint32_t size);

// The limit of all tasks, in bytes; 0 while there is none.
uint32_t vmemLimit();

// Swaps out the oldest blocks until `size` more bytes fit under the limit, as far as that can be done.
void makeRoom(VMemManager* manager, uint32_t size);

// The host has no memory: swaps out at least `size` bytes whatever the limit, as far as that can be done.
void swapOutSome(VMemManager* manager, uint32_t size);

// Keeps memory of freed blocks only as far as the limit has room beside the blocks that are resident.
void trimKept(const VMemManager* manager);

// Brings a swapped-out block back, unlocked. False when memory is short or the copy is gone or cannot be read, with the
// block as it was.
bool bringBack(VMemManager* manager, Record* record);

// Calls the error handler where that is due. It may use, free and close everything: what its caller knew counts no
// more if the result is true.
bool tellHandler(VMemManager* manager);

#endif
