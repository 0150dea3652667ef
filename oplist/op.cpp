#include "oplist/op.h"

void* KalCreateOp(uint32_t type, uint32_t size) {
    if (size > UINT32_MAX - KAL_OP_HEADER)
        return nullptr;
    auto* block = static_cast<uint8_t*>(KalAllocSMem(size + KAL_OP_HEADER));
    if (block == nullptr)
        return nullptr;
    storeOpHeader(block, type, size);
    return block + KAL_OP_HEADER;
}
