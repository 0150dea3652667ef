// The index of an item file as it stands in a stream, of which nothing is believed.
#ifndef KAL_ITEMS_STORED_INDEX_H
#define KAL_ITEMS_STORED_INDEX_H

#include "platform/fault_count.h"

#include <kal/stream.h>

struct StoredEntry {
    uint32_t number; // its place in the index
    uint32_t offset; // logical position of the item's first byte
    uint32_t size;   // bytes; in a narrow file those of a list may be more by a multiple of 65,536
    uint16_t id;
};

class StoredIndex {
public:
    StoredIndex() = default;
    ~StoredIndex();
    StoredIndex(const StoredIndex&) = delete;
    StoredIndex& operator=(const StoredIndex&) = delete;

    // Reads what there is and tells its faults. KAL_ERR_BUFFER, or the stream's status when it cannot be read.
    int16_t verify(SFILE* stream, FaultCount& faults);

    uint16_t formatFlags() const { return formatFlags_; }
    uint32_t fileBytes() const { return fileBytes_; } // from the stream's base offset on
    uint64_t placeOf(const StoredEntry& entry) const; // of the entry itself

    // The entries that are not free, the first of each id alone, by ids.
    const StoredEntry* begin() const { return entries_; }
    const StoredEntry* end() const { return entries_ + count_; }

private:
    int16_t load(SFILE* stream, FaultCount& faults);
    int16_t loadEntries(SFILE* stream, uint32_t stored);
    void verifyExtents(FaultCount& faults);
    void dropRepeated(FaultCount& faults);

    StoredEntry* entries_ = nullptr;
    uint32_t count_ = 0;
    uint32_t entryBytes_ = 0;
    uint32_t indexEnd_ = 0;
    uint32_t fileBytes_ = 0;
    uint16_t formatFlags_ = 0;
};

#endif
