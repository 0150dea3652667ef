#include "tools/ops.h"

#include "tools/failure.h"
#include "tools/interrupt.h"

#include <new>

namespace {

constexpr uint32_t bytesPerMiB = 1U << 20;

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

MovableMemory::MovableMemory(uint32_t limit) {
    if (limit != 0)
        KalSetMaxVMem(limit * bytesPerMiB);
    const int16_t status = KalOpenVMem(0);
    if (isForWantOfMemory(status))
        throw std::bad_alloc();
    if (status != 0)
        throw Failure("the directory for temporary files", "no file can be made in it");
}

MovableMemory::~MovableMemory() {
    KalCloseVMem();
}

MovableList::MovableList(Kind kind) {
    if (KalTempOpList(&list_, static_cast<uint16_t>(kind)) != 0) {
        KalCloseOpList(list_);
        throw std::bad_alloc();
    }
}

MovableList::~MovableList() {
    KalCloseOpList(list_);
}

void MovableList::rewind() const {
    KalSeekOp(list_, 0);
    if (KalGetOpError(list_) != 0)
        throw std::bad_alloc();
}

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
    return op;
}
