#include "tools/ops.h"

#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/progress.h"

#include <new>

namespace {

bool isForWantOfMemory(int16_t status) {
    return status == KAL_ERR_MEMORY || status == KAL_ERR_BUFFER || status == KAL_ERR_VMEM;
}

void requirePut(OpList* list, uint32_t position) {
    throwIfInterrupted();
    if (position != KAL_OP_FAILED)
        return;
    const int16_t status = KalGetOpError(list);
    if (isForWantOfMemory(status))
        throw std::bad_alloc();
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
    if (isForWantOfMemory(status))
        throw std::bad_alloc();
    if (status != 0)
        throw Damaged(statusText(status));
    if (op != nullptr)
        Progress::add(payload(op).size());
    return op;
}
