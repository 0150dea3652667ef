// The VMem manager's calls.
#include <kal/vmem.h>

#include "memory/swap_file.h"
#include "memory/vmem_manager.h"
#include "memory/vmem_used.h"
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
    constexpr uint32_t kIds = 0x10000;
    manager->records = static_cast<Record**>(KalAllocSMem(kIds * sizeof(Record*)));
    manager->arrivals = static_cast<Arrivals*>(KalAllocSMem(sizeof(Arrivals)));
    if (manager->records == nullptr || manager->arrivals == nullptr)
        return KAL_ERR_BUFFER;
    const int16_t status = KalOpenTempVFile(&manager->shown.swapFile);
    return status == KAL_OK ? KalOpenLRUVList() : status;
}

// Resizes a block that is in memory or has no bytes, once what it gains has room. False when memory is short or the
// block is locked where it cannot grow.
bool resize(VMemManager* manager, Record* record, uint32_t size) {
    void* handle = record->handle;
    const bool isLocked = (GlobalFlags(handle) & GMEM_LOCKCOUNT) != 0;
    if (!isLocked && size > record->size) {
        GlobalLock(handle); // it stays while others go
        makeRoom(manager, size - record->size);
        GlobalUnlock(handle);
    }
    if (GlobalReAlloc(handle, size, GMEM_MOVEABLE) == nullptr) {
        if (isLocked)
            return false;
        GlobalLock(handle);
        swapOutSome(manager, size);
        GlobalUnlock(handle);
        if (GlobalReAlloc(handle, size, GMEM_MOVEABLE) == nullptr)
            return false;
    }
    setSize(manager, record, size);
    record->used = size;
    dropItem(manager->shown.swapFile, idOf(handle));
    trimKept(manager);
    return true;
}

// Brings a block back that could not be locked, and locks it: its address, or null.
[[gnu::noinline]] void* restore(void* handle) {
    for (int tries = 0; tries < kTries; tries++) {
        VMemManager* manager = currentManager();
        Record* record = manager != nullptr ? recordOf(manager, handle) : nullptr;
        if (record == nullptr || record->size == 0)
            return nullptr;
        void* address = record->isIn || bringBack(manager, record) ? GlobalLock(handle) : nullptr;
        if (tellHandler(manager) && !isLive(handle))
            return nullptr;
        if (address != nullptr)
            return address;
    }
    return nullptr;
}

[[gnu::noinline]] void noteUnlocked(void* handle) {
    VMemManager* manager = currentManager();
    const Record* record = manager != nullptr ? recordOf(manager, handle) : nullptr;
    if (record != nullptr && record->place != 0)
        takeBack(manager->arrivals, record->place);
}

// Notes that bytes of a block changed; how many of its first bytes matter now, tells `used`.
template <class Used>
void noteChange(void* handle, Used used) {
    VMemManager* manager = currentManager();
    Record* record = manager != nullptr ? recordOf(manager, handle) : nullptr;
    if (record == nullptr || !record->isIn)
        return;
    record->used = used(record);
    dropItem(manager->shown.swapFile, idOf(handle));
}

} // namespace

uint32_t vmemLimit() {
    return limit.load(std::memory_order_relaxed);
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
    manager->shown.blockSize = probeBlockSize();
    if (manager->shown.blockSize == 0) {
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
    const int16_t status = KalCloseVFile(manager->shown.swapFile);
    for (uint32_t id = 0; id < manager->recordsEnd; id++)
        KalSDestroyNode(manager->records[id]);
    KalFreeSMem(manager->records);
    KalFreeSMem(manager->arrivals);
    KalRemoveTaskData(kSlotManager);
    KalFreeSMem(manager);
    trimGlobalMemory(0);
    return status;
}

void* KalAllocVMem(int16_t, uint32_t size) {
    void* handle = nullptr;
    for (int tries = 0; tries < kTries && handle == nullptr; tries++) {
        VMemManager* manager = currentManager();
        if (manager == nullptr || manager->shown.lruList == nullptr)
            return nullptr;
        makeRoom(manager, size);
        handle = GlobalAlloc(GMEM_MOVEABLE, size);
        if (handle == nullptr) {
            swapOutSome(manager, size);
        } else if (addRecord(manager, handle, size) == nullptr) {
            GlobalFree(handle);
            handle = nullptr;
        }
        trimKept(manager);
        if (tellHandler(manager) && handle != nullptr && !isLive(handle))
            return nullptr;
    }
    return handle;
}

void* KalLockVMem(void* handle) {
    void* address = GlobalLock(handle);
    return address != nullptr ? address : restore(handle);
}

int16_t KalUnLockVMem(void* handle) {
    if (GlobalUnlock(handle) == 0 && passedOver() != 0)
        noteUnlocked(handle);
    return KAL_OK;
}

void* KalReAllocVMem(void* handle, uint32_t size) {
    for (int tries = 0; tries < kTries; tries++) {
        if (KalLockVMem(handle) != nullptr) // a swapped-out block comes back first
            KalUnLockVMem(handle);
        VMemManager* manager = currentManager();
        Record* record = manager != nullptr ? recordOf(manager, handle) : nullptr;
        if (record == nullptr || manager->shown.lruList == nullptr || record->isIn == (record->size == 0))
            return nullptr;
        const bool isDone = resize(manager, record, size);
        if (tellHandler(manager) && !isLive(handle))
            return nullptr;
        if (isDone)
            return handle;
        if (size == 0 || (GlobalFlags(handle) & GMEM_LOCKCOUNT) != 0)
            return nullptr;
    }
    return nullptr;
}

int16_t KalFreeVMem(void* handle) {
    VMemManager* manager = currentManager();
    if (Record* record = manager != nullptr ? recordOf(manager, handle) : nullptr)
        forget(manager, record);
    GlobalFree(handle);
    return KAL_OK;
}

void KalMarkDirtyVMem(void* handle) {
    noteChange(handle, [](const Record* record) { return record->size; });
}

void markUsedVMem(void* handle, uint32_t end) {
    noteChange(handle, [=](const Record* record) { return std::clamp(end, record->used, record->size); });
}

void* allocateUnusedVMem(uint32_t size) {
    void* handle = KalAllocVMem(GMEM_MOVEABLE, size);
    if (handle != nullptr)
        recordOf(currentManager(), handle)->used = 0;
    return handle;
}

void KalSetVMemErrorHandler(void (*handler)()) {
    if (VMemManager* manager = currentManager())
        manager->shown.errorHandler = handler;
}

void KalSetVMemTemp(const char* directory) {
    KalTempPath(directory);
}

int32_t KalMaxVMem() {
    const VMemManager* manager = currentManager();
    return manager != nullptr ? manager->shown.bytesPeak : 0;
}

int32_t KalVMemUsed() {
    const VMemManager* manager = currentManager();
    return manager != nullptr ? manager->shown.bytesUsed : 0;
}

int32_t KalGetVMemSize() {
    const VMemManager* manager = currentManager();
    return manager != nullptr ? static_cast<int32_t>(manager->shown.blockSize) : 0;
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
