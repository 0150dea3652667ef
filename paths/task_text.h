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

// Puts a text into the slot, or none, and frees the one that was there; only then, since a caller may have made
// the new one from it. A text that is not of the heap was lent, and stays its owner's: the heap refuses it.
inline void replaceTaskText(TaskSlot slot, char* text) {
    void* before = KalGetTaskData(slot);
    if (text != nullptr)
        KalSetTaskData(text, slot);
    else
        KalRemoveTaskData(slot);
    if (before != nullptr)
        KalFreeSMem(before);
}

// A block for `length` characters, all 0.
inline char* allocText(size_t length) {
    return length < UINT32_MAX ? static_cast<char*>(KalAllocSMem(static_cast<uint32_t>(length + 1)))
                               : nullptr;
}

#endif
