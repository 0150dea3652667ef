// Compressed streams: LZW runs over any stream.
//
// A run starts at a byte boundary of the underlying stream with a clear code, goes on across calls as long as
// nobody else moves that stream, and ends when it is flushed. It has no header and no length: who stores a
// run keeps its position and its length in plain bytes. The stored form is described in docs/formats/run.md.
//
// The underlying stream stands, after each call, right behind the last whole byte that was put, or behind the
// byte that holds the last bit of the last code that was needed. Bytes move in as few calls as it allows.
#ifndef KAL_CFILE_H
#define KAL_CFILE_H

#include <kal/base.h>
#include <kal/lzw.h>
#include <kal/stream.h>

#pragma pack(push, 1)
// The compressed stream; read only for callers.
struct scfiletag {
    SFILE* stream;        // the underlying stream; not owned
    TAGWRITELZW* encoder; // owned; started anew for each run. Its strings are kept elsewhere, not in `tree`
    readlzw* decoder;     // owned; likewise, not in `table`
    uint32_t runPos;      // logical position where the current run goes on; KAL_NO_POSITION: no run
    uint8_t* expansion;   // the last decoded string, last character first; owned
    uint16_t pending;     // characters of it not yet delivered: the first `pending` bytes
    int16_t status;       // of the last read or write
};
#pragma pack(pop)

static_assert(KAL_SIZE(scfiletag, 24, 40));
static_assert(KAL_AT(scfiletag, stream, 0, 0) && KAL_AT(scfiletag, encoder, 4, 8) &&
              KAL_AT(scfiletag, decoder, 8, 16) && KAL_AT(scfiletag, runPos, 12, 24) &&
              KAL_AT(scfiletag, expansion, 16, 28) && KAL_AT(scfiletag, pending, 20, 36) &&
              KAL_AT(scfiletag, status, 22, 38));

// Lays a compressed stream over `stream`, which stays the caller's. 0, or with `*out` null and nothing left
// behind KAL_ERR_MEMORY or KAL_ERR_BUFFER. KalFreeCFile ends it.
KAL_API int16_t KalMakeCFile(scfiletag** out, SFILE* stream);

// Ends the run that was written, also where its bytes have left the stream's buffer, and frees the compressed stream, not
// the stream under it. 0; a failure to end the run is not reported, so a caller that must know flushes first.
KAL_API int16_t KalFreeCFile(scfiletag* cfile);

// Compresses `count` bytes: continues the run when the stream stands where it stopped, else starts a new one
// here; 0 bytes change nothing. Bytes consumed; fewer than `count` after a failure, which stands in `status`:
// KAL_ERR_BUFFER when the first run finds no memory for its strings, or the stream's status. If the stream
// has not moved since, the rest can be given again and the run goes on; else the run is lost and the next
// write starts a new one.
KAL_API uint16_t KalWriteCFile(scfiletag* cfile, const uint8_t* data, uint16_t count);

// Ends the run that was written: pending code, end code, zero bits to the byte boundary. It does nothing
// after a read, on a buffered stream whose buffer holds nothing unwritten, and on a stream that keeps no
// `dirty` (memory, VMem, no buffer) when no run is open. 0, KAL_ERR_RUN when the stream was moved since the
// last write or the run was ended before, or the stream's status.
KAL_API int16_t KalFlushCFile(scfiletag* cfile);

// Delivers up to `count` plain bytes: goes on with the run that was read last when the stream stands where it
// stopped, else a run must start here. Bytes delivered; fewer when the run is over or damaged or none starts
// here (`status` KAL_ERR_RUN), the stream fails (its status), or the first run finds no memory for its
// strings (KAL_ERR_BUFFER). Behind a run's end the next read expects the next run.
KAL_API uint16_t KalReadCFile(scfiletag* cfile, uint8_t* destination, uint16_t count);

#endif
