#include "tools/ops.h"

#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/progress.h"

namespace {

void requirePut(OpList* list, uint32_t position) {
    throwIfInterrupted();
    if (position != KAL_OP_FAILED)
        return;
    const int16_t status = KalGetOpError(list);
    requireMemory(status);
    throw Failure(statusText(status));
}

} // namespace

void putOp(OpList* list, uint16_t type, ByteView bytes) {
    requirePut(list, KalPutOpData(list, type, bytes.data(), static_cast<uint32_t>(bytes.size())));
}

void putOp(OpList* list, const Op& op) {
    requirePut(list, KalPutOp(list, op.get()));
}

Op nextOp(OpList* list) {
    throwIfInterrupted();
    Op op(KalGetOp(list));
    const int16_t status = op == nullptr ? KalGetOpError(list) : int16_t{0};
    requireMemory(status);
    if (status != 0)
        throw Damaged(statusText(status));
    if (op != nullptr)
        Progress::add(payload(op).size());
    return op;
}
