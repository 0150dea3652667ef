// The VMem manager's calls.
#include <kal/vmem.h>

#include "memory/swap_file.h"
#include "memory/vmem_manager.h"
#include "memory/vmem_used.h"
#include "platform/global_memory.h"

#include <kal/heap.h>
#include <kal/path.h>

#include <algorithm>

namespace {

constexpr int kTries = 3;

// Half of the largest power of two, up to 2 MiB, of which a block can be had.
uint32_t probeBlockSize() {
    for (uint32_t size = 0x200000; size > 0; size /= 2)
        if (void* block = KalAllocVMem(GMEM_MOVEABLE, size)) {
            KalFreeVMem(block);
            return size / 2;
        }
    return 0;
}

// Brings a block back that could not be locked, and locks it: its address, or null.
[[gnu::noinline]] void* restore(void* handle) {
    for (int tries = 0; tries < kTries; tries++) {
        VMemManager* manager = currentManager();
        Record* record = recordOf(manager, handle);
        if (record == nullptr || record->size == 0)
            return nullptr;
        void* address = GlobalLock(handle);
        if (address == nullptr && record->arrival != 0)
            leaveMemory(manager, record); // discarded by its owner
        if (address == nullptr && bringBack(manager, record))
            address = GlobalLock(handle);
        if (!outlivesHandler(manager, handle))
            return nullptr;
        if (address != nullptr)
            return address;
    }
    return nullptr;
}

[[gnu::noinline]] int16_t noteUnlocked(void* handle) {
    VMemManager* manager = currentManager();
    if (Record* record = recordOf(manager, handle))
        takeBack(manager, record);
    return KAL_OK;
}

// Notes that bytes of a block changed, of which those before `end` matter now.
void noteChange(void* handle, uint32_t end) {
    VMemManager* manager = currentManager();
    Record* record = recordOf(manager, handle);
    if (record == nullptr || record->arrival == 0)
        return;
    record->used = std::clamp(end, record->used, record->size);
    dropItem(manager->shown.swapFile, idOf(handle));
}

vmemstate shownState() {
    const VMemManager* manager = currentManager();
    return manager != nullptr ? manager->shown : vmemstate{};
}

} // namespace

int16_t KalOpenVMem(uint16_t) {
    if (currentManager() != nullptr)
        return KAL_ERR_VMEM;
    auto* manager = static_cast<VMemManager*>(KalAllocSMem(sizeof(VMemManager)));
    if (manager == nullptr)
        return KAL_ERR_BUFFER;
    KalSetTaskData(manager, kSlotManager);
    int16_t status = KalOpenTempVFile(&manager->shown.swapFile);
    if (status == KAL_OK)
        status = KalOpenLRUVList();
    if (status == KAL_OK) {
        if (vmemLimit.load(std::memory_order_relaxed) == 0)
            KalSetMaxVMem(KalGetFreeSystemMemory());
        manager->shown.blockSize = probeBlockSize();
        status = manager->shown.blockSize != 0 ? KAL_OK : KAL_ERR_VMEM;
    }
    if (status != KAL_OK)
        KalCloseVMem();
    return status;
}

int16_t KalCloseVMem() {
    VMemManager* manager = currentManager();
    if (manager == nullptr)
        return KAL_OK;
    KalCloseLRUVList();
    const int16_t status = KalCloseVFile(manager->shown.swapFile);
    for (uint32_t id = 0; manager->recordCount > 0; id++)
        manager->recordCount -= KalSDestroyNode(manager->records[id]) == KAL_OK ? 1 : 0;
    KalRemoveTaskData(kSlotManager);
    KalFreeSMem(manager);
    trimGlobalMemory(0);
    return status;
}

void* KalAllocVMem(int16_t, uint32_t size) {
    for (int tries = 0; tries < kTries; tries++) {
        VMemManager* manager = currentManager();
        if (manager == nullptr || manager->shown.lruList == nullptr)
            return nullptr;
        makeRoom(manager, size);
        void* handle = GlobalAlloc(GMEM_MOVEABLE, size);
        if (handle == nullptr) {
            swapOutSome(manager, size);
        } else if (!addRecord(manager, handle, size)) {
            GlobalFree(handle);
            handle = nullptr;
        }
        trimKept(manager);
        const bool isLive = outlivesHandler(manager, handle);
        if (handle != nullptr)
            return isLive ? handle : nullptr;
    }
    return nullptr;
}

void* KalLockVMem(void* handle) {
    void* address = GlobalLock(handle);
    return address != nullptr ? address : restore(handle);
}

int16_t KalUnLockVMem(void* handle) {
    if (GlobalUnlock(handle) != 0 || passedOver.load(std::memory_order_relaxed) == 0) [[likely]]
        return KAL_OK;
    return noteUnlocked(handle);
}

void* KalReAllocVMem(void* handle, uint32_t size) {
    for (int tries = 0; tries < kTries; tries++) {
        if (KalLockVMem(handle) != nullptr) // a swapped-out block comes back first
            KalUnLockVMem(handle);
        VMemManager* manager = currentManager();
        Record* record = recordOf(manager, handle);
        if (record == nullptr || manager->shown.lruList == nullptr || record->size != GlobalSize(handle))
            return nullptr;
        const bool isDone = reallocate(manager, record, size);
        if (isDone) {
            setSize(manager, record, size);
            dropItem(manager->shown.swapFile, idOf(handle));
            trimKept(manager);
        }
        if (!outlivesHandler(manager, handle))
            return nullptr;
        if (isDone)
            return handle;
    }
    return nullptr;
}

int16_t KalFreeVMem(void* handle) {
    VMemManager* manager = currentManager();
    if (Record* record = recordOf(manager, handle))
        forget(manager, record);
    GlobalFree(handle);
    return KAL_OK;
}

void KalMarkDirtyVMem(void* handle) {
    noteChange(handle, UINT32_MAX);
}

void markUsedVMem(void* handle, uint32_t end) {
    noteChange(handle, end);
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
    return shownState().bytesPeak;
}

int32_t KalVMemUsed() {
    return shownState().bytesUsed;
}

int32_t KalGetVMemSize() {
    return static_cast<int32_t>(shownState().blockSize);
}

void KalSetMaxVMem(uint32_t bytes) {
    vmemLimit.store(bytes, std::memory_order_relaxed);
}

uint32_t KalGetFreeSystemMemory() {
    constexpr uint32_t kReserve = 2200000;
    MEMORYSTATUS status;
    GlobalMemoryStatus(&status);
    return status.dwAvailPhys > kReserve ? status.dwAvailPhys - kReserve : status.dwAvailPhys;
}
