// Finding, adding and sizing entries of the index.
#include "items/item_index.h"

#include <kal/heap.h>

namespace {

template <class Entry>
ItemIndex* findEntry(IFILE* file, uint16_t id) {
    uint8_t* entry = entryField(file->index, 0);
    for (uint32_t left = file->count; left > 0; left--, entry += sizeof(Entry))
        if (loadLittle<uint16_t>(entry) == id)
            return reinterpret_cast<ItemIndex*>(entry);
    return nullptr;
}

} // namespace

ItemIndex* KalFindItem(IFILE* file, uint16_t id) {
    return isWide(file) ? findEntry<ItemIndexWide>(file, id) : findEntry<ItemIndexNarrow>(file, id);
}

int32_t KalGetItemSize(IFILE* file, uint16_t id) {
    const ItemIndex* entry = KalFindItem(file, id);
    return entry != nullptr ? static_cast<int32_t>(entrySize(file, entry)) : -1;
}

ItemIndex* KalAppendItemIndex(IFILE* file) {
    if (file->count >= mostEntries(file))
        return nullptr;
    if (file->count == file->capacity) {
        const uint32_t capacity = uint32_t(file->capacity) + kSpareEntries;
        void* index = KalReAllocSMem(file->index, capacity * entryBytes(file));
        if (index == nullptr)
            return nullptr;
        file->index = static_cast<ItemIndex*>(index);
        file->capacity = static_cast<uint16_t>(capacity);
    }
    return entryAt(file, file->count++);
}
