// Between memory and swap file: what goes out, and how it comes back.
#include "memory/swap_file.h"
#include "memory/vmem_manager.h"
#include "platform/global_memory.h"

#include <algorithm>

namespace {

uint64_t inPages(uint32_t size) {
    constexpr uint64_t kPage = 4096;
    return (size + kPage - 1) / kPage * kPage;
}

void countResident(VMemManager* manager, uint32_t gone, uint32_t come) {
    manager->resident += uint64_t(come) - gone;
    manager->pages += inPages(come) - inPages(gone);
    manager->shown.bytesResident = static_cast<int32_t>(std::min<uint64_t>(manager->resident, INT32_MAX));
}

// What the manager holds in memory, for the limit: the resident bytes. Many small blocks need much more than
// their bytes, though, in records and in parts of pages; past 2 MiB that counts too.
uint64_t occupied(const VMemManager* manager) {
    constexpr uint64_t kFree = 2 << 20;
    constexpr uint64_t kRecord =
        100; // with its heap block and its places in the tables of ids and of handles
    const uint64_t all =
        manager->pages + manager->recordCount * kRecord + extentListBytes(manager->shown.swapFile);
    return std::max(manager->resident, all > kFree ? all - kFree : 0);
}

// The unlocked block that has been in memory longest, or null.
Record* oldestUnlocked(VMemManager* manager) {
    while (const uint32_t place = oldestPlace(manager->arrivals)) {
        Record* record = manager->records[manager->arrivals->ids[place]];
        const uint32_t flags = GlobalFlags(record->handle);
        if (flags == 0)
            return record;
        if ((flags & GMEM_INVALID_HANDLE) != 0)
            forget(manager, record); // another task has freed it
        else
            passOver(manager->arrivals, place);
    }
    return nullptr;
}

// A copy of 0 bytes could not be told from none.
uint32_t copySize(const Record* record) {
    return std::max(record->used, 1u);
}

// An extent that a short write leaves must not be taken for a valid copy.
bool writeCopy(VMemManager* manager, const Record* record) {
    const uint16_t id = idOf(record->handle);
    const uint32_t size = copySize(record);
    const int32_t written = writeItem(manager->shown.swapFile, GlobalLock(record->handle), size, id);
    GlobalUnlock(record->handle);
    if (written == static_cast<int32_t>(size))
        return true;
    dropItem(manager->shown.swapFile, id);
    return false;
}

// On failure the block stays, and the first time the error handler is to be told.
bool swapOut(VMemManager* manager, Record* record) {
    const vitem* copy = findItem(manager->shown.swapFile, idOf(record->handle));
    if (copy == nullptr || copy->size != copySize(record)) {
        const bool isWritten = writeCopy(manager, record);
        if (!isWritten && manager->shown.swapFailed == 0)
            manager->mustTell = true;
        manager->shown.swapFailed = isWritten ? 0 : 1;
        if (!isWritten)
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

void enterMemory(VMemManager* manager, Record* record) {
    record->isIn = true;
    countResident(manager, 0, record->size);
    if (record->isListed)
        arrive(manager->arrivals, manager->records, idOf(record->handle));
}

void leaveMemory(VMemManager* manager, Record* record) {
    record->isIn = false;
    countResident(manager, record->size, 0);
    if (record->place != 0)
        depart(manager->arrivals, record->place);
    record->place = 0;
}

void setSize(VMemManager* manager, Record* record, uint32_t size) {
    manager->used += uint64_t(size) - record->size;
    vmemstate& shown = manager->shown;
    shown.bytesUsed = static_cast<int32_t>(std::min<uint64_t>(manager->used, INT32_MAX));
    if (shown.bytesUsed > shown.bytesPeak)
        shown.bytesPeak = shown.bytesUsed;
    if (record->isIn && size > 0) {
        countResident(manager, record->size, size);
        record->size = size;
        return;
    }
    if (record->isIn)
        leaveMemory(manager, record);
    record->size = size;
    if (size > 0)
        enterMemory(manager, record);
}

void makeRoom(VMemManager* manager, uint32_t size) {
    const uint32_t limit = vmemLimit();
    if (limit != 0)
        swapDownTo(manager, lessOrNone(limit, size));
}

void swapOutSome(VMemManager* manager, uint32_t size) {
    swapDownTo(manager, lessOrNone(occupied(manager), size));
}

void trimKept(const VMemManager* manager) {
    const uint32_t limit = vmemLimit();
    const uint64_t inUse = occupied(manager);
    if (limit != 0 && inUse + keptGlobalMemory() > limit)
        trimGlobalMemory(lessOrNone(limit, inUse));
}

bool bringBack(VMemManager* manager, Record* record) {
    void* handle = record->handle;
    vitem* copy = KalFindVItem(manager->shown.swapFile, idOf(handle));
    if (copy == nullptr || copy->size > record->size)
        return false;
    makeRoom(manager, record->size);
    if (GlobalReAlloc(handle, record->size, GMEM_MODIFY | GMEM_MOVEABLE) == nullptr) {
        swapOutSome(manager, record->size);
        if (GlobalReAlloc(handle, record->size, GMEM_MODIFY | GMEM_MOVEABLE) == nullptr)
            return false;
    }
    const int32_t got = KalReadVFile(manager->shown.swapFile, copy, GlobalLock(handle));
    GlobalUnlock(handle);
    if (got != static_cast<int32_t>(copy->size)) {
        GlobalReAlloc(handle, 0, GMEM_MOVEABLE);
        return false;
    }
    enterMemory(manager, record);
    trimKept(manager);
    return true;
}

bool tellHandler(VMemManager* manager) {
    if (!manager->mustTell)
        return false;
    manager->mustTell = false;
    if (manager->shown.errorHandler != nullptr)
        manager->shown.errorHandler();
    return true;
}
