// The VMem manager of the calling task, and how its parts see it.
#ifndef KAL_MEMORY_VMEM_MANAGER_H
#define KAL_MEMORY_VMEM_MANAGER_H

#include "memory/record.h"

#include <kal/heap.h>
#include <kal/vmem.h>

#include <atomic>

// What the manager knows of a block: the node of the LRU list that holds its handle. A freed block's record waits for
// the next block with that id.
struct Record {
    void* handle;      // null while no block has the id
    uint32_t size;     // in bytes, also while the block is swapped out
    uint32_t used;     // the first bytes, which matter: no others are swapped out and come back
    uint64_t arrival;  // in memory: the number with which it came; else 0
    bool isListed;     // in the LRU list, which it leaves when a caller takes it out
    bool isPassedOver; // in memory but not in the queue: it was locked, or not listed, when its turn came
};

inline constexpr uint32_t kIds = 0x10000;
inline constexpr uint32_t kQueueRoom = 2 * kIds;

// The counters here are what counts; the part that callers see shows them as far as its fields reach.
struct VMemManager {
    vmemstate shown;
    uint64_t used;
    uint64_t resident;
    uint64_t pages; // the resident blocks in whole pages, in bytes
    uint64_t lastArrival;
    uint32_t recordCount;
    uint32_t looseNodes; // of the LRU list: handles that callers added, which are nobody's record
    uint32_t queueLength;
    bool mustTell;              // the error handler, once the call at hand has done its work
    Record* records[kIds];      // by id
    uint64_t queue[kQueueRoom]; // a heap: arrivals, the first on top, each with the block's id
};

inline constexpr uint16_t kSlotManager = 6;

inline VMemManager* currentManager() {
    return static_cast<VMemManager*>(KalGetTaskData(kSlotManager));
}

// The low half of a block's handle, and the id of its copy in the swap file.
inline uint16_t idOf(const void* handle) {
    return static_cast<uint16_t>(reinterpret_cast<uintptr_t>(handle));
}

// The record of a block of this manager, or null; null as well without a manager.
inline Record* recordOf(const VMemManager* manager, const void* handle) {
    Record* record = manager != nullptr && handle != nullptr ? manager->records[idOf(handle)] : nullptr;
    return record != nullptr && record->handle == handle ? record : nullptr;
}

// --- Records (lru_list.cpp) --------------------------------------------------------------------------------

// Notes a block just allocated, at the head of the LRU list. False when memory is short.
bool addRecord(VMemManager* manager, void* handle, uint32_t size);

// Takes a block out of list, counters and swap file.
void forget(VMemManager* manager, Record* record);

// --- The queue (arrivals.cpp) ------------------------------------------------------------------------------

// Gives a block in memory the last place, or none.
void arrive(VMemManager* manager, Record* record);
void depart(Record* record);

// How many blocks of all tasks were passed over; those who unlock such a block tell.
extern std::atomic<uint32_t> passedOver;
void takeBack(VMemManager* manager, Record* record);

// The unlocked block that has been in memory longest, or null.
Record* oldestUnlocked(VMemManager* manager);

// --- Memory and swap file (vmem_swap.cpp) ------------------------------------------------------------------

// The limit of all tasks, in bytes; 0 while there is none.
extern std::atomic<uint32_t> vmemLimit;

// Notes that a block, which is in memory or has no bytes, has another size where it is. All its bytes matter.
void setSize(VMemManager* manager, Record* record, uint32_t size);

// The block has left memory.
void leaveMemory(VMemManager* manager, Record* record);

// Swaps out the oldest blocks until `size` more bytes fit under the limit, as far as that can be done.
void makeRoom(VMemManager* manager, uint32_t size);

// The host has no memory: swaps out at least `size` bytes whatever the limit, as far as that can be done.
void swapOutSome(VMemManager* manager, uint32_t size);

// Gives a block other memory, once what it gains has room. False when memory is short or the block is locked where it
// cannot grow.
bool reallocate(VMemManager* manager, const Record* record, uint32_t size);

// Keeps memory of freed blocks only as far as the limit has room beside the blocks that are resident.
void trimKept(const VMemManager* manager);

// Brings a swapped-out block back, unlocked. False when memory is short or the copy is gone or cannot be read, with the
// block as it was.
bool bringBack(VMemManager* manager, Record* record);

// Calls the error handler where that is due, which may use, free and close everything. Whether the block is live still.
bool outlivesHandler(VMemManager* manager, void* handle);

#endif
