// Operation lists as the program uses them: failures are thrown, operations and lists free themselves.
#ifndef KAL_TOOLS_OPS_H
#define KAL_TOOLS_OPS_H

#include "tools/bytes.h"

#include <kal.h>

#include <memory>

// The most bytes of an operation that goes through a list in memory.
inline constexpr uint32_t mostPayload = 65531;

// An operation got from a list.
struct FreeOp {
    void operator()(void* op) const { KalFreeSMem(KalOpBlock(op)); }
};
using Op = std::unique_ptr<void, FreeOp>;

inline ByteView payload(const Op& op) {
    return {static_cast<const uint8_t*>(op.get()), KalOpSize(op.get())};
}

// Movable memory while this object lives: what does not fit goes to a file without a name. Throws a Failure.
class MovableMemory {
public:
    // The most MiB to hold at a time, at most 4,095; 0 for as much as is free.
    explicit MovableMemory(uint32_t limit);
    ~MovableMemory();
    MovableMemory(const MovableMemory&) = delete;
    MovableMemory& operator=(const MovableMemory&) = delete;
};

// A list in movable memory. Throws std::bad_alloc.
class MovableList {
public:
    enum class Kind : uint16_t { Ops = KAL_OPL_VMEM, Bitmap = KAL_OPL_VMEM | KAL_OPL_DIB };

    explicit MovableList(Kind kind);
    ~MovableList();
    MovableList(const MovableList&) = delete;
    MovableList& operator=(const MovableList&) = delete;

    operator OpList*() const { return list_; }

    // Ends what was put and goes to the first operation.
    void rewind() const;

private:
    OpList* list_ = nullptr;
};

// Each throws a Failure that says why it could not be done, std::bad_alloc, or Interrupted.
void putOp(OpList* list, uint16_t type, ByteView bytes);
void putOp(OpList* list, const Op& op);

// The next operation, or null at the list's end. What cannot be read is Damaged.
Op nextOp(OpList* list);

#endif
