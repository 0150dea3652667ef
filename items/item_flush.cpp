// Writing the index to the head of the file, once nothing stands in its way.
#include "items/item_index.h"

#include <kal/heap.h>

#include <algorithm>
#include <cstring>

namespace {

struct Obstacle {
    uint32_t offset = UINT32_MAX; // which stands in no index's way
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
        if (size == 0 || offset > lowest.offset)
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

bool copyBytes(SFILE* stream, uint32_t from, uint32_t to, void* buffer, uint32_t count) {
    const int32_t whole = static_cast<int32_t>(count);
    return seekDespiteFullDisk(stream, from) && stream->read(stream, buffer, count) == whole &&
           seekTo(stream, to) && stream->write(stream, buffer, count) == whole;
}

// Copies the item to the stream's end, in pieces, and lets every entry at its old offset follow. The old bytes stay, so
// a failure costs nothing.
int16_t moveToEnd(IFILE* file, const Obstacle& item) {
    SFILE* stream = file->stream;
    const uint32_t size = entrySize(file, item.entry);
    forgetFullDisk(stream);
    if (!seekToEnd(stream))
        return stream->status;
    const uint32_t end = logicalPosition(stream);
    if (uint64_t(item.offset) + size > end)
        return KAL_ERR_SHORT_READ;
    void* buffer = KalAllocSMem(std::min(size, KAL_ITEM_MOVE_MAX));
    if (buffer == nullptr)
        return KAL_ERR_MEMORY;
    bool moved = true;
    for (uint32_t done = 0; moved && done < size;) {
        const uint32_t piece = std::min(size - done, KAL_ITEM_MOVE_MAX);
        moved = copyBytes(stream, item.offset + done, end + done, buffer, piece);
        done += piece;
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

uint32_t indexEnd(const IFILE* file, uint32_t entries) {
    return kItemHeaderBytes + entries * entryBytes(file);
}

// Moves all items of at most `largest` bytes that stand before `end`; a larger one there is a failure.
int16_t makeRoom(IFILE* file, uint32_t end, uint32_t largest) {
    for (Obstacle item = lowestItem(file); end > item.offset; item = lowestItem(file)) {
        const int16_t status =
            entrySize(file, item.entry) <= largest ? moveToEnd(file, item) : int16_t(KAL_ERR_MEMORY);
        if (status != KAL_OK)
            return status;
    }
    return placeEmptyItems(file, end);
}

// Makes the stream reach `end`. In an index that was cut short while it was written, these bytes read as free entries.
int16_t fillTo(SFILE* stream, uint32_t end) {
    uint8_t filler[512];
    std::memset(filler, 0xFF, sizeof filler);
    forgetFullDisk(stream);
    if (!seekToEnd(stream))
        return stream->status;
    while (logicalPosition(stream) < end) {
        const uint32_t count = std::min<uint32_t>(end - logicalPosition(stream), sizeof filler);
        if (stream->write(stream, filler, count) != static_cast<int32_t>(count))
            return stream->status;
    }
    return KAL_OK;
}

} // namespace

int16_t KalFlushIFile(IFILE* file) {
    SFILE* stream = file->stream;
    if (const int16_t status = makeRoom(file, indexEnd(file, file->count), KAL_ITEM_MOVE_MAX);
        status != KAL_OK)
        return status;

    uint8_t header[kItemHeaderBytes];
    storeLittle(header, uint16_t(file->formatFlags));
    storeLittle(header + 2, uint16_t(file->count));
    if (!seekDespiteFullDisk(stream, 0))
        return stream->status;
    stream->write(stream, header, sizeof header);
    if (file->count > 0)
        stream->write(stream, file->index, file->count * entryBytes(file));
    return KAL_OK;
}

int16_t flushWhole(IFILE* file) {
    const int16_t status = KalFlushIFile(file);
    return status != KAL_OK ? status : file->stream->status;
}

int16_t KalReserveItems(IFILE* file, uint16_t entries) {
    if (entries > mostEntries(file))
        return KAL_ERR_BUFFER;
    const uint32_t end = indexEnd(file, std::max(entries, uint16_t(file->count)));
    int16_t status = fillTo(file->stream, end);
    if (status == KAL_OK)
        status = makeRoom(file, end, UINT32_MAX);
    return status != KAL_OK ? status : flushWhole(file);
}
