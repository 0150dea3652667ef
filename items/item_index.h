// The index of an item file: its entries in their stored form, and where the stream stands in logical terms.
#ifndef KAL_ITEMS_ITEM_INDEX_H
#define KAL_ITEMS_ITEM_INDEX_H

#include "platform/little_endian.h"

#include <kal/item.h>

inline constexpr uint32_t kItemHeaderBytes = 4;
inline constexpr uint32_t kSpareEntries = 10;

inline bool isWide(const IFILE* file) {
    return (file->formatFlags & KAL_ITEMS_WIDE) != 0;
}

inline uint32_t entryBytes(const IFILE* file) {
    return isWide(file) ? sizeof(ItemIndexWide) : sizeof(ItemIndexNarrow);
}

// The entries of a file that can be opened again.
inline uint32_t mostEntries(const IFILE* file) {
    return isWide(file) ? KAL_ITEMS_MAX_WIDE : KAL_ITEMS_MAX_NARROW;
}

inline uint8_t* entryField(ItemIndex* entry, size_t field) {
    return reinterpret_cast<uint8_t*>(entry) + field;
}
inline const uint8_t* entryField(const ItemIndex* entry, size_t field) {
    return reinterpret_cast<const uint8_t*>(entry) + field;
}

inline ItemIndex* entryAt(IFILE* file, uint32_t number) {
    return reinterpret_cast<ItemIndex*>(entryField(file->index, size_t(number) * entryBytes(file)));
}

inline uint16_t entryId(const ItemIndex* entry) {
    return loadLittle<uint16_t>(entry);
}
inline void setEntryId(ItemIndex* entry, uint16_t id) {
    storeLittle(entry, id);
}

inline uint32_t entrySize(const IFILE* file, const ItemIndex* entry) {
    return isWide(file) ? loadLittle<uint32_t>(entryField(entry, offsetof(ItemIndexWide, size)))
                        : loadLittle<uint16_t>(entryField(entry, offsetof(ItemIndexNarrow, size)));
}
// A narrow file keeps the low 16 bits.
inline void setEntrySize(const IFILE* file, ItemIndex* entry, uint32_t size) {
    if (isWide(file))
        storeLittle(entryField(entry, offsetof(ItemIndexWide, size)), size);
    else
        storeLittle(entryField(entry, offsetof(ItemIndexNarrow, size)), static_cast<uint16_t>(size));
}

inline uint32_t entryOffset(const IFILE* file, const ItemIndex* entry) {
    return loadLittle<uint32_t>(entryField(entry, isWide(file) ? offsetof(ItemIndexWide, offset)
                                                               : offsetof(ItemIndexNarrow, offset)));
}
inline void setEntryOffset(const IFILE* file, ItemIndex* entry, uint32_t offset) {
    storeLittle(
        entryField(entry, isWide(file) ? offsetof(ItemIndexWide, offset) : offsetof(ItemIndexNarrow, offset)),
        offset);
}

// The stream's position from its base offset on.
inline uint32_t logicalPosition(const SFILE* stream) {
    return stream->pos - stream->offset;
}

// Moves the stream to a logical position, or to its end. False when the seek failed.
inline bool seekTo(SFILE* stream, uint32_t position) {
    return stream->seek(stream, static_cast<int32_t>(position), KAL_SEEK_START) == KAL_OK;
}
// The same where a full disk, which blocks seeks, need not stop the caller: a read, or a write to bytes that
// the file has already. What the buffer still holds must go out all the same.
inline void forgetFullDisk(SFILE* stream) {
    if (stream->status == KAL_ERR_DISK_FULL)
        stream->status = KAL_OK;
}
inline bool seekDespiteFullDisk(SFILE* stream, uint32_t position) {
    forgetFullDisk(stream);
    return seekTo(stream, position);
}
inline bool seekToEnd(SFILE* stream) {
    return stream->seek(stream, 0, KAL_SEEK_END) == KAL_OK;
}

// Whether the stream may be sought to an offset out of an index, for which nobody vouches. A stream in memory takes a
// seek past its end for its new length, and would get that much memory with the next write; elsewhere an offset
// past the last position would come round to bytes before the item file.
inline bool mayBeSought(SFILE* stream, uint32_t offset) {
    if (offset > UINT32_MAX - stream->offset)
        return false;
    if ((stream->mode & (KAL_MODE_MEMORY | KAL_MODE_VMEM | KAL_MODE_FILEMAP)) == 0)
        return true;
    return seekToEnd(stream) && offset <= logicalPosition(stream);
}
// Moves the stream to an offset out of an index to read there: to its end, where nothing is to be read, instead of past
// it.
inline bool seekToStored(SFILE* stream, uint32_t offset) {
    forgetFullDisk(stream);
    return mayBeSought(stream, offset) ? seekTo(stream, offset) : seekToEnd(stream);
}

// Whether the stream takes writes, so that the index can be written back.
inline bool hasWriteAccess(const IFILE* file) {
    return (file->mode & (KAL_MODE_WRITE | KAL_MODE_UPDATE)) != 0;
}

// KalFlushIFile that tells besides when header or index did not go in.
int16_t flushWhole(IFILE* file);

#endif
