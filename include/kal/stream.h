// The stream: one buffered byte stream over interchangeable back-ends.
//
// A stream is a record, SFILE, whose six slots read, write, seek and close it; a caller never asks what lies
// behind. Streams are born by KalOpenFile (by name), KalOpenTempFile or KalMakeSFile (over an open handle)
// and end with their close slot:
//
//     SFILE* stream;
//     if (KalOpenFile(&stream, "picture.dat", KAL_MODE_CREATE | KAL_MODE_UPDATE, 0) == 0) {
//         stream->write(stream, bytes, count);
//         stream->close(stream);
//     }
//
// A stream is used by one thread at a time. Positions and counts are unsigned 32-bit byte numbers, so a
// stream reaches 4 GiB; a write that would pass that end takes what fits and reports a full disk.
#ifndef KAL_STREAM_H
#define KAL_STREAM_H

#include <kal/base.h>

// Open modes, combined by OR.
inline constexpr uint16_t KAL_MODE_WRITE = 0x0001;   // read and write
inline constexpr uint16_t KAL_MODE_UPDATE = 0x0002;  // the same; a buffer that a write starts is first filled
                                                     // from the file
inline constexpr uint16_t KAL_MODE_APPEND = 0x0008;  // stand at the end; make the file when it is missing
inline constexpr uint16_t KAL_MODE_SEARCH = 0x0080;  // look along the search text too (see kal/path.h)
inline constexpr uint16_t KAL_MODE_CREATE = 0x0100;  // make the file, or empty it
inline constexpr uint16_t KAL_MODE_VMEM = 0x1000;    // in VMem blocks; the name is not used
inline constexpr uint16_t KAL_MODE_MEMORY = 0x2000;  // in one growing memory block; the name is not used
inline constexpr uint16_t KAL_MODE_FILEMAP = 0x4000; // in a named mapping that processes share

// What new files are made with: emptied if need be, with buffers filled from the file first. The bit 0x0200 is only
// carried along.
inline constexpr uint16_t KAL_MODE_NEW_FILE = KAL_MODE_CREATE | KAL_MODE_UPDATE | 0x0200;

// Seek origins.
inline constexpr uint32_t KAL_SEEK_START = 0;   // from the start
inline constexpr uint32_t KAL_SEEK_CURRENT = 1; // from the current position
inline constexpr uint32_t KAL_SEEK_END = 2;     // from the end

// `bufEnd` of a stream without a buffer, and the result of a seek that failed.
inline constexpr uint32_t KAL_NO_POSITION = 0xFFFFFFFF;

// The stream record. Callers read its fields and call its slots; the layout is fixed, without gaps.
#pragma pack(push, 1)
struct tagSFILE {
    uint32_t handle;    // disk: the host's file handle
    uint16_t mode;      // KAL_MODE_ bits given at open
    int16_t status;     // of the last operation, 0 or negative; -254 blocks writes and seeks
    uint32_t pos;       // current position; disk: from the file's start, base offset included
    uint32_t osPos;     // disk: where the host's file pointer stands
    uint8_t* buf;       // buffer, null when there is none; owned
    uint8_t* bufPtr;    // the buffer's byte of `pos`, while bufStart <= pos < bufEnd
    uint32_t bufStart;  // file position of the buffer's first byte
    uint32_t bufEnd;    // file position past the valid bytes; 0 when fresh, KAL_NO_POSITION without a buffer
    uint32_t bufSize;   // the buffer's capacity in bytes; 0 means no buffer
    uint16_t dirty;     // 1 while the buffer holds bytes that the file does not
    char* tempName;     // file that closing deletes, or null; owned
    char* name;         // the name given at open, or null; owned
    uint32_t offset;    // base offset, added to seeks from the start: a logical position is pos - offset
    uintptr_t backData; // one word of the back-end's own

    // Reads up to `count` bytes to `destination`. The bytes delivered; fewer than asked at the end
    // (status KAL_ERR_SHORT_READ or KAL_ERR_END) or on failure. Negative (the status) when it could not
    // start.
    int32_t (*read)(tagSFILE* stream, void* destination, uint32_t count);
    // The next byte as 0 to 255, or the negative status when there is none.
    int32_t (*getChar)(tagSFILE* stream);
    // Writes `count` bytes from `source`. The bytes accepted; negative (the status) when it could not start.
    int32_t (*write)(tagSFILE* stream, const void* source, uint32_t count);
    // Writes one byte. The status.
    int16_t (*putChar)(tagSFILE* stream, char byte);
    // Moves the position by `offset` from an origin (KAL_SEEK_). The status.
    int16_t (*seek)(tagSFILE* stream, int32_t offset, uint32_t origin);
    // Ends the stream and releases all that it owns, the record included. The status.
    int16_t (*close)(tagSFILE* stream);
};
#pragma pack(pop)
// The stream record by its usual name.
using SFILE = tagSFILE;

static_assert(KAL_SIZE(SFILE, 78, 122));
static_assert(KAL_AT(SFILE, handle, 0, 0) && KAL_AT(SFILE, mode, 4, 4) && KAL_AT(SFILE, status, 6, 6) &&
              KAL_AT(SFILE, pos, 8, 8) && KAL_AT(SFILE, osPos, 12, 12) && KAL_AT(SFILE, buf, 16, 16) &&
              KAL_AT(SFILE, bufPtr, 20, 24) && KAL_AT(SFILE, bufStart, 24, 32) &&
              KAL_AT(SFILE, bufEnd, 28, 36) && KAL_AT(SFILE, bufSize, 32, 40) &&
              KAL_AT(SFILE, dirty, 36, 44) && KAL_AT(SFILE, tempName, 38, 46) &&
              KAL_AT(SFILE, name, 42, 54) && KAL_AT(SFILE, offset, 46, 62) &&
              KAL_AT(SFILE, backData, 50, 66) && KAL_AT(SFILE, read, 54, 74) &&
              KAL_AT(SFILE, getChar, 58, 82) && KAL_AT(SFILE, write, 62, 90) &&
              KAL_AT(SFILE, putChar, 66, 98) && KAL_AT(SFILE, seek, 70, 106) &&
              KAL_AT(SFILE, close, 74, 114));

// --- Opening by name ---------------------------------------------------------------------------------

// Opens a stream. `mode` chooses the back-end (memory, then VMem, then file mapping, else disk) and the
// access; `size` is the capacity of a file mapping in bytes (0: 3,000,000) and means nothing elsewhere.
// 0, and `*out` holds the stream, which the caller ends with its close slot; a disk stream starts with a
// 512-byte buffer. On failure nothing is left behind and `*out` is null:
// KAL_ERR_MEMORY, KAL_ERR_OPEN - errno, or the back-end's own status.
KAL_API int16_t KalOpenFile(SFILE** out, const char* name, uint16_t mode, int32_t size);

// Opens a file under a free name in the temporary directory (see KalTempPath); callers pass KAL_MODE_NEW_FILE.
// The name is reserved by an exclusive create, so no two callers get the same. With `keep` 0 closing deletes
// the file. Statuses as KalOpenFile; KAL_ERR_SERVICE when no name is free.
KAL_API int16_t KalOpenTempFile(SFILE** out, uint16_t mode, uint16_t keep);

// 1 when the file can be opened for reading, else 0.
KAL_API uint16_t KalExistsFile(const char* name);

// Appends the file `name` (looked for along the search text) to `destination`, in pieces of the source's
// buffer size; a piece that ends in the end-of-text mark 0x1A is written without it. What the file held at
// the start is copied, also onto itself. The status of opening the file, KAL_ERR_SERVICE when memory is
// short, else 0; errors of the writes stand in the destination's status.
KAL_API int16_t KalFileCat(SFILE* destination, const char* name);

// Copies the file `source` to the file `destination`, which is made or emptied. The statuses of opening
// either, KAL_ERR_BUFFER when memory is short, KAL_ERR_SERVICE when both are one file (nothing changes then),
// else 0; write errors are not reported.
KAL_API int16_t KalCopyFile(const char* destination, const char* source);

// --- Streams over a handle, buffers ------------------------------------------------------------------

// Makes a disk stream over an open file handle (a file descriptor) that stands at position 0. The stream
// owns the handle from then on. It takes no writes until the caller sets KAL_MODE_WRITE or KAL_MODE_UPDATE in
// its mode. 0, or KAL_ERR_MEMORY with `*out` null; without memory for a buffer the stream is unbuffered.
KAL_API int16_t KalMakeSFile(SFILE** out, int32_t handle);

// Replaces the stream's buffer by one of `size` bytes, 0 for none. What the old buffer holds is NOT written
// back: set the buffer first, or flush. 0, or KAL_ERR_BUFFER: the stream then has an empty buffer of the old
// size or none. A file-mapping stream is left as it is.
KAL_API int16_t KalSetBuf(SFILE* stream, uint32_t size);

// Writes the buffer back. 0, KAL_ERR_SEEK, KAL_ERR_WRITE or KAL_ERR_DISK_FULL; the buffer stays dirty on
// failure.
KAL_API int16_t KalFlushBuf(SFILE* stream);

// Sets the base offset of a disk stream. 0, or KAL_ERR_NULL_STREAM.
KAL_API int16_t KalSetOffset(SFILE* stream, uint32_t offset);

// --- The six operations of a disk stream ---------------------------------------------------------------
// What the slots of a disk stream hold; see the slots for arguments and results.

// As the slots say; KAL_ERR_READ when the host fails.
KAL_API int32_t KalReadDiskFile(SFILE* stream, void* destination, uint32_t count);
KAL_API int32_t KalGetDiskChar(SFILE* stream);
// KAL_ERR_WRITE when the mode has neither KAL_MODE_WRITE nor KAL_MODE_UPDATE; 0 while the disk is full.
KAL_API int32_t KalWriteDiskFile(SFILE* stream, const void* source, uint32_t count);
KAL_API int16_t KalPutDiskChar(SFILE* stream, char byte);
// An origin other than 1 and 2 counts from the start, the base offset added only for 0.
KAL_API int16_t KalSeekDiskPos(SFILE* stream, int32_t offset, uint32_t origin);
// When the dirty buffer cannot be written back, the status; the stream then stays open and whole. Else the
// stream is released: 0, or KAL_ERR_CLOSE. A temporary file is deleted, its buffer not written back first.
KAL_API int16_t KalCloseDiskFile(SFILE* stream);

// --- The six operations of a memory stream ---------------------------------------------------------------
// A stream opened with KAL_MODE_MEMORY keeps its bytes in one block of global memory (`handle`), which grows
// in steps of 1,024 bytes. Its length, in `osPos`, is kept lazily: a write that makes the block grow raises
// it, and so does a seek that finds the position beyond it. Seek (to the end, say) before relying on it, and
// before reading what was written last. The end of the stream is KAL_ERR_SHORT_READ, never KAL_ERR_END;
// KAL_ERR_GLOBAL when the block cannot be allocated, locked or grown, and it then stays as it was.

// As the slots say, with the differences above.
KAL_API int32_t KalReadMemFile(SFILE* stream, void* destination, uint32_t count);
KAL_API int32_t KalGetMemChar(SFILE* stream);
KAL_API int32_t KalWriteMemFile(SFILE* stream, const void* source, uint32_t count);
KAL_API int16_t KalPutMemChar(SFILE* stream, char byte);
// Always 0, and leaves the status alone. Positions beyond the end are allowed; bytes that a write leaves out
// on its way there are undefined.
KAL_API int16_t KalSeekMemPos(SFILE* stream, int32_t offset, uint32_t origin);
// 0, also for null.
KAL_API int16_t KalCloseMemFile(SFILE* stream);

// --- The six operations of a VMem stream -----------------------------------------------------------------
// A stream opened with KAL_MODE_VMEM keeps its bytes in VMem blocks of 32,768 bytes (see kal/vmem.h), whose
// handles stand in the table at `backData`; at most 65,536 of them, 2 GiB. The manager must be open. The
// length stands in `bufEnd`. One call moves at most 65,535 bytes: of more, it moves these and says so by its
// result. Opening gives KAL_ERR_BUFFER or KAL_ERR_VMEM when memory is short.

// At the length KAL_ERR_SHORT_READ. KAL_ERR_VMEM when a block cannot be brought back.
KAL_API int32_t KalReadVMemFile(SFILE* stream, void* destination, uint32_t count);
KAL_API int32_t KalGetVMemChar(SFILE* stream);
// KAL_ERR_DISK_FULL when there is no memory for the table or the position lies more than one block past it;
// KAL_ERR_GLOBAL when there is none for a block; KAL_ERR_VMEM when a block cannot be brought back. The result
// is what was moved before.
KAL_API int32_t KalWriteVMemFile(SFILE* stream, const void* source, uint32_t count);
KAL_API int16_t KalPutVMemChar(SFILE* stream, char byte);
// A seek past the end makes the stream longer, with bytes that are undefined; a successful one leaves the status
// alone. KAL_ERR_BUFFER for a position of 2 GiB or more, with position and length as they were. KAL_ERR_BUFFER
// when there is no memory for the table, KAL_ERR_VMEM when there is none for a block: the position is as it was,
// the length is the one asked for, blocks made so far stay, and the next seek there makes those that are missing.
KAL_API int16_t KalSeekVMemPos(SFILE* stream, int32_t offset, uint32_t origin);
// 0, also for null.
KAL_API int16_t KalCloseVMemFile(SFILE* stream);

// --- Windows -------------------------------------------------------------------------------------------

// Makes the stretch [start, end) of a disk stream's file a file of its own: positions count from its start,
// and reads stop at its end. The stream then stands at the start; a buffer is emptied and NOT written back:
// flush first. An `end` at or before `start` (as signed numbers) bounds nothing and only sets the base
// offset. Constraining again replaces the window. Writes are not bounded. 0, or 1 for anything but a disk
// stream, which stays as it was.
KAL_API int16_t KalConstrainFile(SFILE* stream, int32_t start, int32_t end);

// Gives a disk stream its whole file back; position and buffer stay.
KAL_API void KalUnconstrainFile(SFILE* stream);

// What the slots of a constrained stream hold. A read that the window's end cuts has the status
// KAL_ERR_SHORT_READ, or KAL_ERR_END when no byte came.
KAL_API int32_t ConstReadDiskFile(SFILE* stream, void* destination, uint32_t count);
KAL_API int32_t ConstGetDiskChar(SFILE* stream);
// KAL_SEEK_END goes `offset` back from the window's end. KAL_ERR_SEEK past that end, without moving; a
// position before the window is reached.
KAL_API int16_t ConstSeekDiskPos(SFILE* stream, int32_t offset, uint32_t origin);

// --- Lines and texts -----------------------------------------------------------------------------------

// Gives the last byte read back: a seek by -1. The status.
KAL_API int16_t KalUnGetChar(SFILE* stream);

// Reads a line to a text of `size` bytes, terminating zero included: up to a carriage return, a line feed or
// both in that order, which are not stored, or until the text is full. 0, or the status that ended the
// reading; its low byte then stands behind the text. That of KAL_ERR_END is the terminating zero; after any
// other, KAL_ERR_SHORT_READ at the end of a stream in memory included, the text is not ended.
KAL_API int16_t KalGetStr(SFILE* stream, char* destination, uint32_t size);

// Writes a text, at most its first 65,535 characters, in one call. The stream's status.
KAL_API int16_t KalPutStr(SFILE* stream, const char* text);

// Writes a text with a carriage return before each line feed. 0, or the status of the byte that failed.
KAL_API int16_t KalPutStrX(SFILE* stream, const char* text);

// The next byte of any stream, straight from the buffer where that holds it, else as its getChar slot gives it:
// what a tight loop calls. A stream that is only written gives the bytes of its buffer too, also where the slot
// refuses.
inline int32_t KalNextChar(SFILE* stream) {
    const uint32_t pos = stream->pos;
    // A position before the buffer's end is in it, where there is one. A window's buffer may reach past its end.
    if (pos < stream->bufEnd && stream->bufSize != 0 && stream->getChar != ConstGetDiskChar) [[likely]] {
        const uint8_t* next = stream->bufPtr;
        stream->bufPtr = const_cast<uint8_t*>(next + 1);
        stream->pos = pos + 1;
        return *next;
    }
    return stream->getChar(stream);
}

#endif
