// Between memory and swap file: what goes out, and how it comes back.
#include "memory/swap_file.h"
#include "memory/vmem_manager.h"
#include "platform/global_memory.h"

#include <algorithm>

namespace {

constexpr uint64_t kPage = 4096;

uint64_t inPages(uint32_t size) {
    return (size + kPage - 1) / kPage * kPage;
}

// What the manager holds in memory, for the limit: the resident bytes. Many small blocks need much more than
// their bytes, though, in records and in parts of pages; past 2 MiB that counts too.
uint64_t occupied(const VMemManager* manager) {
    constexpr uint64_t kFree = 2 << 20;
    const uint64_t bookkeeping = lruListBytes(lruListOf(manager)) + extentListBytes(manager->state.swapFile);
    const uint64_t all = manager->pages + bookkeeping;
    return std::max(manager->resident, all > kFree ? all - kFree : 0);
}

bool passesLimit(const VMemManager* manager, uint32_t size) {
    const uint32_t limit = vmemLimit();
    return limit != 0 && occupied(manager) + size > limit;
}

const vitem* copyOf(const VMemManager* manager, void* handle) {
    return findItem(manager->state.swapFile, itemIdOf(handle));
}

bool hasCopy(const VMemManager* manager, void* handle, uint32_t size) {
    const vitem* copy = copyOf(manager, handle);
    return copy != nullptr && copy->size == size;
}

// Writes a block's bytes to the swap file. An extent that a short write leaves must not be taken for a valid
// copy.
bool writeCopy(VMemManager* manager, void* handle, uint32_t size) {
    const void* bytes = GlobalLock(handle);
    const int32_t written =
        bytes != nullptr ? KalWriteVFile(manager->state.swapFile, bytes, size, itemIdOf(handle)) : 0;
    GlobalUnlock(handle);
    if (written == static_cast<int32_t>(size))
        return true;
    dropItem(manager->state.swapFile, itemIdOf(handle));
    return false;
}

// Swaps one block out and gives its memory back to the host. On failure the block stays, and the first time
// the error handler is told, last of all, since it may do anything.
bool swapOut(VMemManager* manager, LruNode* node) {
    void* handle = node->handle;
    const uint32_t size = GlobalSize(handle);
    const bool isClean = hasCopy(manager, handle, size);
    if (isClean || writeCopy(manager, handle, size)) {
        if (!isClean) // a block that needed no writing says nothing about the disk
            manager->state.swapFailed = 0;
        dropOldestCandidate(lruListOf(manager), node);
        GlobalReAlloc(handle, 0, GMEM_MOVEABLE);
        countNotResident(manager, size);
        return true;
    }
    if (manager->state.swapFailed == 0) {
        manager->state.swapFailed = 1;
        if (manager->state.errorHandler != nullptr)
            manager->state.errorHandler();
    }
    return false;
}

// Fills a block that has memory again from its copy, which stays valid. Locks it; null, with the block out as
// it was, when the copy cannot be read.
void* readBack(VMemManager* manager, void* handle, const vitem* copy) {
    const uint32_t size = copy->size;
    void* address = GlobalLock(handle);
    if (KalReadVFile(manager->state.swapFile, const_cast<vitem*>(copy), address) !=
        static_cast<int32_t>(size)) {
        GlobalUnlock(handle);
        GlobalReAlloc(handle, 0, GMEM_MOVEABLE);
        return nullptr;
    }
    countResident(manager, size);
    if (LruNode* node = findNode(lruListOf(manager), handle))
        parkNode(lruListOf(manager), node);
    trimKept(manager);
    return address;
}

} // namespace

void countResident(VMemManager* manager, uint32_t size) {
    manager->resident += size;
    manager->pages += inPages(size);
    manager->state.bytesResident = static_cast<int32_t>(std::min<uint64_t>(manager->resident, INT32_MAX));
}

void countNotResident(VMemManager* manager, uint32_t size) {
    manager->resident -= size;
    manager->pages -= inPages(size);
    manager->state.bytesResident = static_cast<int32_t>(std::min<uint64_t>(manager->resident, INT32_MAX));
}

void makeRoom(VMemManager* manager, uint32_t size) {
    while (passesLimit(manager, size)) {
        LruNode* oldest = oldestCandidate(lruListOf(manager));
        if (oldest == nullptr || !swapOut(manager, oldest))
            return;
    }
}

bool swapOutSome(VMemManager* manager, uint32_t size) {
    uint64_t gone = 0;
    while (gone < size) {
        LruNode* oldest = oldestCandidate(lruListOf(manager));
        const uint64_t bytes = oldest != nullptr ? GlobalSize(oldest->handle) : 0;
        if (oldest == nullptr || !swapOut(manager, oldest))
            return gone > 0;
        gone += bytes;
    }
    return true;
}

void trimKept(const VMemManager* manager) {
    const uint32_t limit = vmemLimit();
    const uint64_t inUse = occupied(manager);
    if (limit != 0 && inUse + keptGlobalMemory() > limit)
        trimGlobalMemory(limit > inUse ? limit - inUse : 0);
}

void* restore(VMemManager* manager, void* handle) {
    const vitem* copy = copyOf(manager, handle);
    if (copy == nullptr)
        return nullptr;
    makeRoom(manager, copy->size);
    constexpr int kTries = 3;
    for (int tries = 1;; tries++) {
        // An error handler may have closed the manager, or freed or resized this very block.
        manager = currentManager();
        copy = manager != nullptr ? copyOf(manager, handle) : nullptr;
        if (copy == nullptr || GlobalFlags(handle) != GMEM_DISCARDED)
            return GlobalLock(handle);
        if (GlobalReAlloc(handle, copy->size, GMEM_MODIFY | GMEM_MOVEABLE) != nullptr)
            return readBack(manager, handle, copy);
        if (tries == kTries || !swapOutSome(manager, copy->size))
            return nullptr;
    }
}
