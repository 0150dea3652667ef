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
inline bool seekDespiteFullDisk(SFILE* stream, uint32_t position) {
    if (stream->status == KAL_ERR_DISK_FULL)
        stream->status = KAL_OK;
    return seekTo(stream, position);
}
inline bool seekToEnd(SFILE* stream) {
    return stream->seek(stream, 0, KAL_SEEK_END) == KAL_OK;
}

// Whether the stream takes writes, so that the index can be written back.
inline bool hasWriteAccess(const IFILE* file) {
    return (file->mode & (KAL_MODE_WRITE | KAL_MODE_UPDATE)) != 0;
}

#endif
