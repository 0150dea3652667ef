// Bitmap lists, for the rest of this folder.
#ifndef KAL_OPLIST_DIB_H
#define KAL_OPLIST_DIB_H

#include <kal/oplist.h>

// Bytes of the last block behind the last row, for the end op and small ops.
inline constexpr uint32_t kSpareBytes = 36;

// Whether the list's rows are laid out.
bool isSetUp(const OpList* list);

// The same before a put or get, which must tell why it fails: without, the list's status becomes KAL_ERR_POSITION.
bool requireSetUp(OpList* list);

// The rows of a full block. The list must be set up.
uint32_t rowsPerBlock(const OpList* list);

// The capacity that a block was laid out with, also where it was shrunk since, and how much of that rows take. 0 for a
// list that is not set up and for blocks added behind the layout.
uint32_t laidOutBytes(const OpList* list, const opblock* block);
uint32_t rowSpan(const OpList* list, const opblock* block);

// Makes the description of a list that has none. 0, or KAL_ERR_BUFFER.
int16_t makeDescription(OpList* list);

// Frees description and line buffer, which are the list's own.
void freeDescription(OpList* list);

// Moves the list to byte `offset` of a line counted from `top`.
int16_t seekToRow(OpList* list, uint32_t row, uint32_t offset);

// Steps to the block that holds the next `rowBytes` bytes from the list's position on. False, with status
// KAL_ERR_POSITION, past the last.
bool findRow(OpList* list, uint32_t rowBytes);

// The last block that holds a row or an op, or null.
opblock* lastUsedBlock(const OpList* list);

// Moves the list behind a row that was read.
void passRow(OpList* list, uint32_t rowBytes);

#endif
