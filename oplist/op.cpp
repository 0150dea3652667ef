#include "oplist/op.h"

#include "platform/uncleared.h"

namespace {

void* create(uint32_t type, uint32_t size, void* (*allocate)(uint32_t)) {
    auto* block =
        size > UINT32_MAX - KAL_OP_HEADER ? nullptr : static_cast<uint8_t*>(allocate(size + KAL_OP_HEADER));
    if (block == nullptr)
        return nullptr;
    storeOpHeader(block, type, size);
    return block + KAL_OP_HEADER;
}

} // namespace

void* KalCreateOp(uint32_t type, uint32_t size) {
    return create(type, size, KalAllocSMem);
}

void* createOpToFill(uint32_t type, uint32_t size) {
    return create(type, size, allocateUncleared);
}
