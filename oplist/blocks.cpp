#include "oplist/blocks.h"

#include "memory/vmem_used.h"

namespace {

uint32_t distance(const opblock* block, uint32_t index) {
    return block->index > index ? block->index - index : index - block->index;
}

} // namespace

opblock* appendBlock(OpList* list, uint32_t capacity) {
    if (list->blocks == nullptr || list->blockCount == UINT16_MAX)
        return nullptr;
    auto* block = static_cast<opblock*>(KalSCreateNode(sizeof(Block)));
    if (block == nullptr)
        return nullptr;
    block->index = list->blockCount++;
    block->capacity = capacity;
    KalSAddTail(list->blocks, block);
    return block;
}

bool ensureMemory(OpList* list, opblock* block) {
    if (block->vmem == nullptr)
        block->vmem = allocateUnusedVMem(block->capacity);
    if (block->vmem == nullptr)
        list->status = KAL_ERR_VMEM;
    return block->vmem != nullptr;
}

opblock* findBlock(OpList* list, uint32_t index) {
    opblock* block = firstBlock(list);
    if (block == nullptr)
        return nullptr;
    opblock* const nearer[] = {list->curBlock, lastBlock(list)};
    for (opblock* candidate : nearer)
        if (candidate != nullptr && distance(candidate, index) < distance(block, index))
            block = candidate;
    while (block != nullptr && block->index < index)
        block = nextBlock(block);
    while (block != nullptr && block->index > index)
        block = previousBlock(block);
    return block;
}

bool locateAnew(OpList* list) {
    opblock* block =
        list->pos / kBlockSpan < kNamedBlocks ? findBlock(list, list->pos / kBlockSpan) : nullptr;
    if (block == nullptr) {
        list->status = KAL_ERR_POSITION;
        return false;
    }
    list->curBlock = block;
    return true;
}

bool stepToNextBlock(OpList* list) {
    opblock* next = nextBlock(list->curBlock);
    if (next == nullptr)
        return false;
    next->offset = 0;
    list->curBlock = next;
    return true;
}

void releaseBlocks(OpList* list) {
    while (opblock* block = firstBlock(list)) {
        if (block->vmem != nullptr)
            KalFreeVMem(block->vmem);
        KalSDestroyNode(KalSDeleteHead(list->blocks));
    }
    list->curBlock = nullptr;
    list->blockCount = 0;
}
