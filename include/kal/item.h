// Item files: many byte strings, each named by a 16-bit id, in one stream behind an index at its head.
//
// The index is kept in memory and reaches the file when the item file is flushed, freed or closed; until then
// the file's index is stale. All offsets count from the stream's base offset. The stored form is described in
// docs/formats/item-file.md.
#ifndef KAL_ITEM_H
#define KAL_ITEM_H

#include <kal/base.h>
#include <kal/stream.h>

// Format flags. The other 15 bits belong to the file's maker.
inline constexpr uint16_t KAL_ITEMS_WIDE = 0x8000; // 32-bit item sizes

// The id of a free entry; never an item's.
inline constexpr uint16_t KAL_ITEM_FREE = 0xFFFF;

// The most bytes that the index of a file may take when it is opened, 10 spare entries included, and so the most
// entries that a file can have.
inline constexpr uint32_t KAL_INDEX_ROOM_MAX = 32767;
inline constexpr uint32_t KAL_ITEMS_MAX_NARROW = 4085; // entries of 8 bytes
inline constexpr uint32_t KAL_ITEMS_MAX_WIDE = 3266;   // entries of 10 bytes

// The largest item that a flush can move out of the growing index's way. A new file has room for 10 entries. Who stores
// items larger than this among the first makes room for all entries before: KalReserveItems.
inline constexpr uint32_t KAL_ITEM_MOVE_MAX = 65535;

#pragma pack(push, 1)
// An entry of the index as it stands in a narrow file, little-endian.
struct ItemIndexNarrow {
    uint16_t id;     // KAL_ITEM_FREE: the extent may be used again
    uint16_t size;   // bytes
    uint32_t offset; // logical position of the item's first byte
};

// The same in a wide file.
struct ItemIndexWide {
    uint16_t id;     // as in a narrow entry
    uint32_t size;   // bytes
    uint32_t offset; // as in a narrow entry
};

// One entry in either form; the file's KAL_ITEMS_WIDE flag tells which, and entries follow one another by that
// form's size.
union ItemIndex {
    ItemIndexNarrow narrow; // KAL_ITEMS_WIDE clear
    ItemIndexWide wide;     // KAL_ITEMS_WIDE set
};

// The item-file record.
struct IFILE {
    uint16_t formatFlags; // KAL_ITEMS_WIDE and the maker's bits
    uint16_t count;       // index entries, free ones included
    uint16_t capacity;    // entries that the index array can hold
    uint16_t mode;        // the stream's mode when the item file was made
    SFILE* stream;        // owned only when KalOpenIFile or KalOpenTempIFile made it
    ItemIndex* index;     // owned
};
#pragma pack(pop)

static_assert(KAL_SIZE(ItemIndexNarrow, 8, 8));
static_assert(KAL_AT(ItemIndexNarrow, id, 0, 0) && KAL_AT(ItemIndexNarrow, size, 2, 2) &&
              KAL_AT(ItemIndexNarrow, offset, 4, 4));
static_assert(KAL_SIZE(ItemIndexWide, 10, 10));
static_assert(KAL_AT(ItemIndexWide, id, 0, 0) && KAL_AT(ItemIndexWide, size, 2, 2) &&
              KAL_AT(ItemIndexWide, offset, 6, 6));
static_assert(KAL_SIZE(IFILE, 16, 24));
static_assert(KAL_AT(IFILE, formatFlags, 0, 0) && KAL_AT(IFILE, count, 2, 2) &&
              KAL_AT(IFILE, capacity, 4, 4) && KAL_AT(IFILE, mode, 6, 6) && KAL_AT(IFILE, stream, 8, 8) &&
              KAL_AT(IFILE, index, 12, 16));

// Opens a stream by name (modes as KalOpenFile) and lays an item file over it. The stream's or
// KalMakeIFile's status; on failure `*out` is null and no stream stays open. KalCloseIFile ends it.
KAL_API int16_t KalOpenIFile(IFILE** out, const char* name, uint16_t mode, uint16_t format);

// The same over a temporary file, narrow, that closing deletes.
KAL_API int16_t KalOpenTempIFile(IFILE** out);

// Lays an item file over an open stream, which stays the caller's; KalFreeIFile ends it. A stream whose mode
// has KAL_MODE_CREATE gets a new file of format `format`; any other is read, and a `format` other than 0 must
// be the stored one. 0, or with `*out` null: KAL_ERR_MEMORY, KAL_ERR_BUFFER (no memory for the index, or
// more entries than KAL_INDEX_ROOM_MAX holds), KAL_ERR_READ (the index ends early), KAL_ERR_FORMAT, or the
// stream's status when the header could not be read.
KAL_API int16_t KalMakeIFile(IFILE** out, SFILE* stream, uint16_t format);

// Flushes the index when the stream takes writes, then frees the item file but not the stream. 0, or why the index
// is still the old one: KalFlushIFile's status, or the stream's when it did not take header or index.
KAL_API int16_t KalFreeIFile(IFILE* file);

// KalFreeIFile, then the stream is closed. 0, KalFreeIFile's status, or the stream's when it could not write its last
// bytes; everything is released all the same. A caller that wants to try again flushes first (KalFlushIFile,
// KalFlushBuf).
KAL_API int16_t KalCloseIFile(IFILE* file);

// Writes header and index, after moving the items that stand where the index goes to the stream's end. 0 (the
// counts of these last writes are not looked at: the stream's status tells); KAL_ERR_MEMORY when such an item
// is larger than KAL_ITEM_MOVE_MAX or memory is short; the stream's status when a move or seek failed. After
// a failure the stored index is the old one and every item can be read where its entry says.
KAL_API int16_t KalFlushIFile(IFILE* file);

// Makes room for an index of `entries` entries, so that the file can grow to as many whatever is stored in it, and
// flushes: items of any size that stand in the way move to the stream's end. The room lasts as long as the file.
// 0; KAL_ERR_BUFFER for more entries than a file can have; KAL_ERR_MEMORY when memory is short; the stream's status
// when it did not take it all. After a failure the stored index is the old one or the new one and every item can be
// read where its entry says.
KAL_API int16_t KalReserveItems(IFILE* file, uint16_t entries);

// The first entry with this id, or null. It stays valid until the next KalAppendItemIndex.
KAL_API ItemIndex* KalFindItem(IFILE* file, uint16_t id);

// The item's size in bytes, or -1 when there is no such item.
KAL_API int32_t KalGetItemSize(IFILE* file, uint16_t id);

// Adds an entry at the index's end, its fields for the caller to set. Null when memory is short or the file has
// KAL_ITEMS_MAX_NARROW (KAL_ITEMS_MAX_WIDE) entries; the index is unchanged then. Earlier entry pointers are no longer valid.
KAL_API ItemIndex* KalAppendItemIndex(IFILE* file);

// Writes the entry's size in bytes from `data` at the entry's offset. The stream's count.
KAL_API int32_t KalWriteItem(IFILE* file, ItemIndex* entry, const void* data);

// Reads up to `size` bytes from the item's start. The stream's count.
KAL_API int32_t KalReadItem(IFILE* file, ItemIndex* entry, void* destination, uint32_t size);

// Reads the next up to `count` bytes of an item; starts over when the stream stands outside it or at its
// start. Bytes read; 0 at the item's end or on failure.
KAL_API uint32_t KalIncReadItem(IFILE* file, ItemIndex* entry, void* destination, uint32_t count);

// Stores `length` bytes as item `id` in place of any item of that id, in the smallest free extent that holds
// them or at the end. Bytes written; 0 when nothing could be, or for the id KAL_ITEM_FREE. When they did not
// all go, an item of that id whose own extent was not written to is as it was. A narrow file keeps the low 16
// bits of the length and writes that many.
KAL_API uint32_t KalWriteIFile(IFILE* file, const void* data, uint32_t length, uint16_t id);

// Appends `length` bytes to item `id` where it lies, or stores it anew. Bytes written; 0 when another entry
// lies in the way or the size would not fit the entry: nothing changes then.
KAL_API uint32_t KalAddIFile(IFILE* file, const void* data, uint32_t length, uint16_t id);

// KalReadItem and KalIncReadItem by id; 0 when there is no such item.
KAL_API uint32_t KalReadIFile(IFILE* file, void* destination, uint32_t size, uint16_t id);
KAL_API uint32_t KalIncReadIFile(IFILE* file, void* destination, uint32_t count, uint16_t id);

// Reads a whole item into a new block, which the caller frees with KalFreeSMem; its size goes to `*size`.
// Null when there is no such item, it does not fit into the stream, memory is short or the read was.
KAL_API char* KalGetItem(IFILE* file, uint16_t id, int32_t* size);

#endif
