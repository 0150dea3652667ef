#include "platform/registry/handles.h"

#include "platform/heap_faults.h"

#include <cstdlib>

namespace {

// A handle: how often its entry was used, then the entry's number; the top bit marks the key that is always
// open.
constexpr uint32_t kIndexBits = 20;
constexpr uint32_t kMostEntries = 1 << kIndexBits;
constexpr uint32_t kUses = (1u << (31 - kIndexBits)) - 1;

} // namespace

HKEY HandleTable::open(RegistryStore* store, KeyNode* node) {
    if (firstFree_ == 0) {
        if (count_ == room_) {
            const uint32_t room = room_ == 0 ? 64 : room_ * 2;
            void* moved = room > kMostEntries || heapFaultDue()
                              ? nullptr
                              : std::realloc(entries_, room * sizeof(OpenKey));
            if (moved == nullptr)
                return nullptr;
            entries_ = static_cast<OpenKey*>(moved);
            room_ = room;
            if (count_ == 0)
                entries_[count_++] = {};
        }
        entries_[count_] = {};
        firstFree_ = count_++;
    }
    const uint32_t index = firstFree_;
    OpenKey& entry = entries_[index];
    firstFree_ = entry.nextFree;
    entry.store = store;
    entry.node = node;
    return reinterpret_cast<HKEY>(uintptr_t{(entry.uses & kUses) << kIndexBits | index});
}

OpenKey* HandleTable::find(HKEY handle) {
    const auto number = reinterpret_cast<uintptr_t>(handle);
    const auto index = static_cast<uint32_t>(number & (kMostEntries - 1));
    if (index >= count_ || number >> kIndexBits != (entries_[index].uses & kUses))
        return nullptr;
    return entries_[index].store != nullptr ? &entries_[index] : nullptr;
}

void HandleTable::close(OpenKey* entry) {
    entry->store = nullptr;
    entry->uses++;
    entry->nextFree = firstFree_;
    firstFree_ = static_cast<uint32_t>(entry - entries_);
}
