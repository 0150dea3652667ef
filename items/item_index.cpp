// Finding, adding and sizing entries of the index.
#include "items/item_index.h"

#include <kal/heap.h>

namespace {

template <class Entry>
ItemIndex* findEntry(IFILE* file, uint16_t id) {
    uint8_t* entry = entryField(file->index, 0);
    uint32_t left = file->count;
    const auto matches = [&](size_t ahead) {
        return loadLittle<uint16_t>(entry + ahead * sizeof(Entry)) == id;
    };
    // Four entries at a time as long as none of them is the one.
    for (; left >= 4 && !(matches(0) || matches(1) || matches(2) || matches(3)); left -= 4)
        entry += 4 * sizeof(Entry);
    for (; left > 0; left--, entry += sizeof(Entry))
        if (matches(0))
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
