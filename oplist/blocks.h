// The blocks of a VMem list: VMem memory in a chain, each with its own current offset.
//
// A position is the block's index × 0x100000 plus an offset, so that the end of a block filled to exactly 1 MiB is
// the start of the next. Only blocks 0 to 2047 can be named by one.
#ifndef KAL_OPLIST_BLOCKS_H
#define KAL_OPLIST_BLOCKS_H

#include "memory/record.h"

#include <kal/list.h>
#include <kal/oplist.h>
#include <kal/vmem.h>

#include <algorithm>

inline constexpr uint32_t kBlockSpan = 0x100000;
inline constexpr uint32_t kNamedBlocks = 2048;

// What a node holds: the block as callers see it, and how far it has been written.
struct Block {
    opblock shown;
    uint32_t used; // one past the last byte that was put; in a bitmap list, the end op not counted
};

inline bool isVMemList(const OpList* list) {
    return (list->flags & KAL_OPL_VMEM) != 0;
}
inline bool isDibList(const OpList* list) {
    return isVMemList(list) && (list->flags & KAL_OPL_DIB) != 0;
}

inline opblock* firstBlock(const OpList* list) {
    return list->blocks != nullptr && list->blocks->first != nullptr
               ? reinterpret_cast<opblock*>(list->blocks->first + 1)
               : nullptr;
}

inline opblock* lastBlock(const OpList* list) {
    return list->blocks != nullptr && list->blocks->last != nullptr
               ? reinterpret_cast<opblock*>(list->blocks->last + 1)
               : nullptr;
}

inline opblock* nextBlock(opblock* block) {
    return static_cast<opblock*>(KalNextNode(block));
}
inline opblock* previousBlock(opblock* block) {
    return static_cast<opblock*>(KalSPrevNode(block));
}

// How many of the `count` bytes at the block's offset it holds; the others read as 0.
inline uint32_t bytesHeld(const opblock* block, uint32_t count) {
    if (block->vmem == nullptr || block->offset >= block->capacity)
        return 0;
    return std::min<uint32_t>(count, block->capacity - block->offset);
}

// Positions of blocks past the named ones lie past all named positions, so that none is taken for another.
inline uint32_t positionOf(const opblock* block) {
    const uint32_t index = block->index;
    const uint32_t shown = index < kNamedBlocks ? index : kNamedBlocks | (index & (kNamedBlocks - 1));
    return shown * kBlockSpan + block->offset;
}

// Makes a block of `capacity` bytes, without memory, at the end of the chain. Null when memory is short or there
// are too many.
opblock* appendBlock(OpList* list, uint32_t capacity);

// Gives the block its memory if it has none. False, with status KAL_ERR_VMEM, when there is none to be had.
bool ensureMemory(OpList* list, opblock* block);

// The block of that index, or null; costs the walk from the nearest of first, current and last block.
opblock* findBlock(OpList* list, uint32_t index);

// Makes the block that `pos` names the current one, where it is not. False, with status KAL_ERR_POSITION, when there
// is none.
bool locateAnew(OpList* list);
inline bool locate(OpList* list) {
    return (list->curBlock != nullptr && positionOf(list->curBlock) == list->pos) || locateAnew(list);
}

// Steps to the start of the next block; false, with nothing changed, when there is none.
bool stepToNextBlock(OpList* list);

// Frees every block with its memory and empties the chain.
void releaseBlocks(OpList* list);

// A block's memory, locked while in scope; null when it has none or it cannot be brought back, which becomes the
// list's status.
class LockedBlock {
public:
    LockedBlock(OpList* list, opblock* block)
        : handle_(block->vmem),
          bytes_(handle_ != nullptr ? static_cast<uint8_t*>(KalLockVMem(handle_)) : nullptr) {
        if (handle_ != nullptr && bytes_ == nullptr)
            list->status = KAL_ERR_VMEM;
    }
    ~LockedBlock() {
        if (bytes_ != nullptr)
            KalUnLockVMem(handle_);
    }
    LockedBlock(const LockedBlock&) = delete;
    LockedBlock& operator=(const LockedBlock&) = delete;
    uint8_t* bytes() const { return bytes_; }

private:
    void* handle_;
    uint8_t* bytes_;
};

#endif
