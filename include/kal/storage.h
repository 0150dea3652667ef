// Streams inside a compound file (structured storage): one file of the host that holds many named streams,
// as office programs keep their documents.
//
// A stream opened here is used like a disk stream. It starts without a buffer; KalSetBuf gives it one.
// Readers share a compound file with readers; a writer has it alone until its stream is closed. What a
// writer has done stands in the file once its stream is closed.
#ifndef KAL_STORAGE_H
#define KAL_STORAGE_H

#include <kal/heap.h>
#include <kal/stream.h>

struct IStorage;
struct IStream;

// Opens the stream `streamName` in the compound file `fileName`. Both names go through the locale's wide
// characters and have at most 260; a stream's name has at most 31.
//
// KAL_MODE_WRITE opens for writing alone, KAL_MODE_UPDATE for both, neither for reading. KAL_MODE_CREATE
// makes the file anew, in place of one of that name, and the stream in it. KAL_MODE_SEARCH looks for the file
// along the search text too. KAL_MODE_APPEND stands at the stream's end, and makes file and stream when there
// is no such file; one that is there is never emptied by it.
//
// 0, and `*out` holds the stream, which its close slot ends. On failure `*out` is null and nothing stays
// open: KAL_ERR_STORAGE for a file or stream that is missing, damaged, in use or not accessible;
// KAL_ERR_MEMORY.
KAL_API int16_t KalOpenFileAsIStream(SFILE** out, const char* fileName, const char* streamName,
                                     uint16_t mode);

// The compound-file stream behind a stream record. KalOpenFileAsIStream makes it, the close slot ends it.
class SFOLE2 : public ZEPObject {
public:
    // Makes the record of a stream; `*out` is null when memory is short. Storage and stream are kept, and
    // released by the record's close slot.
    KAL_API SFOLE2(SFILE** out, IStorage* openStorage, IStream* openStream, uint16_t mode);
    KAL_API ~SFOLE2() = default;
    SFOLE2(const SFOLE2&) = delete;
    SFOLE2& operator=(const SFOLE2&) = delete;

    // The new position, the bytes read, the bytes written; KAL_NO_POSITION on failure.
    KAL_API uint32_t _llseek(int32_t offset, int origin);
    KAL_API uint32_t _lread(void* destination, uint32_t count);
    KAL_API uint32_t _lwrite(const void* source, uint32_t count);
    // As the free function of that name, which comes here for such a stream.
    KAL_API int16_t KalFlushBuf();

    IStream* stream;    // the open stream
    IStorage* storage;  // the open file
    SFILE* owner;       // the stream's record
    uint16_t readOnly;  // 1: opened without write access
    uint16_t writeOnly; // 1: no reading
};

// --- What the slots hold; see SFILE for arguments. Statuses as those of a disk stream -------------------

// As the slots say.
KAL_API int32_t KalFOLE2Read(SFILE* stream, void* destination, uint32_t count);
KAL_API int32_t KalFOLE2GetChar(SFILE* stream);
KAL_API int32_t KalFOLE2Write(SFILE* stream, const void* source, uint32_t count);
KAL_API int16_t KalFOLE2PutChar(SFILE* stream, char byte);
KAL_API int16_t KalFOLE2Seek(SFILE* stream, int32_t offset, uint32_t origin);
// 0; the status of a dirty buffer that cannot be written back, with the stream still open; KAL_ERR_CLOSE when the
// file could not be brought up to date, with the stream closed.
KAL_API int16_t KalFOLE2Close(SFILE* stream);

// What the access does not allow: 0, with KAL_ERR_READ or KAL_ERR_WRITE in the record's status.
KAL_API int32_t KalNoFOLE2Read(SFILE* stream, void* destination, uint32_t count);
KAL_API int32_t KalNoFOLE2GetChar(SFILE* stream);
KAL_API int32_t KalNoFOLE2Write(SFILE* stream, const void* source, uint32_t count);
KAL_API int16_t KalNoFOLE2PutChar(SFILE* stream, char byte);

#endif
