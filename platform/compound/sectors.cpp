#include "platform/compound/sectors.h"

namespace compound {

namespace {

// The number of elements from `index` on that follow one another on the disk, as far as `belongs` goes.
template <class Belongs>
uint32_t neighbours(const Array<uint32_t>& sectors, uint32_t index, Belongs belongs) {
    uint32_t count = 1;
    while (index + count < sectors.size() && sectors[index + count] == sectors[index] + count &&
           belongs(index + count))
        count++;
    return count;
}

} // namespace

void Sectors::start(uint32_t sectorShift) {
    unitShift_ = sectorShift;
    table.setPageSize(sectorSize());
    difatChanged_ = true;
}

Moved Sectors::read(uint64_t offset, void* destination, size_t count) {
    return file_.read(positionOf(offset), destination, count);
}

Moved Sectors::write(uint64_t offset, const void* source, size_t count) {
    return file_.write(positionOf(offset), source, count);
}

bool Sectors::secure(uint32_t end) {
    return file_.reserve(positionOf(uint64_t(end) << unitShift_));
}

uint32_t Sectors::inFile() const {
    const uint64_t length = file_.length();
    if (length <= sectorSize())
        return 0;
    return static_cast<uint32_t>(std::min<uint64_t>((length - 1) >> unitShift_,
                                                    kMaxSector)); // the header's place taken off, rounded up
}

uint64_t Sectors::usedBytes() const {
    return positionOf(uint64_t(table.usedEnd()) << unitShift_);
}

// --- Loading -----------------------------------------------------------------------------------------

bool Sectors::load(uint32_t sectorShift, const uint8_t* header) {
    start(sectorShift);
    difatChanged_ = false;
    return loadDifat(header) && loadFat();
}

bool Sectors::loadDifat(const uint8_t* header) {
    const uint32_t most = inFile();
    uint32_t count = load32(header + kFatSectors);
    if (count == 0 || count > most || !fatSectors_.reserve(count))
        return false;
    const auto take = [&](const uint8_t* numbers, uint32_t available) {
        for (uint32_t i = 0; i < available && fatSectors_.size() < count; i++)
            fatSectors_.append(load32(numbers + size_t(i) * 4)); // reserved
    };
    take(header + kHeaderDifat, kHeaderDifatCount);
    Array<uint8_t> page;
    if (fatSectors_.size() < count && !page.resize(sectorSize()))
        return false;
    uint32_t sector = load32(header + kFirstDifat);
    // Each DIFAT sector brings FAT sectors, so a chain that comes round ends too.
    while (fatSectors_.size() < count && sector < most) {
        const Moved moved = read(uint64_t(sector) << unitShift_, page.data(), sectorSize());
        if (moved.failed || !difatSectors_.append(sector))
            return false;
        if (moved.count < sectorSize())
            break;
        take(page.data(), table.perPage() - 1);
        sector = load32(page.data() + sectorSize() - 4);
    }
    // What the DIFAT does not name is not to be found, but counted as far as the file goes.
    count = std::min(count, (most + table.perPage() - 1) / table.perPage());
    while (fatSectors_.size() > count && fatSectors_.back() >= most)
        fatSectors_.shrink(fatSectors_.size() - 1);
    while (fatSectors_.size() < count)
        fatSectors_.append(kFree);
    return true;
}

bool Sectors::loadFat() {
    const auto count = static_cast<uint32_t>(fatSectors_.size());
    const uint32_t most = inFile();
    if (!table.allocatePages(count))
        return false;
    for (uint32_t index = 0; index < count;) {
        const bool inside = fatSectors_[index] < most;
        const uint32_t step = neighbours(fatSectors_, index, [inside](uint32_t) { return inside; });
        Moved moved;
        if (inside)
            moved = read(uint64_t(fatSectors_[index]) << unitShift_, table.page(index),
                         size_t(step) << unitShift_);
        if (moved.failed)
            return false;
        for (uint32_t at = index + static_cast<uint32_t>(moved.count >> unitShift_); at < index + step;
             at++) {
            fatSectors_[at] = kFree;
            table.keepPage(at);
        }
        index += step;
    }
    table.loaded();
    return markFat();
}

// Whether a page has what a FAT has: numbers of sectors and marks, no two neighbours leading to the same sector.
bool Sectors::looksLikeFat(uint32_t index) {
    uint32_t before = kMaxSector;
    for (uint32_t i = 0; i < table.perPage(); i++) {
        const uint32_t value = load32(table.page(index) + size_t(i) * 4);
        if (value < kMaxSector ? value >= table.size() || value == before : value < kKept)
            return false;
        before = value;
    }
    return true;
}

// The FAT and DIFAT sectors are marked as such in the FAT, or they would be given out. Where they are not, either the
// mark is damaged or the number that led there, and what was read is no part of the FAT; nor is a sector that two numbers
// lead to, of which one is damaged.
bool Sectors::markFat() {
    Array<uint8_t> numbers;
    if (!numbers.resize(table.size()))
        return false;
    for (const uint32_t sector : fatSectors_)
        if (sector < table.size())
            numbers[sector] = numbers[sector] == 0 ? 1 : 2;
    for (uint32_t index = 0; index < table.pageCount(); index++) {
        uint32_t& sector = fatSectors_[index];
        const bool known = sector < table.size() && numbers[sector] == 1;
        if (sector == kFree || (known && table.next(sector) == kFatSector))
            continue;
        if (known && looksLikeFat(index)) {
            table.mark({sector, 1}, kFatSector);
            continue;
        }
        table.keep(sector);
        table.keepPage(index);
        sector = kFree;
    }
    for (const uint32_t sector : difatSectors_)
        if (sector >= table.size() || table.next(sector) != kDifatSector) {
            table.keep(sector);
            difatSectors_.shrink(0); // more of the FAT takes a new DIFAT
            break;
        }
    table.loaded();
    return true;
}

// --- Growing -----------------------------------------------------------------------------------------

uint32_t Sectors::difatSectorsFor(uint32_t fatSectors) const {
    if (fatSectors <= kHeaderDifatCount)
        return 0;
    const uint32_t perSector = table.perPage() - 1;
    return (fatSectors - kHeaderDifatCount + perSector - 1) / perSector;
}

bool Sectors::makeFree(uint32_t count) {
    if (table.freeCount() >= count)
        return true;
    const uint32_t missing = count - table.freeCount();
    const auto fatCount = static_cast<uint32_t>(fatSectors_.size());
    const auto difatCount = static_cast<uint32_t>(difatSectors_.size());
    // New FAT sectors describe themselves and new DIFAT sectors too.
    uint32_t pages = missing / table.perPage() + 1;
    uint32_t difats;
    for (;; pages++) {
        difats = difatSectorsFor(fatCount + pages);
        difats -= std::min(difats, difatCount);
        if (uint64_t(pages) * table.perPage() >= uint64_t(missing) + pages + difats)
            break;
    }
    const uint32_t first = table.size();
    const uint32_t end = first + pages + difats;
    if (uint64_t(first) + uint64_t(pages) * table.perPage() > kMaxSector ||
        !secure(end + missing) || // all that are asked for, or a table would stay that nothing is there for
        !fatSectors_.reserve(fatCount + pages) || !difatSectors_.reserve(difatCount + difats) ||
        !table.grow(pages))
        return false;
    table.mark({first, pages}, kFatSector);
    for (uint32_t sector = first; sector < first + pages; sector++)
        fatSectors_.append(sector);
    if (difats > 0)
        table.mark({first + pages, difats}, kDifatSector);
    for (uint32_t sector = first + pages; sector < end; sector++)
        difatSectors_.append(sector);
    difatChanged_ = true;
    return true;
}

// --- Writing back ------------------------------------------------------------------------------------

bool Sectors::flush(uint8_t* header) {
    return flushFat() && (!difatChanged_ || flushDifat(header));
}

bool Sectors::flushFat() {
    for (uint32_t index = 0; index < table.pageCount();) {
        if (!table.isDirty(index)) {
            index++;
            continue;
        }
        const uint32_t step =
            neighbours(fatSectors_, index, [this](uint32_t at) { return table.isDirty(at); });
        const size_t bytes = size_t(step) << unitShift_;
        if (write(uint64_t(fatSectors_[index]) << unitShift_, table.page(index), bytes).count != bytes)
            return false;
        for (const uint32_t end = index + step; index < end; index++)
            table.setClean(index);
    }
    return true;
}

bool Sectors::flushDifat(uint8_t* header) {
    const auto fatCount = static_cast<uint32_t>(fatSectors_.size());
    const auto difatCount = static_cast<uint32_t>(difatSectors_.size());
    uint32_t listed = 0;
    const auto list = [&](uint8_t* numbers, uint32_t room) {
        for (uint32_t i = 0; i < room; i++, listed++)
            store32(numbers + size_t(i) * 4, listed < fatCount ? fatSectors_[listed] : kFree);
    };
    Array<uint8_t> page;
    if (difatCount > 0 && !page.resize(sectorSize()))
        return false;
    list(header + kHeaderDifat, kHeaderDifatCount);
    for (uint32_t index = 0; index < difatCount; index++) {
        list(page.data(), table.perPage() - 1);
        store32(page.data() + sectorSize() - 4,
                index + 1 < difatCount ? difatSectors_[index + 1] : kEndOfChain);
        if (write(uint64_t(difatSectors_[index]) << unitShift_, page.data(), sectorSize()).count !=
            sectorSize())
            return false;
    }
    store32(header + kFatSectors, fatCount);
    store32(header + kFirstDifat, difatCount > 0 ? difatSectors_[0] : kEndOfChain);
    store32(header + kDifatSectors, difatCount);
    difatChanged_ = false;
    return true;
}

} // namespace compound
