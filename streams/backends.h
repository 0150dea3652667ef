// The back-ends of streams: how a record gets its operations, and the set-up of each.
//
// Adding a back-end: one source file with its six operations in one table and one set-up function declared
// here, and one line in the table of open.cpp.
#ifndef KAL_STREAMS_BACKENDS_H
#define KAL_STREAMS_BACKENDS_H

#include <kal/stream.h>

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

// The set-up of a back-end that KalOpenFile chooses by a mode bit, on a fresh record (all 0 but `mode`). It
// gives the record its storage and operations and returns 0; on failure it releases the record and returns
// the status of the open.
using SetUpBackend = int16_t (*)(SFILE* record, const char* name, int32_t size);

int16_t setUpMemoryStream(SFILE* record, const char* name, int32_t size);
int16_t setUpVMemStream(SFILE* record, const char* name, int32_t size);

// Turns a record into a disk stream over `handle`, which stands at `position`, with a buffer of the default
// size where memory allows. Cannot fail.
void setUpDiskStream(SFILE* record, int32_t handle, uint32_t position);

#endif
