// Copies of VMem lists.
#include "memory/vmem_used.h"
#include "oplist/blocks.h"
#include "oplist/dib.h"
#include "oplist/op.h"
#include "oplist/vmem_mode.h"

#include <algorithm>

namespace {

int16_t copyBlock(OpList* clone, OpList* source, opblock* from) {
    opblock* to = appendBlock(clone, from->capacity);
    if (to == nullptr)
        return KAL_ERR_MEMORY;
    wholeOf<Block>(to)->used = wholeOf<Block>(from)->used;
    if (from->vmem == nullptr)
        return KAL_OK;
    if (!ensureMemory(clone, to))
        return KAL_ERR_VMEM;
    const LockedBlock copied(source, from);
    const LockedBlock fresh(clone, to);
    if (copied.bytes() == nullptr || fresh.bytes() == nullptr)
        return KAL_ERR_VMEM;
    const uint32_t capacity = from->capacity;
    const uint32_t used = std::min(wholeOf<Block>(from)->used, capacity);
    std::memcpy(fresh.bytes(), copied.bytes(), used);
    markUsedVMem(to->vmem, used);
    return KAL_OK;
}

int16_t copyAttachment(dibinfo* clone, const dibinfo* source) {
    if (source->attachment == nullptr)
        return KAL_OK;
    const uint32_t size = KalSizeSMem(source->attachment);
    clone->attachment = KalAllocSMem(size);
    if (clone->attachment == nullptr)
        return KAL_ERR_MEMORY;
    std::memcpy(clone->attachment, source->attachment, size);
    return KAL_OK;
}

bool copyRow(OpList* clone, OpList* source, uint32_t row) {
    const uint32_t rowBytes = source->dib->rowBytes;
    if (seekToRow(source, row, 0) != KAL_OK || seekToRow(clone, row, 0) != KAL_OK)
        return false;
    if (source->curBlock->vmem == nullptr) { // zeros in the clone as they are here
        passRow(source, rowBytes);
        passRow(clone, rowBytes);
        return true;
    }
    uint8_t* buffer = source->dib->lineBuf;
    return KalGetDIBOpData(source, buffer, static_cast<uint16_t>(rowBytes)) == KAL_OK &&
           putRow(clone, buffer, rowBytes, rowBytes) != KAL_OP_FAILED;
}

} // namespace

int16_t KalCloneDIBOpList(OpList* source, OpList** out) {
    *out = nullptr;
    if (!isSetUp(source))
        return KAL_ERR_POSITION;
    if (const int16_t status = KalTempOpList(out, KAL_OPL_VMEM); status != KAL_OK)
        return status;
    OpList* clone = *out;
    clone->flags |= KAL_OPL_DIB;
    const dibinfo* dib = source->dib;
    int16_t status = KalSetupOpList(clone, dib->left, dib->top, dib->width, dib->height, dib->bitsPerPixel, 0,
                                    dib->maxOpBytes);
    if (status == KAL_OK)
        status = copyAttachment(clone->dib, dib);
    if (status != KAL_OK)
        return status;
    for (uint32_t row = 0; row < dib->height && copyRow(clone, source, row); row++) {
    }
    const int16_t error = KalGetOpError(source);
    return error != KAL_OK ? error : KalGetOpError(clone);
}

int16_t KalCloneOpList(OpList* source, OpList** out) {
    *out = nullptr;
    if (source == nullptr || !isVMemList(source))
        return KAL_ERR_POSITION;
    if (isDibList(source))
        return KalCloneDIBOpList(source, out);
    if (const int16_t status = KalTempOpList(out, source->flags); status != KAL_OK)
        return status;
    for (opblock* block = firstBlock(source); block != nullptr; block = nextBlock(block))
        if (const int16_t status = copyBlock(*out, source, block); status != KAL_OK)
            return status;
    return KAL_OK;
}
