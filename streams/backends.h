// The back-ends of streams: what each is asked, and what a disk stream is.
//
// Adding a back-end: one source file with its six operations and its Backend, and one line in the table of open.cpp.
#ifndef KAL_STREAMS_BACKENDS_H
#define KAL_STREAMS_BACKENDS_H

#include <kal/heap.h>
#include <kal/stream.h>

#include <cstring>

// The six operations of a back-end; each back-end has one such table.
struct StreamOperations {
    decltype(SFILE::read) read;
    decltype(SFILE::getChar) getChar;
    decltype(SFILE::write) write;
    decltype(SFILE::putChar) putChar;
    decltype(SFILE::seek) seek;
    decltype(SFILE::close) close;
};

inline void installOperations(SFILE* record, const StreamOperations& operations) {
    record->read = operations.read;
    record->getChar = operations.getChar;
    record->write = operations.write;
    record->putChar = operations.putChar;
    record->seek = operations.seek;
    record->close = operations.close;
}

// A copy of a text, for a record to own, or null.
inline char* copyText(const char* text) {
    const size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(KalAllocSMem(static_cast<uint32_t>(size)));
    if (copy != nullptr)
        std::memcpy(copy, text, size);
    return copy;
}

// Bytes of a stream that lie somewhere in memory.
struct PlacedBytes {
    const uint8_t* bytes = nullptr;
    uint32_t count = 0;
    void* block = nullptr; // what keeps them there, for `letGo`
};

// A back-end, as the table of open.cpp lists it. A stream is known by its close slot.
struct Backend {
    // By which KalOpenFile chooses it; 0 for one that is not opened there.
    uint16_t modeBit;
    // On a fresh record (all 0 but `mode`): gives it its storage and operations and returns 0; on failure releases
    // it and returns the status of the open.
    int16_t (*setUp)(SFILE* record, const char* name, int32_t size);
    decltype(SFILE::close) close;
    // Writes back what the stream keeps in a buffer of its own way; null where KalFlushBuf needs no help.
    int16_t (*flush)(SFILE* stream);
    // What get-character would give from `pos` on, as far as it lies in one place, or nothing; null for a back-end
    // that keeps bytes in the record's buffer alone.
    void (*look)(SFILE* stream, PlacedBytes* placed);
    // Moves the stream over `count` of these bytes, as so many get-character calls would. Null without `look`.
    void (*take)(SFILE* stream, uint32_t count);
    // Ends a look that found bytes; null where there is nothing to do.
    void (*letGo)(PlacedBytes* placed);
};

// The back-end of a stream in the table; null for a disk stream and for streams that others made.
const Backend* backendOf(const SFILE* stream);

// --- What a disk stream is ---------------------------------------------------------------------------------

// Whether KalOpenFile opens a file of the host for the mode.
bool isDiskMode(uint16_t mode);

// Whether it is a disk stream, in a window or not. False for null.
bool isDiskStream(const SFILE* stream);

// Whether the stream's reads and writes go through the record's buffer: that of a disk stream, of a stream in a
// compound file, or of one that somebody else made. A memory stream may have a buffer that nothing uses.
inline bool usesBuffer(const SFILE* stream) {
    return stream->bufSize != 0 && isDiskMode(stream->mode);
}

// Turns a record into a disk stream over `handle`, which stands at `position`, with a buffer of the default
// size where memory allows. Cannot fail.
void setUpDiskStream(SFILE* record, int32_t handle, uint32_t position);

#endif
