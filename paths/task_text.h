// Texts that a task keeps in its data slots.
#ifndef KAL_PATHS_TASK_TEXT_H
#define KAL_PATHS_TASK_TEXT_H

#include <kal/heap.h>

#include <cstring>

enum TaskSlot : uint16_t {
    kSlotSearchText = 2,
    kSlotTempDirectory = 3,
    kSlotHomeName = 17,
};

inline char* taskText(TaskSlot slot) {
    return static_cast<char*>(KalGetTaskData(slot));
}

// Frees the slot's text and empties the slot. A text that is not of the heap was lent, and stays its owner's:
// the heap refuses it.
inline void dropTaskText(TaskSlot slot) {
    if (void* text = KalGetTaskData(slot))
        KalFreeSMem(text);
    KalRemoveTaskData(slot);
}

// A block for `length` characters, all 0.
inline char* allocText(size_t length) {
    return length < UINT32_MAX ? static_cast<char*>(KalAllocSMem(static_cast<uint32_t>(length + 1)))
                               : nullptr;
}

#endif
