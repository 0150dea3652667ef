#include "platform/compound/table.h"

namespace compound {

void AllocationTable::store(uint32_t unit, uint32_t value) {
    freeCount_ -= next(unit) == kFree ? 1 : 0;
    store32(bytes_.data() + size_t(unit) * 4, value);
}

void AllocationTable::setDirty(Span span) {
    for (uint32_t page = span.first / perPage(); page <= (span.first + span.count - 1) / perPage(); page++)
        dirty_[page] = 1;
}

void AllocationTable::link(Span span, uint32_t next) {
    const uint32_t last = span.first + span.count - 1;
    for (uint32_t unit = span.first; unit < last; unit++)
        store(unit, unit + 1);
    store(last, next);
    setDirty(span);
}

void AllocationTable::mark(Span span, uint32_t value) {
    for (uint32_t unit = span.first; unit < span.first + span.count; unit++)
        store(unit, value);
    setDirty(span);
}

void AllocationTable::setFree(uint32_t unit) {
    store(unit, kFree);
    freeCount_++;
    firstFree_ = std::min(firstFree_, unit);
    states_[unit] = kFresh;
    setDirty({unit, 1});
}

void AllocationTable::release(Span span) {
    for (uint32_t unit = span.first; unit < span.first + span.count; unit++) {
        if (states_[unit] == kFresh)
            setFree(unit);
        else if (states_[unit] == kStored)
            states_[unit] = kReleased, releasedCount_++;
    }
}

void AllocationTable::freeReleased() {
    for (uint32_t unit = 0; releasedCount_ > 0; unit++)
        if (states_[unit] == kReleased)
            setFree(unit), releasedCount_--;
}

void AllocationTable::setClean(uint32_t page) {
    dirty_[page] = 0;
    for (uint32_t unit = page * perPage(); unit < (page + 1) * perPage(); unit++)
        if (states_[unit] != kReleased)
            states_[unit] = next(unit) == kFree ? kFresh : kStored;
}

Span AllocationTable::findFree(uint32_t from, uint32_t most) {
    uint32_t unit = std::max(from, firstFree_);
    while (unit < size() && next(unit) != kFree)
        unit++;
    if (from <= firstFree_)
        firstFree_ = unit;
    Span span = {unit, 0};
    while (span.count < most && unit < size() && next(unit) == kFree) {
        span.count++;
        unit++;
    }
    return span;
}

bool AllocationTable::allocatePages(uint32_t pages) {
    return bytes_.resize(uint64_t(pages) * pageSize_) && dirty_.resize(pages) && states_.resize(size());
}

bool AllocationTable::grow(uint32_t pages) {
    if (pages == 0)
        return true;
    const uint32_t before = pageCount();
    if (!bytes_.resize(uint64_t(before + pages) * pageSize_))
        return false;
    if (!dirty_.reserve(before + pages) || !states_.resize(size())) {
        bytes_.shrink(size_t(before) * pageSize_);
        return false;
    }
    dirty_.resize(before + pages);
    std::memset(page(before), 0xFF, size_t(pages) * pageSize_);
    std::memset(dirty_.data() + before, 1, pages);
    freeCount_ += pages * perPage();
    return true;
}

void AllocationTable::loaded() {
    freeCount_ = 0;
    for (uint32_t unit = 0; unit < size(); unit++)
        freeCount_ += next(unit) == kFree ? 1 : 0;
    for (uint32_t page = 0; page < pageCount(); page++)
        setClean(page);
}

void AllocationTable::keep(uint32_t unit) {
    if (unit < size() && next(unit) == kFree)
        mark({unit, 1}, kKept);
}

void AllocationTable::keepFree() {
    for (uint32_t unit = 0; freeCount_ > 0; unit++)
        keep(unit);
    placed_ = size();
}

void AllocationTable::keepPage(uint32_t index) {
    for (uint32_t i = 0; i < perPage(); i++)
        store32(page(index) + size_t(i) * 4, kKept);
}

void AllocationTable::endLooseChains(uint32_t limit) {
    placed_ = limit;
    for (uint32_t unit = 0; unit < size(); unit++) {
        const uint32_t after = next(unit);
        if (after < kMaxSector && after >= limit)
            link({unit, 1}, kEndOfChain);
        else
            keep(after);
    }
}

uint32_t AllocationTable::usedEnd() const {
    uint32_t end = size();
    while (end > 0 && (next(end - 1) == kFree || states_[end - 1] == kReleased ||
                       (next(end - 1) == kKept && end > placed_)))
        end--;
    return end;
}

} // namespace compound
