// The blocks in memory in the order in which they came in: a heap of their arrivals. Whoever leaves memory leaves his
// arrival behind, which no longer is his record's and is dropped when it comes up or the heap is full. A locked block
// whose turn comes is passed over: its arrival stands in the record alone until it is unlocked, so that nobody looks
// at it again.
#include "memory/vmem_manager.h"
#include "platform/global_memory.h"

#include <algorithm>
#include <functional>

std::atomic<uint32_t> passedOver;

namespace {

constexpr std::greater<uint64_t> kFirstOnTop;

Record* recordAt(const VMemManager* manager, uint64_t place) {
    Record* record = manager->records[place % kIds];
    return record != nullptr && record->arrival == place / kIds && !record->isPassedOver ? record : nullptr;
}

void enqueue(VMemManager* manager, const Record* record) {
    uint64_t* const queue = manager->queue;
    if (manager->queueLength == kQueueRoom) {
        uint64_t* end = std::remove_if(queue, queue + kQueueRoom,
                                       [=](uint64_t place) { return recordAt(manager, place) == nullptr; });
        manager->queueLength = static_cast<uint32_t>(end - queue);
        std::make_heap(queue, end, kFirstOnTop);
    }
    queue[manager->queueLength++] = record->arrival * kIds + idOf(record->handle);
    std::push_heap(queue, queue + manager->queueLength, kFirstOnTop);
}

void setPassedOver(Record* record, bool isPassedOver) {
    if (record->isPassedOver != isPassedOver)
        passedOver.fetch_add(isPassedOver ? 1u : 0u - 1, std::memory_order_relaxed);
    record->isPassedOver = isPassedOver;
}

} // namespace

void arrive(VMemManager* manager, Record* record) {
    setPassedOver(record, false);
    record->arrival = ++manager->lastArrival;
    enqueue(manager, record);
}

void depart(Record* record) {
    setPassedOver(record, false);
    record->arrival = 0;
}

void takeBack(VMemManager* manager, Record* record) {
    if (!record->isPassedOver)
        return;
    setPassedOver(record, false);
    enqueue(manager, record);
}

Record* oldestUnlocked(VMemManager* manager) {
    while (manager->queueLength > 0) {
        Record* record = recordAt(manager, manager->queue[0]);
        if (record != nullptr) {
            const uint32_t flags = GlobalFlags(record->handle);
            if (flags == 0 && record->isListed)
                return record;
            if ((flags & GMEM_INVALID_HANDLE) != 0)
                forget(manager, record); // another task has freed it
            else
                setPassedOver(record, true);
        }
        std::pop_heap(manager->queue, manager->queue + manager->queueLength--, kFirstOnTop);
    }
    return nullptr;
}
