// An allocation table, FAT or mini FAT: one number a unit, which names the next unit of its chain, or says
// that the chain ends there or that the unit is free. Kept as the file has it, in pages of one sector.
//
// A unit that the stored table has in use is not handed out again before the file has stopped to speak of it:
// release() leaves it as it is until freeReleased(). Until then a file that was cut off in the middle still holds
// all that it held.
#ifndef KAL_PLATFORM_COMPOUND_TABLE_H
#define KAL_PLATFORM_COMPOUND_TABLE_H

#include "platform/array.h"
#include "platform/compound/format.h"

namespace compound {

// Units that follow one another.
struct Span {
    uint32_t first = 0;
    uint32_t count = 0;
};

class AllocationTable {
public:
    void setPageSize(uint32_t bytes) { pageSize_ = bytes; }
    uint32_t perPage() const { return pageSize_ / 4; }

    // The number of units.
    uint32_t size() const { return static_cast<uint32_t>(bytes_.size() / 4); }
    uint32_t pageCount() const { return static_cast<uint32_t>(dirty_.size()); }
    uint32_t freeCount() const { return freeCount_; }

    uint32_t next(uint32_t unit) const { return load32(bytes_.data() + size_t(unit) * 4); }
    // Chains the span's units, which are not none, the last one to `next`.
    void link(Span span, uint32_t next);
    // Gives each unit of the span one value, which is not kFree.
    void mark(Span span, uint32_t value);
    void release(Span span);
    // Makes the units that were released free. The directory in the file no longer leads to them.
    void freeReleased();

    // What a damaged file may still have something in is kept: the unit, if it is free, all that are free, all of a page
    // that cannot be trusted. Such a page is never written.
    void keep(uint32_t unit);
    void keepFree();
    void keepPage(uint32_t index);

    // The first free units from `from` on that follow one another, at most `most`. A count of 0: none.
    Span findFree(uint32_t from, uint32_t most);

    // Appends pages of free units.
    bool grow(uint32_t pages);

    // For loading: pages as the file has them are put into pages(), then counted.
    bool allocatePages(uint32_t pages);
    uint8_t* page(uint32_t index) { return bytes_.data() + size_t(index) * pageSize_; }
    void loaded();
    // Keeps the free units that chains lead to, and ends chains that lead to units from `limit` on, which have no place:
    // another stream may come to own those.
    void endLooseChains(uint32_t limit);

    // One past the last unit that is neither free nor released, and that has a place if it is kept.
    uint32_t usedEnd() const;

    void setAllDirty() { std::fill(dirty_.begin(), dirty_.end(), uint8_t(1)); }
    bool isDirty(uint32_t page) const { return dirty_[page] != 0; }
    void setClean(uint32_t page);

private:
    enum State : uint8_t { kFresh, kStored, kReleased }; // kStored: in use in the file's table
    void store(uint32_t unit, uint32_t value);
    void setFree(uint32_t unit);
    void setDirty(Span span);

    Array<uint8_t> bytes_;
    Array<uint8_t> dirty_;  // a flag a page
    Array<uint8_t> states_; // a State a unit
    uint32_t pageSize_ = 512;
    uint32_t freeCount_ = 0;
    uint32_t releasedCount_ = 0;
    uint32_t firstFree_ = 0; // no unit before it is free
    uint32_t placed_ = 0;    // kept units from here on have no place
};

} // namespace compound

#endif
