// Writing and reading items.
#include "items/item_index.h"

#include <kal/heap.h>

#include <algorithm>

namespace {

constexpr uint32_t kNarrowSizeMax = UINT16_MAX;

// Below this size an item is read without asking first whether the stream can hold it.
constexpr uint32_t kUnaskedSize = 65536;

uint32_t asCount(int32_t result) {
    return result > 0 ? static_cast<uint32_t>(result) : 0;
}

// The smallest free extent that holds `length` bytes, the earliest of several alike. The extent of `replaced`
// counts as free.
ItemIndex* bestFit(IFILE* file, uint32_t length, const ItemIndex* replaced) {
    ItemIndex* best = nullptr;
    uint32_t bestSize = 0;
    for (uint32_t i = 0; i < file->count; i++) {
        ItemIndex* entry = entryAt(file, i);
        if (entryId(entry) != KAL_ITEM_FREE && entry != replaced)
            continue;
        const uint32_t size = entrySize(file, entry);
        if (size >= length && (best == nullptr || size < bestSize) &&
            mayBeSought(file->stream, entryOffset(file, entry))) {
            best = entry;
            bestSize = size;
        }
    }
    return best;
}

bool sharesAByte(uint64_t start, uint64_t end, uint64_t otherStart, uint64_t otherEnd) {
    return start < end && otherStart < otherEnd && start < otherEnd && otherStart < end;
}

bool isTaken(IFILE* file, uint64_t start, uint64_t end) {
    for (uint32_t i = 0; i < file->count; i++) {
        const ItemIndex* entry = entryAt(file, i);
        const uint64_t offset = entryOffset(file, entry);
        if (sharesAByte(start, end, offset, offset + entrySize(file, entry)))
            return true;
    }
    return false;
}

// Whether `entry` lies within the stream: what a stored size says is not believed before memory is asked for.
bool isWithinStream(IFILE* file, const ItemIndex* entry) {
    forgetFullDisk(file->stream);
    return seekToEnd(file->stream) &&
           uint64_t(entryOffset(file, entry)) + entrySize(file, entry) <= logicalPosition(file->stream);
}

// What KalWriteItem writes of an item whose size was set to `length`.
uint32_t storedLength(const IFILE* file, uint32_t length) {
    return isWide(file) ? length : length & kNarrowSizeMax;
}

// Writes the item into a free extent, or into the one of the item that it replaces.
uint32_t writeIntoExtent(IFILE* file, ItemIndex* entry, ItemIndex* replaced, const void* data,
                         uint32_t length, uint16_t id) {
    const uint32_t extent = entrySize(file, entry);
    setEntryId(entry, id);
    setEntrySize(file, entry, length);
    const uint32_t written = asCount(KalWriteItem(file, entry, data));
    if (entry == replaced)
        return written;
    if (written < storedLength(file, length)) { // the old item stands, and the extent is free again
        setEntryId(entry, KAL_ITEM_FREE);
        setEntrySize(file, entry, extent);
    } else if (replaced != nullptr) {
        setEntryId(replaced, KAL_ITEM_FREE);
    }
    return written;
}

// Writes the item at the stream's end under a new entry.
uint32_t writeAtEnd(IFILE* file, const void* data, uint32_t length, uint16_t id, bool replaces) {
    ItemIndex* entry = KalAppendItemIndex(file);
    if (entry == nullptr)
        return 0;
    if (!seekToEnd(file->stream)) {
        file->count--;
        return 0;
    }
    setEntryId(entry, id);
    setEntryOffset(file, entry, logicalPosition(file->stream));
    setEntrySize(file, entry, length);
    const uint32_t written = asCount(KalWriteItem(file, entry, data));
    if (written < storedLength(file, length))
        file->count--; // the old item stands
    else if (replaces)
        setEntryId(KalFindItem(file, id), KAL_ITEM_FREE); // the first of that id is the old one
    return written;
}

} // namespace

int32_t KalWriteItem(IFILE* file, ItemIndex* entry, const void* data) {
    if (!seekTo(file->stream, entryOffset(file, entry)))
        return 0;
    return file->stream->write(file->stream, data, entrySize(file, entry));
}

int32_t KalReadItem(IFILE* file, ItemIndex* entry, void* destination, uint32_t size) {
    if (!seekToStored(file->stream, entryOffset(file, entry)))
        return 0;
    return file->stream->read(file->stream, destination, std::min(size, entrySize(file, entry)));
}

uint32_t KalIncReadItem(IFILE* file, ItemIndex* entry, void* destination, uint32_t count) {
    SFILE* stream = file->stream;
    const uint32_t position = logicalPosition(stream);
    const uint32_t start = entryOffset(file, entry);
    const uint32_t size = entrySize(file, entry);
    if (position <= start || position > uint64_t(start) + size)
        return asCount(KalReadItem(file, entry, destination, count));
    return asCount(stream->read(stream, destination, std::min(size - (position - start), count)));
}

uint32_t KalWriteIFile(IFILE* file, const void* data, uint32_t length, uint16_t id) {
    if (id == KAL_ITEM_FREE)
        return 0;
    ItemIndex* old = KalFindItem(file, id);
    ItemIndex* extent = bestFit(file, length, old);
    return extent != nullptr ? writeIntoExtent(file, extent, old, data, length, id)
                             : writeAtEnd(file, data, length, id, old != nullptr);
}

uint32_t KalAddIFile(IFILE* file, const void* data, uint32_t length, uint16_t id) {
    ItemIndex* entry = KalFindItem(file, id);
    if (entry == nullptr || id == KAL_ITEM_FREE)
        return KalWriteIFile(file, data, length, id);
    const uint32_t size = entrySize(file, entry);
    const uint64_t start = uint64_t(entryOffset(file, entry)) + size;
    const uint64_t end = start + length;
    const uint64_t sizeMax = isWide(file) ? UINT32_MAX : kNarrowSizeMax;
    if (uint64_t(size) + length > sizeMax || end > UINT32_MAX || isTaken(file, start, end))
        return 0;
    if (!mayBeSought(file->stream, static_cast<uint32_t>(start)) ||
        !seekTo(file->stream, static_cast<uint32_t>(start)))
        return 0;
    const uint32_t written = asCount(file->stream->write(file->stream, data, length));
    if (written == length)
        setEntrySize(file, entry, size + length);
    return written;
}

uint32_t KalReadIFile(IFILE* file, void* destination, uint32_t size, uint16_t id) {
    ItemIndex* entry = KalFindItem(file, id);
    return entry != nullptr ? asCount(KalReadItem(file, entry, destination, size)) : 0;
}

uint32_t KalIncReadIFile(IFILE* file, void* destination, uint32_t count, uint16_t id) {
    ItemIndex* entry = KalFindItem(file, id);
    return entry != nullptr ? KalIncReadItem(file, entry, destination, count) : 0;
}

char* KalGetItem(IFILE* file, uint16_t id, int32_t* size) {
    ItemIndex* entry = KalFindItem(file, id);
    if (entry == nullptr)
        return nullptr;
    const uint32_t bytes = entrySize(file, entry);
    if (bytes > kUnaskedSize && !isWithinStream(file, entry))
        return nullptr;
    auto* block = static_cast<char*>(KalAllocSMem(bytes));
    if (block == nullptr)
        return nullptr;
    if (asCount(KalReadItem(file, entry, block, bytes)) != bytes) {
        KalFreeSMem(block);
        return nullptr;
    }
    *size = static_cast<int32_t>(bytes);
    return block;
}
