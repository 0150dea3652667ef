// Lists whose ops stand in a stream, plain or compressed.
#ifndef KAL_OPLIST_FILE_MODE_H
#define KAL_OPLIST_FILE_MODE_H

#include <kal/oplist.h>

// What a list in a stream notes besides the public record.
struct StreamList {
    OpList shown;
    bool brokeOff; // a compressed run took part of an op, or could not be ended: it cannot be gone on with
    bool endFound; // the end op of a compressed list was got; nothing behind it is read
};

// A list record, all 0; null when memory is short.
OpList* makeListRecord();

// Writes an op that lies in one or two pieces (the second may be empty) at the list's position. The position,
// or KAL_OP_FAILED with the reason in the list's status.
uint32_t putInStream(OpList* list, const void* first, uint32_t firstBytes, const void* second,
                     uint32_t secondBytes);

// The op at the list's position, or null at the end or on failure.
void* getFromStream(OpList* list);

// Ends what was put so far, so that it can be read: the compressed run, where there is one. False when that
// failed.
bool endPutsInStream(OpList* list);

// Moves list and stream to a position. The stream's status.
int16_t seekInStream(OpList* list, uint32_t position);

// 1 when the stream under the list holds no byte; it stands at its start then.
uint16_t isStreamEmpty(const OpList* list);

// Puts a compressed stream over the list's stream. A list for which it cannot be made loses its stream, which
// is left to the caller, so that no plain byte goes where compressed ones belong. The status, also in the
// list.
int16_t compress(OpList* list);

#endif
