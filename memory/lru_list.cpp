#include "memory/lru_list.h"

#include "memory/vmem_manager.h"
#include "platform/global_memory.h"

#include <kal/heap.h>

#include <algorithm>

namespace {

constexpr uint32_t kIds = 0x10000;

LruNode*& slotOf(LruList* list, const void* handle) {
    return list->byId[static_cast<uint16_t>(reinterpret_cast<uintptr_t>(handle))];
}

LruNode* nodeAt(KalNodeHeader* header) {
    return header != nullptr ? reinterpret_cast<LruNode*>(header + 1) : nullptr;
}

LruNode* newerThan(LruNode* node) {
    return static_cast<LruNode*>(KalSPrevNode(node));
}

bool isLocked(const LruNode* node) {
    return (GlobalFlags(node->handle) & GMEM_LOCKCOUNT) != 0;
}

bool isInMemory(const LruNode* node) {
    return (GlobalFlags(node->handle) & (GMEM_INVALID_HANDLE | GMEM_DISCARDED)) == 0;
}

// Order of the heap: the longest in memory on top.
bool isNewer(const LruCandidate& a, const LruCandidate& b) {
    return a.arrival > b.arrival;
}

void arrive(LruList* list, LruNode* node) {
    node->arrival = ++list->arrivals & (UINT64_MAX >> 3);
}

void popHeap(LruList* list) {
    list->heap[0].node->queued = 0;
    std::pop_heap(list->heap, list->heap + list->heapCount, isNewer);
    list->heapCount--;
}

void pushHeap(LruList* list, LruNode* node) {
    node->queued = 1;
    list->heap[list->heapCount++] = {node->arrival, node};
    std::push_heap(list->heap, list->heap + list->heapCount, isNewer);
}

void advanceFrontier(LruList* list) {
    list->frontier->seen = 1;
    list->frontier = newerThan(list->frontier);
}

bool growHeap(LruList* list) {
    const uint32_t room = list->heapRoom == 0 ? 64 : list->heapRoom * 2;
    const auto bytes = static_cast<uint32_t>(room * sizeof(LruCandidate));
    void* heap = list->heap == nullptr ? KalAllocSMem(bytes) : KalReAllocSMem(list->heap, bytes);
    if (heap == nullptr)
        return false;
    list->heap = static_cast<LruCandidate*>(heap);
    list->heapRoom = room;
    return true;
}

void park(LruList* list, LruNode* node) {
    list->parkedCount += node->parked == 0 ? 1 : 0;
    node->parked = 1;
}

void unpark(LruList* list, LruNode* node) {
    list->parkedCount -= node->parked;
    node->parked = 0;
}

// Looks at a candidate: whether its block can go. A locked one is parked on the way.
bool canGo(LruList* list, LruNode* node) {
    if (!isInMemory(node))
        return false;
    if (isLocked(node)) {
        park(list, node);
        return false;
    }
    unpark(list, node);
    return true;
}

// Takes the top away when its block cannot go, or sinks it when the block has come into memory anew since it was
// queued. True when it is right where it is.
bool settleTop(LruList* list) {
    const LruCandidate top = list->heap[0];
    const bool inPlace = top.arrival == top.node->arrival;
    if (inPlace && canGo(list, top.node))
        return true;
    popHeap(list);
    if (!inPlace && top.node->arrival != 0 && top.node->seen != 0 && canGo(list, top.node))
        pushHeap(list, top.node);
    return false;
}

LruNode* spareOrNew(LruList* list) {
    LruNode* node = list->spare;
    if (node != nullptr) {
        list->spare = static_cast<LruNode*>(node->handle);
        return node;
    }
    node = static_cast<LruNode*>(KalSCreateNode(sizeof(LruNode)));
    if (node != nullptr)
        list->nodes++;
    return node;
}

void freeList(LruList* list) {
    while (LruNode* node = list->spare) {
        list->spare = static_cast<LruNode*>(node->handle);
        KalSDestroyNode(node);
    }
    if (list->heap != nullptr)
        KalFreeSMem(list->heap);
    if (list->byId != nullptr)
        KalFreeSMem(list->byId);
}

} // namespace

LruNode* findNode(LruList* list, void* handle) {
    LruNode* node = slotOf(list, handle);
    if (node != nullptr && node->handle == handle) [[likely]]
        return node;
    // Two handles whose low halves are alike are not both live, yet a caller may add what it likes.
    return static_cast<LruNode*>(KalSPeekList(&list->list, KalFindLRUNode, &handle));
}

LruNode* addNode(LruList* list, void* handle) {
    LruNode* node = spareOrNew(list);
    if (node == nullptr)
        return nullptr;
    node->handle = handle;
    arrive(list, node);
    node->seen = 0;
    node->parked = 0;
    node->queued = 0;
    KalSAddHead(&list->list, node);
    slotOf(list, handle) = node;
    if (list->frontier == nullptr)
        list->frontier = node;
    return node;
}

void removeNode(LruList* list, LruNode* node) {
    if (list->frontier == node)
        list->frontier = newerThan(node);
    LruNode*& slot = slotOf(list, node->handle);
    if (slot == node)
        slot = nullptr;
    unpark(list, node);
    node->arrival = 0;
    KalSExtractNode(&list->list, node);
    node->handle = list->spare;
    list->spare = node;
}

LruNode* oldestCandidate(LruList* list) {
    while (list->heapCount > 0 && !settleTop(list)) {
    }
    while (list->frontier != nullptr && !canGo(list, list->frontier))
        advanceFrontier(list);
    if (list->heapCount == 0)
        return list->frontier;
    const LruCandidate& top = list->heap[0];
    return list->frontier != nullptr && list->frontier->arrival < top.arrival ? list->frontier : top.node;
}

void dropOldestCandidate(LruList* list, LruNode* node) {
    if (list->frontier == node)
        advanceFrontier(list);
    else if (list->heapCount > 0 && list->heap[0].node == node)
        popHeap(list);
}

void parkNode(LruList* list, LruNode* node) {
    if (node->seen == 0)
        return; // it will be looked at in its turn
    arrive(list, node);
    park(list, node);
}

void unparkNode(LruList* list, LruNode* node) {
    if (node->parked == 0)
        return;
    unpark(list, node);
    if (node->queued != 0)
        return;
    if (list->heapCount == list->heapRoom && !growHeap(list)) {
        // No memory to remember it: look at all blocks anew.
        while (list->heapCount > 0)
            popHeap(list);
        list->frontier = nodeAt(list->list.last);
        return;
    }
    pushHeap(list, node);
}

uint64_t lruListBytes(const LruList* list) {
    constexpr uint64_t kHeapBlock = 32; // the heap's own part of a block, generously
    constexpr uint64_t kSlot = 24;      // the block's place in the table of handles
    return list->nodes * (sizeof(KalNodeHeader) + sizeof(LruNode) + sizeof(LruNode*) + kHeapBlock + kSlot) +
           list->heapRoom * sizeof(LruCandidate);
}

// --- The calls ---------------------------------------------------------------------------------------------

int16_t KalOpenLRUVList() {
    VMemManager* manager = currentManager();
    if (manager == nullptr || manager->state.lruList != nullptr)
        return KAL_OK;
    auto* list = static_cast<LruList*>(KalAllocSMem(sizeof(LruList)));
    if (list == nullptr)
        return KAL_ERR_BUFFER;
    list->byId = static_cast<LruNode**>(KalAllocSMem(kIds * sizeof(LruNode*)));
    if (list->byId == nullptr) {
        KalFreeSMem(list);
        return KAL_ERR_BUFFER;
    }
    manager->state.lruList = &list->list;
    return KAL_OK;
}

int16_t KalCloseLRUVList() {
    VMemManager* manager = currentManager();
    LruList* list = manager != nullptr ? lruListOf(manager) : nullptr;
    if (list == nullptr)
        return KAL_OK;
    while (LruNode* newest = nodeAt(list->list.first)) {
        KalFreeVMem(newest->handle);
        if (nodeAt(list->list.first) == newest) // not a live block
            removeNode(list, newest);
    }
    freeList(list);
    manager->state.lruList = nullptr;
    return KalSDestroyList(&list->list);
}

int16_t KalAddLRU(void* handle) {
    VMemManager* manager = currentManager();
    if (manager == nullptr)
        return KAL_OK;
    LruList* list = lruListOf(manager);
    if (list == nullptr)
        return KAL_ERR_LIST;
    return addNode(list, handle) != nullptr ? KAL_OK : KAL_ERR_BUFFER;
}

int16_t KalDeleteLRU(void* handle) {
    VMemManager* manager = currentManager();
    LruList* list = manager != nullptr ? lruListOf(manager) : nullptr;
    LruNode* node = list != nullptr ? findNode(list, handle) : nullptr;
    if (node != nullptr)
        removeNode(list, node);
    return KAL_OK;
}

uint16_t KalFindLRUNode(void* node, void* wanted) {
    return static_cast<LruNode*>(node)->handle == *static_cast<void**>(wanted) ? 1 : 0;
}

int16_t KalLRUNewest(void*) {
    return KAL_OK;
}

int16_t KalDiscardLRUOldest() {
    return KAL_OK;
}
