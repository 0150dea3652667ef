// Grouped allocations, and allocations of as much as the heap has.
#include <kal/memory.h>

#include <kal/heap.h>

namespace {

enum Kind : uint32_t { kPlain = 1, kSmall = 2 };

void* groupAlloc(listhd** group, uint32_t size, Kind kind) {
    if (group == nullptr)
        return nullptr;
    if (*group == nullptr) {
        *group = KalCreateList();
        if (*group == nullptr)
            return nullptr;
    }
    auto* entry = static_cast<KalGroupEntry*>(KalCreateNode(sizeof(KalGroupEntry)));
    if (entry == nullptr)
        return nullptr;
    void* block = KalAllocSMem(size);
    if (block == nullptr) {
        KalDestroyNode(entry);
        return nullptr;
    }
    entry->kind = kind;
    entry->block = block;
    KalAddTail(*group, entry);
    return block;
}

} // namespace

void* KalGroupMem(listhd** group, uint32_t size) {
    return groupAlloc(group, size, kPlain);
}

void* KalGroupSMem(listhd** group, uint32_t size) {
    return groupAlloc(group, size, kSmall);
}

void KalGroupFree(listhd** group) {
    if (group == nullptr || *group == nullptr)
        return;
    while (void* node = KalDeleteHead(*group)) {
        KalFreeSMem(static_cast<KalGroupEntry*>(node)->block);
        KalDestroyNode(node);
    }
    KalDestroyList(*group);
    *group = nullptr;
}

void* KalAsMuchMem(uint32_t* size) {
    return KalAsMuchSMem(size);
}

void* KalAsMuchSMem(uint32_t* size) {
    constexpr uint32_t kSmallestHalved = 128;
    void* block = KalAllocSMem(*size);
    while (block == nullptr && *size >= kSmallestHalved) {
        *size >>= 1;
        block = KalAllocSMem(*size);
    }
    return block;
}
