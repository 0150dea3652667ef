// Between memory and swap file: what goes out, and how it comes back.
#include "memory/swap_file.h"
#include "memory/vmem_manager.h"
#include "platform/global_memory.h"

#include <algorithm>

std::atomic<uint32_t> vmemLimit;

namespace {

int32_t clamped(uint64_t bytes) {
    return static_cast<int32_t>(std::min<uint64_t>(bytes, INT32_MAX));
}

uint64_t inPages(uint32_t size) {
    constexpr uint64_t kPage = 4096;
    return (size + kPage - 1) / kPage * kPage;
}

void countResident(VMemManager* manager, uint32_t gone, uint32_t come) {
    manager->resident += uint64_t(come) - gone;
    manager->pages += inPages(come) - inPages(gone);
    manager->shown.bytesResident = clamped(manager->resident);
}

// What the manager holds in memory, for the limit: the resident bytes. Many small blocks need much more than
// their bytes, though, in records and in parts of pages; past 2 MiB that counts too.
uint64_t occupied(const VMemManager* manager) {
    constexpr uint64_t kFree = 2 << 20;
    constexpr uint64_t kRecord = 128; // with its heap block, its arrival and its places in the tables
    const uint64_t all =
        manager->pages + manager->recordCount * kRecord + extentListBytes(manager->shown.swapFile);
    return std::max(manager->resident, all > kFree ? all - kFree : 0);
}

// On failure the block stays, and the first time the error handler is to be told. The extent that a short write leaves
// must not be taken for a valid copy.
bool swapOut(VMemManager* manager, Record* record) {
    const uint16_t id = idOf(record->handle);
    const uint32_t size = std::max(record->used, 1u); // a copy of 0 bytes could not be told from none
    const int32_t written = writeItem(manager->shown.swapFile, GlobalLock(record->handle), size, id);
    GlobalUnlock(record->handle);
    const uint16_t failed = written != static_cast<int32_t>(size) ? 1 : 0;
    manager->mustTell |= failed > manager->shown.swapFailed;
    manager->shown.swapFailed = failed;
    if (failed != 0) {
        dropItem(manager->shown.swapFile, id);
        return false;
    }
    leaveMemory(manager, record);
    GlobalReAlloc(record->handle, 0, GMEM_MOVEABLE);
    return true;
}

// Swaps out the oldest blocks until no more than `most` bytes are occupied.
void swapDownTo(VMemManager* manager, uint64_t most) {
    while (occupied(manager) > most) {
        Record* oldest = oldestUnlocked(manager);
        if (oldest == nullptr || !swapOut(manager, oldest))
            return;
    }
}

uint64_t lessOrNone(uint64_t from, uint64_t bytes) {
    return from > bytes ? from - bytes : 0;
}

} // namespace

void leaveMemory(VMemManager* manager, Record* record) {
    countResident(manager, record->size, 0);
    depart(record);
}

void setSize(VMemManager* manager, Record* record, uint32_t size) {
    const bool wasIn = record->arrival != 0;
    manager->used += uint64_t(size) - record->size;
    manager->shown.bytesUsed = clamped(manager->used);
    if (manager->shown.bytesUsed > manager->shown.bytesPeak)
        manager->shown.bytesPeak = manager->shown.bytesUsed;
    countResident(manager, wasIn ? record->size : 0, size);
    record->size = record->used = size;
    if (size == 0)
        depart(record);
    else if (!wasIn)
        arrive(manager, record);
}

void makeRoom(VMemManager* manager, uint32_t size) {
    const uint32_t limit = vmemLimit.load(std::memory_order_relaxed);
    if (limit != 0)
        swapDownTo(manager, lessOrNone(limit, size));
}

void swapOutSome(VMemManager* manager, uint32_t size) {
    swapDownTo(manager, lessOrNone(occupied(manager), size));
}

bool reallocate(VMemManager* manager, const Record* record, uint32_t size) {
    void* handle = record->handle;
    const uint32_t now = GlobalSize(handle);
    const auto attempt = [=] { return GlobalReAlloc(handle, size, GMEM_MOVEABLE) != nullptr; };
    if (size <= now || (GlobalFlags(handle) & GMEM_LOCKCOUNT) != 0)
        return attempt();
    GlobalLock(handle); // it stays while others go
    makeRoom(manager, size - now);
    KalUnLockVMem(handle);
    if (attempt())
        return true;
    GlobalLock(handle);
    swapOutSome(manager, size);
    KalUnLockVMem(handle);
    return attempt();
}

void trimKept(const VMemManager* manager) {
    const uint32_t limit = vmemLimit.load(std::memory_order_relaxed);
    const uint64_t inUse = occupied(manager);
    if (limit != 0 && inUse + keptGlobalMemory() > limit)
        trimGlobalMemory(lessOrNone(limit, inUse));
}

bool bringBack(VMemManager* manager, Record* record) {
    void* handle = record->handle;
    vitem* copy = findItem(manager->shown.swapFile, idOf(handle));
    if (copy == nullptr || copy->size > record->size || !reallocate(manager, record, record->size))
        return false;
    const int32_t got = KalReadVFile(manager->shown.swapFile, copy, GlobalLock(handle));
    GlobalUnlock(handle);
    if (got != static_cast<int32_t>(copy->size)) {
        GlobalReAlloc(handle, 0, GMEM_MOVEABLE);
        return false;
    }
    countResident(manager, 0, record->size);
    arrive(manager, record);
    trimKept(manager);
    return true;
}

bool outlivesHandler(VMemManager* manager, void* handle) {
    const bool mustTell = manager->mustTell;
    manager->mustTell = false;
    if (!mustTell || manager->shown.errorHandler == nullptr)
        return true;
    manager->shown.errorHandler();
    return (GlobalFlags(handle) & GMEM_INVALID_HANDLE) == 0;
}
