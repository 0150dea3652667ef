#include "items/stored_index.h"

#include "items/item_index.h"

#include <kal/heap.h>

#include <algorithm>

StoredIndex::~StoredIndex() {
    if (entries_ != nullptr)
        KalFreeSMem(entries_);
}

int16_t StoredIndex::verify(SFILE* stream, FaultCount& faults) {
    const int16_t status = load(stream, faults);
    if (status == KAL_OK) {
        verifyExtents(faults);
        dropRepeated(faults);
    }
    return status;
}

int16_t StoredIndex::load(SFILE* stream, FaultCount& faults) {
    if (!seekToEnd(stream))
        return stream->status;
    fileBytes_ = logicalPosition(stream);
    if (!seekTo(stream, 0))
        return stream->status;
    uint8_t header[kItemHeaderBytes];
    if (fileBytes_ < sizeof header) {
        faults.tell(fileBytes_, KAL_FAULT_OF_FILE, "the file ends inside its header");
        return KAL_OK;
    }
    if (stream->read(stream, header, sizeof header) != static_cast<int32_t>(sizeof header))
        return stream->status;
    formatFlags_ = loadLittle<uint16_t>(header);
    const uint32_t told = loadLittle<uint16_t>(header + 2);
    const bool wide = (formatFlags_ & KAL_ITEMS_WIDE) != 0;
    entryBytes_ = wide ? sizeof(ItemIndexWide) : sizeof(ItemIndexNarrow);
    if (told > (wide ? KAL_ITEMS_MAX_WIDE : KAL_ITEMS_MAX_NARROW))
        faults.tell(2, KAL_FAULT_OF_FILE, "the index has more entries than a file can be opened with");
    const uint32_t stored = std::min<uint32_t>(told, (fileBytes_ - kItemHeaderBytes) / entryBytes_);
    if (stored < told)
        faults.tell(fileBytes_, KAL_FAULT_OF_FILE, "the file ends inside its index");
    indexEnd_ = kItemHeaderBytes + stored * entryBytes_;
    return stored > 0 ? loadEntries(stream, stored) : int16_t(KAL_OK);
}

// Takes the entries that are not free.
int16_t StoredIndex::loadEntries(SFILE* stream, uint32_t stored) {
    entries_ = static_cast<StoredEntry*>(KalAllocSMem(stored * uint32_t(sizeof(StoredEntry))));
    if (entries_ == nullptr)
        return KAL_ERR_BUFFER;
    IFILE form = {};
    form.formatFlags = formatFlags_;
    for (uint32_t number = 0; number < stored; number++) {
        ItemIndex entry;
        if (stream->read(stream, &entry, entryBytes_) != static_cast<int32_t>(entryBytes_))
            return stream->status;
        if (entryId(&entry) != KAL_ITEM_FREE)
            entries_[count_++] = {number, entryOffset(&form, &entry), entrySize(&form, &entry),
                                  entryId(&entry)};
    }
    return KAL_OK;
}

uint64_t StoredIndex::placeOf(const StoredEntry& entry) const {
    return kItemHeaderBytes + uint64_t(entry.number) * entryBytes_;
}

// Each extent must lie between the index and the file's end, outside all others. One without bytes lies nowhere.
void StoredIndex::verifyExtents(FaultCount& faults) {
    std::sort(entries_, entries_ + count_, [](const StoredEntry& left, const StoredEntry& right) {
        return left.offset != right.offset ? left.offset < right.offset : left.number < right.number;
    });
    uint64_t taken = 0;
    for (const StoredEntry& entry : *this) {
        const uint64_t end = uint64_t(entry.offset) + entry.size;
        if (entry.size == 0)
            continue;
        if (entry.offset < indexEnd_)
            faults.tell(placeOf(entry), entry.id, "it lies in the index");
        if (end > fileBytes_)
            faults.tell(placeOf(entry), entry.id, "it runs past the end of the file");
        if (entry.offset < taken)
            faults.tell(placeOf(entry), entry.id, "it lies in the bytes of another item");
        taken = std::max(taken, end);
    }
}

void StoredIndex::dropRepeated(FaultCount& faults) {
    std::sort(entries_, entries_ + count_, [](const StoredEntry& left, const StoredEntry& right) {
        return left.id != right.id ? left.id < right.id : left.number < right.number;
    });
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count_; i++) {
        if (kept > 0 && entries_[kept - 1].id == entries_[i].id)
            faults.tell(placeOf(entries_[i]), entries_[i].id,
                        "an entry before it has the same id and hides it");
        else
            entries_[kept++] = entries_[i];
    }
    count_ = kept;
}

int32_t KalVerifyIFile(SFILE* stream, FaultSink& sink) {
    FaultCount faults(sink);
    StoredIndex index;
    return faults.result(index.verify(stream, faults));
}

int32_t KalVerifyResources(SFILE* stream, FaultSink& sink) {
    FaultCount faults(sink);
    StoredIndex index;
    const int16_t status = index.verify(stream, faults);
    for (const StoredEntry& entry : index)
        if (status == KAL_OK && entry.size > UINT16_MAX)
            faults.tell(index.placeOf(entry), entry.id, "it has more bytes than a resource can have");
    return faults.result(status);
}
