// The VMem manager's calls.
#include <kal/vmem.h>

#include "memory/swap_file.h"
#include "memory/vmem_manager.h"
#include "platform/global_memory.h"

#include <kal/heap.h>
#include <kal/path.h>

#include <algorithm>
#include <atomic>

namespace {

constexpr int kTries = 3;

std::atomic<uint32_t> limit; // of all tasks; 0 until it is set

bool isLive(void* handle) {
    return (GlobalFlags(handle) & GMEM_INVALID_HANDLE) == 0;
}

// Keeps a block in memory while others are swapped out.
class Pin {
public:
    explicit Pin(void* handle) : handle_(handle), address_(KalLockVMem(handle)) {}
    ~Pin() {
        if (address_ != nullptr)
            KalUnLockVMem(handle_);
    }
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;
    bool holds() const { return address_ != nullptr; }

private:
    void* handle_;
    void* address_;
};

// Enters a fresh block into list and counters. False when memory is short.
bool enter(VMemManager* manager, void* handle, uint32_t size) {
    if (addNode(lruListOf(manager), handle) == nullptr)
        return false;
    countResident(manager, size);
    countUsed(manager, size);
    return true;
}

// Takes a block out of list, counters and swap file. A block of another task is left to that.
void leave(VMemManager* manager, void* handle) {
    LruNode* node = isLive(handle) ? findNode(lruListOf(manager), handle) : nullptr;
    if (node == nullptr)
        return;
    const uint32_t size = GlobalSize(handle);
    const vitem* copy = findItem(manager->state.swapFile, itemIdOf(handle));
    if (size > 0)
        countNotResident(manager, size);
    countUsed(manager, -int64_t(size == 0 && copy != nullptr ? copy->size : size));
    dropItem(manager->state.swapFile, itemIdOf(handle));
    removeNode(lruListOf(manager), node);
}

// Half of the largest power of two, up to 2 MiB, of which a block can be had.
uint32_t probeBlockSize() {
    for (uint32_t size = 0x200000; size > 0; size /= 2)
        if (void* block = KalAllocVMem(GMEM_MOVEABLE, size)) {
            KalFreeVMem(block);
            return size / 2;
        }
    return 0;
}

int16_t openParts(VMemManager* manager) {
    int16_t status = KalOpenTempVFile(&manager->state.swapFile);
    if (status == KAL_OK)
        status = KalOpenLRUVList();
    return status;
}

// Resizes a block that is in memory or has no bytes, making room for what it gains. Null on failure.
void* resize(void* handle, uint32_t size) {
    for (int tries = 1;; tries++) {
        if (GlobalReAlloc(handle, size, GMEM_MOVEABLE) != nullptr)
            return handle;
        if ((GlobalFlags(handle) & (GMEM_INVALID_HANDLE | GMEM_LOCKCOUNT)) != 0)
            return nullptr;
        const Pin pin(handle);
        VMemManager* manager = currentManager();
        if (tries == kTries || size == 0 || manager == nullptr || !swapOutSome(manager, size))
            return nullptr;
    }
}

} // namespace

uint32_t vmemLimit() {
    return limit.load(std::memory_order_relaxed);
}

void countUsed(VMemManager* manager, int64_t size) {
    manager->used += static_cast<uint64_t>(size);
    vmemstate& state = manager->state;
    state.bytesUsed = static_cast<int32_t>(std::min<uint64_t>(manager->used, INT32_MAX));
    if (state.bytesUsed > state.bytesPeak)
        state.bytesPeak = state.bytesUsed;
}

int16_t KalOpenVMem(uint16_t) {
    if (currentManager() != nullptr)
        return KAL_ERR_VMEM;
    auto* manager = static_cast<VMemManager*>(KalAllocSMem(sizeof(VMemManager)));
    if (manager == nullptr)
        return KAL_ERR_BUFFER;
    KalSetTaskData(manager, kSlotManager);
    const int16_t status = openParts(manager);
    if (status != KAL_OK) {
        KalCloseVMem();
        return status;
    }
    if (vmemLimit() == 0)
        KalSetMaxVMem(KalGetFreeSystemMemory());
    manager->state.blockSize = probeBlockSize();
    if (manager->state.blockSize == 0) {
        KalCloseVMem();
        return KAL_ERR_VMEM;
    }
    return KAL_OK;
}

int16_t KalCloseVMem() {
    VMemManager* manager = currentManager();
    if (manager == nullptr)
        return KAL_OK;
    KalCloseLRUVList();
    const int16_t status = KalCloseVFile(manager->state.swapFile);
    KalRemoveTaskData(kSlotManager);
    KalFreeSMem(manager);
    trimGlobalMemory(0);
    return status;
}

void* KalAllocVMem(int16_t, uint32_t size) {
    VMemManager* manager = currentManager();
    if (manager == nullptr)
        return nullptr;
    makeRoom(manager, size);
    void* handle = nullptr;
    for (int tries = 1;; tries++) {
        manager = currentManager(); // an error handler may have closed it
        if (manager == nullptr)
            return nullptr;
        handle = GlobalAlloc(GMEM_MOVEABLE, size);
        if (handle != nullptr)
            break;
        if (tries == kTries)
            return nullptr;
        swapOutSome(manager, size);
    }
    if (!enter(manager, handle, size)) {
        GlobalFree(handle);
        return nullptr;
    }
    trimKept(manager);
    return handle;
}

void* KalLockVMem(void* handle) {
    void* address = GlobalLock(handle);
    if (address != nullptr) [[likely]]
        return address;
    VMemManager* manager = currentManager();
    return manager != nullptr && GlobalFlags(handle) == GMEM_DISCARDED ? restore(manager, handle) : nullptr;
}

int16_t KalUnLockVMem(void* handle) {
    if (GlobalUnlock(handle) != 0)
        return KAL_OK;
    VMemManager* manager = currentManager();
    LruList* list = manager != nullptr ? lruListOf(manager) : nullptr;
    if (list == nullptr || list->parkedCount == 0) [[likely]]
        return KAL_OK;
    if (LruNode* node = isLive(handle) ? findNode(list, handle) : nullptr)
        unparkNode(list, node);
    return KAL_OK;
}

void* KalReAllocVMem(void* handle, uint32_t size) {
    VMemManager* manager = currentManager();
    if (manager == nullptr || !isLive(handle) || findNode(lruListOf(manager), handle) == nullptr)
        return nullptr;
    {
        const Pin pin(handle); // a swapped-out block comes back first, and stays while others make room
        manager = currentManager();
        if (manager == nullptr || !isLive(handle))
            return nullptr;
        if (!pin.holds() && findItem(manager->state.swapFile, itemIdOf(handle)) != nullptr)
            return nullptr;
        const uint32_t oldSize = GlobalSize(handle);
        if (size > oldSize)
            makeRoom(manager, size - oldSize);
    }
    if (!isLive(handle))
        return nullptr;
    const uint32_t oldSize = GlobalSize(handle);
    if (resize(handle, size) == nullptr)
        return nullptr;
    manager = currentManager();
    if (manager == nullptr)
        return nullptr;
    countNotResident(manager, oldSize);
    countResident(manager, size);
    countUsed(manager, int64_t(size) - oldSize);
    LruNode* node = findNode(lruListOf(manager), handle);
    if (node != nullptr && oldSize == 0) { // it had nothing to swap out when it was looked at
        parkNode(lruListOf(manager), node);
        unparkNode(lruListOf(manager), node);
    }
    dropItem(manager->state.swapFile, itemIdOf(handle));
    trimKept(manager);
    return handle;
}

int16_t KalFreeVMem(void* handle) {
    VMemManager* manager = currentManager();
    if (manager != nullptr)
        leave(manager, handle);
    GlobalFree(handle);
    return KAL_OK;
}

void KalMarkDirtyVMem(void* handle) {
    VMemManager* manager = currentManager();
    if (manager != nullptr && (GlobalFlags(handle) & (GMEM_INVALID_HANDLE | GMEM_DISCARDED)) == 0)
        dropItem(manager->state.swapFile, itemIdOf(handle));
}

void KalSetVMemErrorHandler(void (*handler)()) {
    if (VMemManager* manager = currentManager())
        manager->state.errorHandler = handler;
}

void KalSetVMemTemp(const char* directory) {
    KalTempPath(directory);
}

int32_t KalMaxVMem() {
    const VMemManager* manager = currentManager();
    return manager != nullptr ? manager->state.bytesPeak : 0;
}

int32_t KalVMemUsed() {
    const VMemManager* manager = currentManager();
    return manager != nullptr ? manager->state.bytesUsed : 0;
}

int32_t KalGetVMemSize() {
    const VMemManager* manager = currentManager();
    return manager != nullptr ? static_cast<int32_t>(manager->state.blockSize) : 0;
}

void KalSetMaxVMem(uint32_t bytes) {
    limit.store(bytes, std::memory_order_relaxed);
}

uint32_t KalGetFreeSystemMemory() {
    constexpr uint32_t kReserve = 2200000;
    MEMORYSTATUS status;
    GlobalMemoryStatus(&status);
    return status.dwAvailPhys > kReserve ? status.dwAvailPhys - kReserve : status.dwAvailPhys;
}
