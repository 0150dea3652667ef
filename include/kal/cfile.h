// Compressed streams: LZW runs over any stream.
//
// A run starts at a byte boundary of the underlying stream with a clear code, goes on across calls as long as
// nobody else moves that stream, and ends when it is flushed. It has no header and no length: who stores a
// run keeps its position and its length in plain bytes. The stored form is described in docs/formats/run.md.
#ifndef KAL_CFILE_H
#define KAL_CFILE_H

#include <kal/base.h>
#include <kal/lzw.h>
#include <kal/stream.h>

#pragma pack(push, 1)
struct scfiletag {
    SFILE* stream;        // the underlying stream; not owned
    TAGWRITELZW* encoder; // owned; a new one for each run
    readlzw* decoder;     // owned
    uint32_t runPos;      // logical position where the current run goes on; KAL_NO_POSITION: no run
    uint8_t* expansion;   // the last decoded string, last character first; owned
    uint16_t pending;     // characters of it not yet delivered: the first `pending` bytes
    int16_t status;       // of the last read or write
};
#pragma pack(pop)

static_assert(sizeof(scfiletag) == 8 + 4 * sizeof(void*));

// Lays a compressed stream over `stream`, which stays the caller's. 0, or with `*out` null and nothing left
// behind KAL_ERR_MEMORY or KAL_ERR_BUFFER. KalFreeCFile ends it.
KAL_API int16_t KalMakeCFile(scfiletag** out, SFILE* stream);

// Flushes and frees a compressed stream, not the stream under it. 0; a flush that fails is not reported, so a
// caller that must know flushes first.
KAL_API int16_t KalFreeCFile(scfiletag* cfile);

// Compresses `count` bytes: continues the run when the stream stands where it stopped, else starts a new one
// here. Bytes consumed; fewer than `count` after a failure, which stands in `status`.
KAL_API uint16_t KalWriteCFile(scfiletag* cfile, const uint8_t* data, uint16_t count);

// Ends the run that was written, if there is one: pending code, end code, zero bits to the byte boundary. On
// a buffered stream with nothing unwritten it does nothing. 0, KAL_ERR_RUN when the stream was moved since
// the last write, or the stream's status.
KAL_API int16_t KalFlushCFile(scfiletag* cfile);

// Delivers up to `count` plain bytes of the run. Bytes delivered; fewer when the run is over or damaged or
// none starts here (`status` KAL_ERR_RUN) or the stream fails (its status).
KAL_API uint16_t KalReadCFile(scfiletag* cfile, uint8_t* destination, uint16_t count);

#endif
