#include "platform/compound/mini_sectors.h"

namespace compound {

void MiniSectors::start() {
    table.setPageSize(uint32_t(1) << tableChain_.space().unitShift());
}

bool MiniSectors::load(const uint8_t* header, uint32_t firstOfContainer) {
    start();
    // A chain that makes no sense stays empty: the small streams are then lost, the others not.
    const bool tableChained = tableChain_.load(load32(header + kFirstMiniFat));
    const bool chained = container_.load(firstOfContainer) && tableChained;
    const uint32_t pages = tableChain_.unitCount();
    if (!table.allocatePages(pages))
        return false;
    Moved moved;
    if (pages > 0)
        moved = tableChain_.read(0, table.page(0), static_cast<size_t>(tableChain_.byteCount()));
    const auto whole = static_cast<uint32_t>(moved.count >> tableChain_.space().unitShift());
    for (uint32_t index = whole; index < pages; index++)
        table.keepPage(index);
    table.loaded();
    doubtful_ = !chained || whole < load32(header + kMiniFatSectors) || table.size() < unitsOfContainer();
    return !moved.failed;
}

bool MiniSectors::copyContainer(Chain& fresh) {
    if (!buffer_.flush() || !fresh.extendTo(container_.unitCount()))
        return false;
    uint8_t bytes[4096];
    for (uint64_t at = 0; at < fresh.byteCount(); at += sizeof bytes) {
        const Moved got = container_.read(at, bytes, sizeof bytes); // short where the file is
        if (got.failed || fresh.write(at, bytes, got.count).count != got.count)
            return false;
    }
    return true;
}

// What the old sectors hold may be of something else: they are left as they are.
bool MiniSectors::startOver() {
    const uint32_t units = std::max(table.size(), unitsOfContainer());
    const uint32_t pages = (units + table.perPage() - 1) / table.perPage();
    Chain freshTable(tableChain_.space());
    Chain freshContainer(tableChain_.space());
    if (!freshTable.extendTo(pages) || !copyContainer(freshContainer) ||
        !table.grow(pages - table.pageCount())) {
        freshTable.cutTo(0);
        freshContainer.cutTo(0);
        return false;
    }
    tableChain_.swap(freshTable);
    container_.swap(freshContainer);
    table.keepFree();
    table.setAllDirty();
    doubtful_ = false;
    return true;
}

bool MiniSectors::flush(uint8_t* header) {
    if (!buffer_.flush())
        return false;
    const uint32_t shift = tableChain_.space().unitShift();
    for (uint32_t index = 0; index < table.pageCount();) {
        uint32_t step = 0;
        while (index + step < table.pageCount() && table.isDirty(index + step))
            step++;
        const size_t bytes = size_t(step) << shift;
        if (tableChain_.write(uint64_t(index) << shift, table.page(index), bytes).count != bytes)
            return false;
        for (const uint32_t end = index + step; index < end; index++)
            table.setClean(index);
        index++;
    }
    store32(header + kFirstMiniFat, tableChain_.first());
    store32(header + kMiniFatSectors, tableChain_.unitCount());
    return true;
}

void MiniSectors::freeReleased() {
    table.freeReleased();
    container_.cutTo(container_.space().unitsFor(usedBytes()));
}

Moved MiniSectors::read(uint64_t offset, void* destination, size_t count) {
    return buffer_.read(offset, destination, count);
}

Moved MiniSectors::write(uint64_t offset, const void* source, size_t count) {
    return buffer_.write(offset, source, count);
}

bool MiniSectors::makeFree(uint32_t count) {
    if (!prepare())
        return false;
    if (table.freeCount() >= count)
        return true;
    const uint32_t before = tableChain_.unitCount();
    const uint32_t pages = (count - table.freeCount() + table.perPage() - 1) / table.perPage();
    if (!tableChain_.extendAhead(before + pages))
        return false;
    if (table.grow(tableChain_.unitCount() - before))
        return true;
    tableChain_.cutTo(before);
    return false;
}

bool MiniSectors::secure(uint32_t end) {
    return container_.extendAhead(container_.space().unitsFor(uint64_t(end) << kMiniShift));
}

} // namespace compound
