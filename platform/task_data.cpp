// Task data: one pointer a slot for each thread.
#include <kal/heap.h>

namespace {

constexpr uint16_t kSlots = 32;
thread_local void* slots[kSlots];

} // namespace

void* KalGetTaskData(uint16_t slot) {
    return slot < kSlots ? slots[slot] : nullptr;
}

void KalSetTaskData(void* data, uint16_t slot) {
    if (slot < kSlots)
        slots[slot] = data;
}

void KalRemoveTaskData(uint16_t slot) {
    KalSetTaskData(nullptr, slot);
}
