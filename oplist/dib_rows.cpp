// Single rows of a bitmap list, and the way to each of them.
#include "oplist/blocks.h"
#include "oplist/dib.h"
#include "oplist/vmem_mode.h"

#include <algorithm>
#include <cstring>

namespace {

bool hasOneBlock(const OpList* list) {
    return nextBlock(firstBlock(list)) == nullptr;
}

// Stands in `block`, at `row` counted from `top`.
void stand(OpList* list, opblock* block, uint32_t offset, uint32_t row) {
    list->curBlock = block;
    block->offset = offset;
    list->dib->curLine = static_cast<uint16_t>(row);
    list->pos = positionOf(block);
}

} // namespace

uint32_t rowsPerBlock(const OpList* list) {
    return list->blockSize / list->dib->rowBytes;
}

uint32_t laidOutBytes(const OpList* list, const opblock* block) {
    if (!isDibList(list) || !isSetUp(list))
        return 0;
    const uint64_t full = uint64_t(rowsPerBlock(list)) * list->dib->rowBytes;
    const uint64_t all = uint64_t(list->dib->height) * list->dib->rowBytes + kSpareBytes;
    const uint64_t before = block->index * full;
    if (before >= all)
        return 0;
    return static_cast<uint32_t>(all - before <= list->blockSize ? all - before : full);
}

uint32_t rowSpan(const OpList* list, const opblock* block) {
    const uint32_t bytes = laidOutBytes(list, block);
    if (bytes == 0)
        return 0;
    const uint32_t before = block->index * rowsPerBlock(list);
    const uint32_t left = list->dib->height - std::min<uint32_t>(before, list->dib->height);
    return std::min(left, rowsPerBlock(list)) * list->dib->rowBytes;
}

opblock* lastUsedBlock(const OpList* list) {
    opblock* block = lastBlock(list);
    while (block != nullptr && wholeOf<Block>(block)->used == 0)
        block = previousBlock(block);
    return block;
}

bool findRow(OpList* list, uint32_t rowBytes) {
    if (list->curBlock == nullptr || !locate(list)) {
        list->status = KAL_ERR_POSITION;
        return false;
    }
    const auto room = [&](const opblock* block) {
        const uint32_t capacity = block->capacity; // by value: its place in the record is not aligned
        return std::max(capacity, rowSpan(list, block));
    };
    while (uint64_t(list->curBlock->offset) + rowBytes > room(list->curBlock))
        if (!stepToNextBlock(list)) {
            list->status = KAL_ERR_POSITION;
            return false;
        }
    return true;
}

void passRow(OpList* list, uint32_t rowBytes) {
    list->curBlock->offset += rowBytes;
    list->pos = positionOf(list->curBlock);
}

int16_t seekToRow(OpList* list, uint32_t row, uint32_t offset) {
    const uint32_t rowBytes = list->dib->rowBytes;
    if (hasOneBlock(list)) {
        stand(list, firstBlock(list), row * rowBytes + offset, row);
        return KAL_OK;
    }
    // No row of a bitmap without rows needs to fit a block.
    const uint32_t rows = rowsPerBlock(list);
    const uint32_t block = rows > 0 ? row / rows : UINT32_MAX;
    const uint64_t position = uint64_t(block) * kBlockSpan + (row - block * rows) * rowBytes + offset;
    if (position > INT32_MAX) { // past the blocks that a position can name
        list->curBlock = nullptr;
        return list->status = KAL_ERR_POSITION;
    }
    return KalSeekDIBOp(list, static_cast<int32_t>(position));
}

uint32_t KalPutDIBOpData(OpList* list, const void* data, uint32_t size) {
    return KalPutOpData(list, KAL_OP_ROW, data, size);
}

int16_t KalGetDIBOpData(OpList* list, void* destination, uint16_t size) {
    if (list == nullptr)
        return KAL_ERR_POSITION;
    if (!findRow(list, size))
        return list->status;
    opblock* block = list->curBlock;
    const uint32_t held = bytesHeld(block, size);
    if (held > 0) {
        const LockedBlock locked(list, block);
        if (locked.bytes() == nullptr)
            return list->status;
        std::memcpy(destination, locked.bytes() + block->offset, held);
    }
    std::memset(static_cast<uint8_t*>(destination) + held, 0, size - held);
    passRow(list, size);
    return KAL_OK;
}

int16_t KalSeekDIBOp(OpList* list, int32_t position) {
    if (list == nullptr)
        return KAL_ERR_POSITION;
    if (firstBlock(list) == nullptr) {
        list->curBlock = nullptr;
        return KAL_OK;
    }
    if (!isSetUp(list))
        return KAL_ERR_POSITION;
    list->dib->curLine = 0;
    if (const int16_t status = seekInBlocks(list, static_cast<uint32_t>(position)); status != KAL_OK)
        return status;
    // Every block before this one is full of rows.
    const uint32_t rowBytes = list->dib->rowBytes;
    const uint32_t before = list->curBlock->index * rowsPerBlock(list);
    list->dib->curLine = static_cast<uint16_t>(before + list->curBlock->offset / rowBytes);
    return KAL_OK;
}

int16_t KalSeekDIBScanLineOffset(OpList* list, uint16_t line, uint16_t offset) {
    if (list == nullptr)
        return KAL_ERR_POSITION;
    if (firstBlock(list) == nullptr)
        return KAL_OK;
    if (!isSetUp(list))
        return KAL_ERR_POSITION;
    if (line >= list->dib->top)
        return seekToRow(list, static_cast<uint32_t>(line - list->dib->top), offset);
    stand(list, firstBlock(list), offset, 0);
    return KAL_ERR_POSITION;
}

uint32_t KalDIBPosToLineNumber(OpList* list) {
    if (list == nullptr || firstBlock(list) == nullptr || !isSetUp(list))
        return 0;
    if (hasOneBlock(list))
        return list->pos / list->dib->rowBytes;
    if (list->curBlock == nullptr)
        return 0;
    return list->curBlock->offset / list->dib->rowBytes + list->curBlock->index * rowsPerBlock(list);
}

void KalShrinkDIBOpList(OpList* list) {
    if (list != nullptr && isDibList(list))
        shrinkBlocks(list);
}
