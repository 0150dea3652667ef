// Operation lists: recorded sequences of typed records ("ops") that are put one after another and got back in
// the same order; and files that keep many lists as items.
//
// An op is a small-memory block of a 4-byte header and a payload; callers hold the payload:
//
//     block -> +------+------+----------------+
//              | type | size | payload        |    type, size: 16 bits each, little-endian
//              +------+------+----------------+
//                             ^ the op pointer
//
// Calling order: open, puts, a seek (which ends what was put), gets; puts and gets may take turns with seeks
// between them; close last. The stored form is described in docs/formats/operation-list.md.
#ifndef KAL_OPLIST_H
#define KAL_OPLIST_H

#include <kal/base.h>
#include <kal/cfile.h>
#include <kal/item.h>
#include <kal/list.h>
#include <kal/stream.h>

// List flags.
inline constexpr uint16_t KAL_OPL_KEEP = 0x0001; // keep a temporary list's file after close
inline constexpr uint16_t KAL_OPL_DIB = 0x1000;  // bitmap rows; only with KAL_OPL_VMEM
inline constexpr uint16_t KAL_OPL_VMEM = 0x4000; // in VMem blocks instead of a stream
inline constexpr uint16_t KAL_OPL_VMEM_DIB = KAL_OPL_VMEM | KAL_OPL_DIB; // a bitmap list
inline constexpr uint16_t KAL_OPL_COMPRESSED = 0x8000; // KalOpenOpList: through a compressed stream

// Format flag of an operation-list file: its items are compressed.
inline constexpr uint16_t KAL_IOP_COMPRESSED = 0x4000;

// Op types with a meaning to the library; all others are the caller's.
inline constexpr uint16_t KAL_OP_END = 0;          // the end of the list
inline constexpr uint16_t KAL_OP_DIB1 = 0x14;      // DIB op too, in a list of 1 bit per pixel
inline constexpr uint16_t KAL_OP_DIB = 0x15;       // a band of scan lines
inline constexpr uint16_t KAL_OP_FILLER = 0xFFFF;  // the rest of a VMem block is unused
inline constexpr uint32_t KAL_OP_ROW = 0xFFFFFFFE; // KalPutOpData: a raw scan line

// Bytes of an op's header.
inline constexpr uint32_t KAL_OP_HEADER = 4;

// Result of a put that failed.
inline constexpr uint32_t KAL_OP_FAILED = 0xFFFFFFFF;

// Sees every op before it is put, the end ops included.
class FilterOps {
public:
    // `op` points at the payload of `size` bytes that is about to be put; null for the library's own end ops.
    virtual void FilterOp(void* op, uint16_t type, uint16_t size) = 0;

protected:
    ~FilterOps() = default;
};

// Takes every put in place of the list; its result is the put's.
class OpSink {
public:
    // Stands for KalPutOp and KalPutOpData: the op's position, or KAL_OP_FAILED.
    virtual uint32_t PutOp(void* op) = 0;
    virtual uint32_t PutOpData(uint32_t type, const void* data, uint32_t size) = 0;

protected:
    ~OpSink() = default;
};

#pragma pack(push, 1)
// VMem mode: one block of the list, the data of a node of its `blocks`.
struct opblock {
    void* vmem;        // the VMem handle; null while the block has no memory (rows never written)
    uint16_t index;    // the block's number
    uint32_t capacity; // bytes of the block that the list uses
    uint32_t offset;   // where the next get or put in this block starts
};

// Bitmap lists: what the rows are.
struct dibinfo {
    uint16_t left;         // the caller's; copied into every DIB op that the list makes
    uint16_t top;          // the line number of the first scan line
    uint16_t width;        // pixels
    uint16_t height;       // scan lines
    uint16_t bitsPerPixel; // 1, 4, 8 or 24
    uint16_t maxOpBytes;   // the most pixel bytes of a DIB op that KalGetDIBOp makes
    uint16_t userWord;     // the caller's
    uint16_t rowBytes;     // bytes of a stored row, a multiple of 4; 0 until the list is set up
    uint16_t curLine;      // the current scan line, counted from `top`
    uint8_t* lineBuf;      // a row to work in; owned by the list
    void* attachment;      // a small-memory block of the caller's, or null; a clone gets a copy
};

// The list record. The owner may set `sink`; the rest is read only for callers.
struct tagOpList {
    SFILE* stream;         // file mode: holds the ops; null in VMem mode and after a failed open
    scfiletag* compStream; // file mode: the compressed stream over it, or null
    uint16_t flags;        // KAL_OPL_ bits; a list opened by name keeps its whole mode word
    uint16_t putPending;   // 1 when an end op is owed: the last operation was a put
    int16_t status;        // the first errors stick here; see KalGetOpError
    uint32_t pos;          // where the next get reads and the next put writes
    uint32_t endPos;       // where the last end op went
    dibinfo* dib;          // the bitmap's description, or null
    uint32_t blockSize;    // VMem mode: the usual capacity of a block in bytes
    uint16_t blockCount;   // VMem mode: the index of the next new block
    slisthd* blocks;       // VMem mode: the blocks in index order
    opblock* curBlock;     // VMem mode: the current block
    FilterOps* filter;     // or null; not owned
    OpSink* sink;          // or null; not owned
};
#pragma pack(pop)
// The list record by its usual name.
using OpList = tagOpList;

static_assert(KAL_SIZE(opblock, 14, 18));
static_assert(KAL_AT(opblock, vmem, 0, 0) && KAL_AT(opblock, index, 4, 8) &&
              KAL_AT(opblock, capacity, 6, 10) && KAL_AT(opblock, offset, 10, 14));
static_assert(KAL_SIZE(dibinfo, 26, 34));
static_assert(KAL_AT(dibinfo, left, 0, 0) && KAL_AT(dibinfo, top, 2, 2) && KAL_AT(dibinfo, width, 4, 4) &&
              KAL_AT(dibinfo, height, 6, 6) && KAL_AT(dibinfo, bitsPerPixel, 8, 8) &&
              KAL_AT(dibinfo, maxOpBytes, 10, 10) && KAL_AT(dibinfo, userWord, 12, 12) &&
              KAL_AT(dibinfo, rowBytes, 14, 14) && KAL_AT(dibinfo, curLine, 16, 16) &&
              KAL_AT(dibinfo, lineBuf, 18, 18) && KAL_AT(dibinfo, attachment, 22, 26));
static_assert(KAL_SIZE(OpList, 48, 76));
static_assert(KAL_AT(OpList, stream, 0, 0) && KAL_AT(OpList, compStream, 4, 8) &&
              KAL_AT(OpList, flags, 8, 16) && KAL_AT(OpList, putPending, 10, 18) &&
              KAL_AT(OpList, status, 12, 20) && KAL_AT(OpList, pos, 14, 22) &&
              KAL_AT(OpList, endPos, 18, 26) && KAL_AT(OpList, dib, 22, 30) &&
              KAL_AT(OpList, blockSize, 26, 38) && KAL_AT(OpList, blockCount, 30, 42) &&
              KAL_AT(OpList, blocks, 32, 44) && KAL_AT(OpList, curBlock, 36, 52) &&
              KAL_AT(OpList, filter, 40, 60) && KAL_AT(OpList, sink, 44, 68));

// Bytes of a DIB op's payload before its lines: left, line number of the first line, width, number of lines
// (16 bits each), bits per pixel (8 bits), 3 bytes not used. Lines of 1, 4 and 8 bits per pixel are 16-bit
// aligned; a 24-bit pixel takes 4 bytes, the last not used.
inline constexpr uint32_t KAL_DIB_OP_HEADER = 12;

// Bytes of a line in a DIB op, and of a row as a bitmap list stores it, which is 32-bit aligned with three bytes to a
// 24-bit pixel.
inline constexpr uint32_t KalDIBLineBytes(uint32_t width, uint32_t bitsPerPixel) {
    return bitsPerPixel == 24 ? width * 4 : ((width * bitsPerPixel + 15) >> 3) & ~1u;
}
inline constexpr uint32_t KalDIBRowBytes(uint32_t width, uint32_t bitsPerPixel) {
    return ((width * bitsPerPixel + 31) >> 3) & ~3u;
}

// Allocates an op with `size` payload bytes, all 0 (the low 16 bits of type and size count). Null when memory
// is short. The caller frees it with KalFreeSMem(KalOpBlock(op)).
KAL_API void* KalCreateOp(uint32_t type, uint32_t size);

// Type and payload size of an op, and the block to give to KalFreeSMem.
inline uint16_t KalOpType(const void* op) {
    const uint8_t* header = static_cast<const uint8_t*>(op) - KAL_OP_HEADER;
    return static_cast<uint16_t>(header[0] | header[1] << 8);
}
inline uint16_t KalOpSize(const void* op) {
    const uint8_t* header = static_cast<const uint8_t*>(op) - KAL_OP_HEADER;
    return static_cast<uint16_t>(header[2] | header[3] << 8);
}
inline void* KalOpBlock(void* op) {
    return static_cast<uint8_t*>(op) - KAL_OP_HEADER;
}

// Opens a list. With KAL_OPL_VMEM it lives in VMem blocks and `name` is not used; else it lives in the stream
// that `name` and `mode` open (see KalOpenFile), with a 4,096-byte buffer, compressed with
// KAL_OPL_COMPRESSED. 0, or the failure's status. Unless that is KAL_ERR_MEMORY with `*out` null, the record
// is made even so, without a stream and with the status in it; the caller closes it as any other.
KAL_API int16_t KalOpenOpList(OpList** out, const char* name, uint16_t mode);

// Opens a temporary list: in VMem blocks with KAL_OPL_VMEM, else in a temporary file, which stays after the
// close with KAL_OPL_KEEP (a list that is kept is never a VMem list). Never compressed. Results as above.
KAL_API int16_t KalTempOpList(OpList** out, uint16_t flags);

// Makes a list over an item file's stream at position 0, with an end op owed; positioning and ending it is
// the owner's matter. Null when memory is short. KalCloseOpList closes the shared stream too.
KAL_API OpList* KalMakeOpList(IFILE* file);

// Puts the end op that is owed, ends the compressed run, closes the stream and frees the list. Nothing for
// null.
KAL_API void KalCloseOpList(OpList* list);

// Stores a copy of the op at the list's position. The op's position, or KAL_OP_FAILED with the reason in the
// list's status.
KAL_API uint32_t KalPutOp(OpList* list, void* op);

// The same for an op of `type` with the `size` bytes at `data` (up to 65,535) as its payload.
KAL_API uint32_t KalPutOpData(OpList* list, uint32_t type, const void* data, uint32_t size);

// The op at the list's position, which moves behind it; the caller frees it with
// KalFreeSMem(KalOpBlock(op)). Null at the end of the list, where the position stays, or on failure;
// KalGetOpError tells which.
KAL_API void* KalGetOp(OpList* list);

// Puts the end op that is owed, then moves the list to a position that a put or `endPos` gave, or to 0. The
// status. A compressed list is written from its start in one pass, and read from its start in one pass.
KAL_API int16_t KalSeekOp(OpList* list, int32_t position);

// KalSeekOp to the last end op, so that the next put takes its place.
KAL_API int16_t KalSeekEndOp(OpList* list);

// 1 when the list is null, its position is not 0, or it holds nothing; else 0. The list stays at its start.
KAL_API uint16_t KalIsOpListEmpty(OpList* list);

// The list's status, else its stream's or compressed stream's; 0 for a null list.
KAL_API int16_t KalGetOpError(OpList* list);

// Sets the filter, which must outlive the list or be replaced.
KAL_API void KalSetOpListFilter(OpList* list, FilterOps& filter);

// Gives back the unused tail of the block that holds the end op, or will hold the one that is owed; nothing for a list in
// a stream. What was put stays. Of a bitmap list only the last block is cut; rows behind the cut read as zeros and
// can be put.
KAL_API void KalShrinkOpList(OpList* list);

// Makes a copy of a VMem list: the same bytes in blocks of the same sizes, so every position of the source is
// valid in it; it stands nowhere until it is sought. An end op that the source owes is not in it: seek the source
// first. A bitmap list is cloned by KalCloneDIBOpList. 0; KAL_ERR_MEMORY, KAL_ERR_VMEM or KalTempOpList's status,
// with the part that was made in `*out`, which the caller closes (null when there was no memory for the record);
// KAL_ERR_POSITION with `*out` null for a list in a stream.
KAL_API int16_t KalCloneOpList(OpList* source, OpList** out);

// --- Bitmap lists --------------------------------------------------------------------------------------
// A VMem list (KalTempOpList with KAL_OPL_VMEM_DIB, then KalSetupOpList) that holds the scan lines of one bitmap, stored
// raw in rows that are multiples of 4 bytes. DIB ops put to it (KalPutOp) go to consecutive lines from its
// position on, and KalGetOp gives them back in bands. Lines are numbered from `top`; a line of a block in which
// nothing was ever put reads as zeros. The description and line buffer belong to the list, the attachment to the
// caller.

// Describes the bitmap and lays out the blocks, without memory yet; what the list held is discarded. Bits per
// pixel become 1, 4, 8 or 24. Does no more than empty any other VMem list. A list that is set up again must be
// sought before the next put or get. 0; KAL_ERR_BUFFER when memory is short or a row passes 65,532 bytes;
// KAL_ERR_VMEM when a row passes the VMem block size. On failure the list is not set up.
KAL_API int16_t KalSetupOpList(OpList* list, uint16_t left, uint16_t top, uint16_t width, uint16_t height,
                               uint16_t bitsPerPixel, uint16_t userWord, uint16_t maxOpBytes);

// Puts the lines of a DIB op, which then owes an end op. A wider op is clipped; lines that its payload does not hold
// are not read. The list's position behind them, or KAL_OP_FAILED when the list's status is not 0 (KAL_ERR_POSITION when
// it has not been set up or lines go past the bitmap's last).
KAL_API uint32_t KalPutDIBOp(OpList* list, void* op);

// The next band of whole lines, as many as `maxOpBytes` allows, as a new DIB op, which the caller frees. Null at
// the end of the image, when `curLine` goes back to 0 (seek before reading again), or on failure, which the list's
// status tells: KAL_ERR_BUFFER when memory is short or a line takes more than 65,519 bytes, so that it fits no op
// (KalGetDIBOpData reads it). KalGet24DIBOp is for lists of 24 bits per pixel, to which KalGetDIBOp turns by itself.
KAL_API void* KalGetDIBOp(OpList* list);
KAL_API void* KalGet24DIBOp(OpList* list);

// Puts one row of `size` bytes as it is at the list's position, or at the start of the next block when it does
// not fit in this one. The row's position, or KAL_OP_FAILED: past the bitmap's last line with KAL_ERR_POSITION in the
// list's status.
KAL_API uint32_t KalPutDIBOpData(OpList* list, const void* data, uint32_t size);

// Reads `size` bytes at the list's position, or at the start of the next block when this one has fewer left. 0,
// KAL_ERR_POSITION past the last block, or KAL_ERR_VMEM; also in the list's status.
KAL_API int16_t KalGetDIBOpData(OpList* list, void* destination, uint16_t size);

// Moves the list to a position, without an end op. 0, or KAL_ERR_POSITION (also in the list's status).
KAL_API int16_t KalSeekDIBOp(OpList* list, int32_t position);

// Moves the list to a byte of a scan line. 0, or KAL_ERR_POSITION: for a line below `top` the list stands at the
// first line and its status is as it was.
KAL_API int16_t KalSeekDIBScanLineOffset(OpList* list, uint16_t line, uint16_t offset);

// The line at which the list stands, counted from `top`.
KAL_API uint32_t KalDIBPosToLineNumber(OpList* list);

// KalShrinkOpList of a bitmap list; nothing for others.
KAL_API void KalShrinkDIBOpList(OpList* list);

// Makes a copy of a bitmap list: its rows and attachment, no other ops and no end op; the source's position moves.
// 0; KAL_ERR_MEMORY, the statuses of the calls on the way, or KAL_ERR_POSITION with `*out` null for a list that
// has not been set up. What was made stands in `*out` for the caller to close.
KAL_API int16_t KalCloneDIBOpList(OpList* source, OpList** out);

// --- Operation-list files ------------------------------------------------------------------------------
// An item file whose items are lists. At most one list is being stored and one being read at a time; in a
// compressed file the two may not take turns. Nothing else may be written while a list is being stored. A file whose first
// lists are larger than KAL_ITEM_MOVE_MAX cannot grow past 10 of them unless KalReserveItems(file->ifile, ...) made
// the room before.

#pragma pack(push, 1)
// The operation-list file; read only for callers. A list or entry that is not there is null.
struct tagIOPFILE {
    IFILE* ifile;        // owned
    ItemIndex* putEntry; // the entry of the list being stored
    OpList* getList;     // the list being read
    ItemIndex* getEntry; // the entry of the list being read
    OpList* putList;     // the list being stored
};
#pragma pack(pop)
// The operation-list file by its usual name.
using IOPFILE = tagIOPFILE;

static_assert(KAL_SIZE(IOPFILE, 20, 40));
static_assert(KAL_AT(IOPFILE, ifile, 0, 0) && KAL_AT(IOPFILE, putEntry, 4, 8) &&
              KAL_AT(IOPFILE, getList, 8, 16) && KAL_AT(IOPFILE, getEntry, 12, 24) &&
              KAL_AT(IOPFILE, putList, 16, 32));

// Open an operation-list file by name, as a temporary file that closing deletes, or over the caller's stream;
// arguments and statuses as KalOpenIFile, KalOpenTempIFile and KalMakeIFile. `format` is KAL_ITEMS_WIDE and
// KAL_IOP_COMPRESSED as wanted. On failure `*out` is null.
KAL_API int16_t KalOpenIOpFile(IOPFILE** out, const char* name, uint16_t mode, uint16_t format);
KAL_API int16_t KalOpenTempIOpFile(IOPFILE** out);
KAL_API int16_t KalMakeIOpFile(IOPFILE** out, SFILE* stream, uint16_t format);

// Starts storing a list as a new item `id`, and gives the list to put ops to; KalClosePutIOpList ends it,
// never KalCloseOpList. 0, KAL_ERR_MEMORY, or KAL_ERR_BUFFER when the index cannot grow; `*out` is then null
// and the file is as before. A compressed stream that could not be made leaves its status in the list, which
// then takes nothing.
KAL_API int16_t KalOpenPutIOpList(IOPFILE* file, uint16_t id, OpList** out);

// Ends the list being stored: end op, end of the compressed run, size in the index. 0; KAL_ERR_SERVICE when
// no list is being stored; else why the list could not be ended, and then there is no item, and what was put is lost: the
// stream did not take the end, a put to a compressed list stopped in the middle of an op, or its compressed stream
// could not be made.
KAL_API int16_t KalClosePutIOpList(IOPFILE* file);

// Starts reading the first item `id`; KalCloseGetIOpList ends it. 0; 1 when there is no such item;
// KAL_ERR_MEMORY. `*out` is null unless the result is 0.
KAL_API int16_t KalOpenGetIOpList(IOPFILE* file, uint16_t id, OpList** out);

// Ends the list being read. 0; KAL_ERR_SERVICE when no list is being read.
KAL_API int16_t KalCloseGetIOpList(IOPFILE* file);

// Stores the ops of `source` from its current position on as item `id`. Statuses as KalOpenPutIOpList and
// KalClosePutIOpList, or that of the put that ended the copy: the item then holds the ops before. A failure to get an
// op ends the copy too and stands in the source's status alone.
KAL_API int16_t KalPutIOpList(IOPFILE* file, uint16_t id, OpList* source);

// Puts the ops of the first item `id` to `destination` at its current position, which then owes an end op.
// 0, or 1 when the item cannot be opened.
KAL_API int16_t KalGetIOpList(IOPFILE* file, uint16_t id, OpList* destination);

// End the operation-list file: the index is written back when the stream takes writes. KalCloseIOpFile closes
// the stream, KalFreeIOpFile leaves it open. A list still being stored or read is ended first. 0, or the first of
// the statuses of KalClosePutIOpList and KalCloseIFile (KalFreeIFile); everything is released all the same.
KAL_API int16_t KalCloseIOpFile(IOPFILE* file);
KAL_API int16_t KalFreeIOpFile(IOPFILE* file);

#endif
