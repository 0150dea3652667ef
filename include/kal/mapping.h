// Streams in a named mapping that processes share: one writes and closes, others open the same name and read.
//
// KalOpenFile opens one for the mode bit KAL_MODE_FILEMAP:
//
//     KalOpenFile(&out, "picture", KAL_MODE_FILEMAP | KAL_MODE_CREATE | KAL_MODE_WRITE, 100000);
//     out->write(out, bytes, count);
//     out->close(out);                                       // the mapping stays
//     KalOpenFile(&in, "picture", KAL_MODE_FILEMAP, 0);      // here or in another process
//
// A name belongs to one user. It lives as long as some process holds it: the one that created it until it
// ends, one that opened it until the stream is closed. Nothing is locked: a reader opens after the writer has
// closed. docs/formats/mapping.md describes what lies in the mapping.
//
// KAL_MODE_CREATE with write access makes the mapping, of `size` bytes (0: 3,000,000), 4 bytes for the length
// included; where one of that name is, it is written anew within the smaller of both sizes. Write access
// alone writes an existing mapping anew, within the length that was stored last. Without write access the
// stored data is read. KAL_MODE_WRITE makes a stream that only writes, KAL_MODE_UPDATE one that reads too.
// KAL_ERR_SERVICE when there is no such mapping or it cannot be made.
//
// In the record: `pos` and `bufPtr` name the current byte, `offset` the first data byte, `bufEnd` the end of
// the data, `bufStart` the length word. They are addresses where those have 32 bits, else offsets from the
// mapping's start. bufPtr may be read straight while pos < bufEnd. There is no buffer and no name copy.
#ifndef KAL_MAPPING_H
#define KAL_MAPPING_H

#include <kal/heap.h>
#include <kal/stream.h>

// The mapping behind a stream. KalOpenFile makes it, the stream's close slot ends it.
class SFM : public ZEPObject {
public:
    // Opens or makes the mapping as the record's mode says and fills the record; `openStatus` tells success.
    KAL_API SFM(SFILE* record, const char* name, int32_t size);
    // Stores the used length of a writable stream and unmaps. A created mapping is held until the process
    // ends.
    KAL_API ~SFM();
    SFM(const SFM&) = delete;
    SFM& operator=(const SFM&) = delete;

    uint32_t hMapping = 0;     // the mapping's handle, 0 when there is none
    uint8_t* view = nullptr;   // the used-length word, where the mapping starts
    uint16_t readOnly;         // 1: no write access
    uint16_t writeOnly = 0;    // 1: no reading
    int16_t openStatus;        // 0 or KAL_ERR_SERVICE
    uint32_t mapSize = 0;      // usable bytes, length word included
    uint8_t* mapEnd = nullptr; // view + mapSize
    SFILE* owner;              // the stream's record
    uint16_t openExisting = 0; // 1: writes a mapping that was there
};

// --- What the slots of a mapping stream hold; see SFILE for arguments -----------------------------------

// The bytes copied; fewer than asked at the end of the data, with KAL_ERR_SHORT_READ.
KAL_API int32_t KalFMRead(SFILE* stream, void* destination, uint32_t count);
// The byte, or 0 with KAL_ERR_SHORT_READ at the end of the data.
KAL_API int32_t KalFMGetChar(SFILE* stream);
// The bytes copied; fewer than asked at the end of the mapping, with KAL_ERR_DISK_FULL.
KAL_API int32_t KalFMWrite(SFILE* stream, const void* source, uint32_t count);
KAL_API int16_t KalFMPutChar(SFILE* stream, char byte);
// 0, or KAL_ERR_SEEK for a target before the data, at or past the mapping's end, or an unknown origin; the
// position then stays. A target past the end of the data moves that end. The record's status is left alone.
KAL_API int16_t KalFMSeek(SFILE* stream, int32_t offset, uint32_t origin);
// Always 0.
KAL_API int16_t KalFMClose(SFILE* stream);

// What the access does not allow: 0, with KAL_ERR_READ or KAL_ERR_WRITE in the record's status.
KAL_API int32_t KalNoFMRead(SFILE* stream, void* destination, uint32_t count);
KAL_API int32_t KalNoFMGetChar(SFILE* stream);
KAL_API int32_t KalNoFMWrite(SFILE* stream, const void* source, uint32_t count);
KAL_API int16_t KalNoFMPutChar(SFILE* stream, char byte);

#endif
