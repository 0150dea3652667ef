// Describing a bitmap and laying out its blocks.
#include "oplist/blocks.h"
#include "oplist/dib.h"
#include "oplist/op.h"

namespace {

uint16_t usualDepth(uint16_t bitsPerPixel) {
    if (bitsPerPixel == 0 || bitsPerPixel > 8)
        return 24;
    return bitsPerPixel == 1 ? 1 : bitsPerPixel <= 4 ? 4 : 8;
}

// All blocks but the last hold whole rows and nothing else.
int16_t layOut(OpList* list) {
    const uint32_t rowBytes = list->dib->rowBytes;
    const uint32_t blockSize = list->blockSize;
    uint64_t left = uint64_t(rowBytes) * list->dib->height + kSpareBytes;
    if (left > blockSize && rowBytes > blockSize)
        return KAL_ERR_VMEM;
    while (left > 0) {
        const uint32_t capacity = left <= blockSize ? static_cast<uint32_t>(left)
                                  : rowBytes > 0    ? blockSize / rowBytes * rowBytes
                                                    : 0;
        opblock* block = capacity > 0 ? appendBlock(list, capacity) : nullptr;
        if (block == nullptr)
            return KAL_ERR_BUFFER;
        list->curBlock = block;
        left -= capacity;
    }
    return KAL_OK;
}

int16_t describe(dibinfo* dib, uint16_t bitsPerPixel) {
    dib->bitsPerPixel = usualDepth(bitsPerPixel);
    const uint32_t rowBytes = KalDIBRowBytes(dib->width, dib->bitsPerPixel);
    if (rowBytes > UINT16_MAX)
        return KAL_ERR_BUFFER;
    dib->lineBuf = static_cast<uint8_t*>(KalAllocSMem(rowBytes));
    if (dib->lineBuf == nullptr)
        return KAL_ERR_BUFFER;
    dib->rowBytes = static_cast<uint16_t>(rowBytes);
    return KAL_OK;
}

void forgetRows(dibinfo* dib) {
    dib->rowBytes = 0;
    if (dib->lineBuf != nullptr)
        KalFreeSMem(dib->lineBuf);
    dib->lineBuf = nullptr;
}

} // namespace

bool isSetUp(const OpList* list) {
    return list != nullptr && list->dib != nullptr && list->dib->rowBytes != 0;
}

bool requireSetUp(OpList* list) {
    if (isSetUp(list))
        return true;
    if (list != nullptr)
        list->status = KAL_ERR_POSITION;
    return false;
}

int16_t makeDescription(OpList* list) {
    if (list->dib == nullptr)
        list->dib = static_cast<dibinfo*>(KalAllocSMem(sizeof(dibinfo)));
    return list->dib != nullptr ? KAL_OK : KAL_ERR_BUFFER;
}

void freeDescription(OpList* list) {
    if (list->dib == nullptr)
        return;
    forgetRows(list->dib);
    KalFreeSMem(list->dib);
    list->dib = nullptr;
}

int16_t KalSetupOpList(OpList* list, uint16_t left, uint16_t top, uint16_t width, uint16_t height,
                       uint16_t bitsPerPixel, uint16_t userWord, uint16_t maxOpBytes) {
    if (list == nullptr)
        return KAL_ERR_NULL_STREAM;
    releaseBlocks(list);
    if (!isDibList(list))
        return KAL_OK;
    if (makeDescription(list) != KAL_OK)
        return KAL_ERR_BUFFER;
    dibinfo* dib = list->dib;
    forgetRows(dib);
    dib->left = left;
    dib->top = top;
    dib->width = width;
    dib->height = height;
    dib->userWord = userWord;
    dib->maxOpBytes = maxOpBytes;
    int16_t status = describe(dib, bitsPerPixel);
    if (status == KAL_OK)
        status = layOut(list);
    if (status != KAL_OK) {
        releaseBlocks(list);
        forgetRows(dib);
    }
    return status;
}
