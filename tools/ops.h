// Operation lists as the program uses them: failures are thrown, operations and lists free themselves.
#ifndef KAL_TOOLS_OPS_H
#define KAL_TOOLS_OPS_H

#include "tools/bytes.h"

#include <kal.h>

#include <memory>

// The most bytes of an operation that also goes through a list in memory.
inline constexpr uint32_t mostPayload = 65531;

// An operation got from a list.
struct FreeOp {
    void operator()(void* op) const { KalFreeSMem(KalOpBlock(op)); }
};
using Op = std::unique_ptr<void, FreeOp>;

inline ByteView payload(const Op& op) {
    return {static_cast<const uint8_t*>(op.get()), KalOpSize(op.get())};
}

// Each throws a Failure that says why it could not be done, std::bad_alloc, or Interrupted.
void putOp(OpList* list, uint16_t type, ByteView bytes);
void putOp(OpList* list, const Op& op);

// The next operation, or null at the list's end. What cannot be read is Damaged.
Op nextOp(OpList* list);

#endif
