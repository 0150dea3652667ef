// The LRU list, and the records of blocks, which are its nodes.
#include "memory/swap_file.h"
#include "memory/vmem_manager.h"

namespace {

// The first node from the head that holds the handle, or null.
void* nodeOf(VMemManager* manager, void* handle) {
    if (manager->looseNodes > 0)
        return KalSPeekList(manager->shown.lruList, KalFindLRUNode, &handle);
    Record* record = recordOf(manager, handle);
    return record != nullptr && record->isListed ? record : nullptr;
}

void addToList(VMemManager* manager, Record* record) {
    KalSAddHead(manager->shown.lruList, record);
    record->isListed = true;
    if (record->arrival != 0)
        arrive(manager, record);
}

void takeFromList(VMemManager* manager, Record* record) {
    KalSExtractNode(manager->shown.lruList, record);
    record->isListed = false;
}

void destroyLoose(VMemManager* manager, void* node) {
    KalSExtractNode(manager->shown.lruList, node);
    KalSDestroyNode(node);
    manager->looseNodes--;
}

} // namespace

bool addRecord(VMemManager* manager, void* handle, uint32_t size) {
    Record*& record = manager->records[idOf(handle)];
    if (record == nullptr) {
        record = static_cast<Record*>(KalSCreateNode(sizeof(Record)));
        if (record == nullptr)
            return false;
        manager->recordCount++;
    }
    if (record->handle != nullptr)
        forget(manager, record); // another task has freed it
    record->handle = handle;
    addToList(manager, record);
    setSize(manager, record, size);
    return true;
}

void forget(VMemManager* manager, Record* record) {
    if (record->isListed)
        takeFromList(manager, record);
    setSize(manager, record, 0);
    dropItem(manager->shown.swapFile, idOf(record->handle));
    record->handle = nullptr;
}

int16_t KalOpenLRUVList() {
    VMemManager* manager = currentManager();
    if (manager == nullptr || manager->shown.lruList != nullptr)
        return KAL_OK;
    manager->shown.lruList = KalSCreateList();
    return manager->shown.lruList != nullptr ? KAL_OK : KAL_ERR_BUFFER;
}

int16_t KalCloseLRUVList() {
    VMemManager* manager = currentManager();
    slisthd* list = manager != nullptr ? manager->shown.lruList : nullptr;
    if (list == nullptr)
        return KAL_OK;
    while (list->first != nullptr) {
        void* node = list->first + 1;
        void* handle = *static_cast<void**>(node);
        if (node != recordOf(manager, handle))
            destroyLoose(manager, node);
        KalFreeVMem(handle);
    }
    manager->shown.lruList = nullptr;
    return KalSDestroyList(list);
}

int16_t KalAddLRU(void* handle) {
    VMemManager* manager = currentManager();
    if (manager == nullptr)
        return KAL_OK;
    if (manager->shown.lruList == nullptr)
        return KAL_ERR_LIST;
    if (Record* record = recordOf(manager, handle); record != nullptr && !record->isListed) {
        addToList(manager, record);
        return KAL_OK;
    }
    auto* node = static_cast<void**>(KalSCreateNode(sizeof handle));
    if (node == nullptr)
        return KAL_ERR_BUFFER;
    *node = handle;
    manager->looseNodes++;
    return KalSAddHead(manager->shown.lruList, node);
}

int16_t KalDeleteLRU(void* handle) {
    VMemManager* manager = currentManager();
    void* node = manager != nullptr && manager->shown.lruList != nullptr ? nodeOf(manager, handle) : nullptr;
    if (node == nullptr)
        return KAL_OK;
    if (Record* record = recordOf(manager, handle); record == node)
        takeFromList(manager, record);
    else
        destroyLoose(manager, node);
    return KAL_OK;
}

uint16_t KalFindLRUNode(void* node, void* wanted) {
    return *static_cast<void**>(node) == *static_cast<void**>(wanted) ? 1 : 0;
}

int16_t KalLRUNewest(void*) {
    return KAL_OK;
}

int16_t KalDiscardLRUOldest() {
    return KAL_OK;
}
