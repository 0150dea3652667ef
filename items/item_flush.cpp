// Writing the index to the head of the file, once nothing stands in its way.
#include "items/item_index.h"

#include <kal/heap.h>

#include <algorithm>

namespace {

constexpr uint32_t kNoOffset = 0x7FFFFFFF; // entries from here on stand in no index's way

struct Obstacle {
    uint32_t offset = kNoOffset;
    ItemIndex* entry = nullptr;
};

// The longest entry at the lowest offset, free ones included; the earliest of several alike. Entries without
// bytes stand in nobody's way.
Obstacle lowestItem(IFILE* file) {
    Obstacle lowest;
    uint32_t lowestSize = 0;
    for (uint32_t i = 0; i < file->count; i++) {
        ItemIndex* entry = entryAt(file, i);
        const uint32_t offset = entryOffset(file, entry);
        const uint32_t size = entrySize(file, entry);
        if (size == 0 || offset > lowest.offset || offset == kNoOffset)
            continue;
        if (offset < lowest.offset || size > lowestSize) {
            lowest = {offset, entry};
            lowestSize = size;
        }
    }
    return lowest;
}

void redirect(IFILE* file, uint32_t from, uint32_t to) {
    for (uint32_t i = 0; i < file->count; i++)
        if (entryOffset(file, entryAt(file, i)) == from)
            setEntryOffset(file, entryAt(file, i), to);
}

// Copies the item to the stream's end and lets every entry at its old offset follow. The old bytes stay, so a
// failure costs nothing.
int16_t moveToEnd(IFILE* file, const Obstacle& item) {
    SFILE* stream = file->stream;
    const uint32_t size = entrySize(file, item.entry);
    if (size > KAL_ITEM_MOVE_MAX)
        return KAL_ERR_MEMORY;
    void* buffer = KalAllocSMem(size);
    if (buffer == nullptr)
        return KAL_ERR_MEMORY;
    const int32_t whole = static_cast<int32_t>(size);
    uint32_t end = 0;
    bool moved = KalReadItem(file, item.entry, buffer, size) == whole && seekToEnd(stream);
    if (moved) {
        end = logicalPosition(stream);
        moved = stream->write(stream, buffer, size) == whole;
    }
    KalFreeSMem(buffer);
    if (!moved)
        return stream->status;
    redirect(file, item.offset, end);
    return KAL_OK;
}

// Entries without bytes that lie under the index go where no later data can be taken for theirs.
int16_t placeEmptyItems(IFILE* file, uint32_t indexEnd) {
    uint32_t place = 0;
    for (uint32_t i = 0; i < file->count; i++) {
        ItemIndex* entry = entryAt(file, i);
        if (entrySize(file, entry) != 0 || entryOffset(file, entry) >= indexEnd)
            continue;
        if (place == 0) {
            if (!seekToEnd(file->stream))
                return file->stream->status;
            place = std::max(indexEnd, logicalPosition(file->stream));
        }
        setEntryOffset(file, entry, place);
    }
    return KAL_OK;
}

} // namespace

int16_t KalFlushIFile(IFILE* file) {
    SFILE* stream = file->stream;
    const uint32_t indexBytes = file->count * entryBytes(file);
    const uint32_t indexEnd = kItemHeaderBytes + indexBytes;
    for (Obstacle item = lowestItem(file); indexEnd > item.offset; item = lowestItem(file))
        if (const int16_t status = moveToEnd(file, item); status != KAL_OK)
            return status;
    if (const int16_t status = placeEmptyItems(file, indexEnd); status != KAL_OK)
        return status;

    uint8_t header[kItemHeaderBytes];
    storeLittle(header, uint16_t(file->formatFlags));
    storeLittle(header + 2, uint16_t(file->count));
    if (!seekDespiteFullDisk(stream, 0))
        return stream->status;
    stream->write(stream, header, sizeof header);
    stream->write(stream, file->index, indexBytes);
    return KAL_OK;
}
