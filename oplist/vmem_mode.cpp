#include "oplist/vmem_mode.h"

#include "memory/vmem_used.h"
#include "oplist/blocks.h"
#include "oplist/dib.h"
#include "oplist/op.h"

#include <algorithm>

namespace {

constexpr uint32_t kFiller = 0xFFFFFFFF; // type and size of the op that says: go on in the next block

bool fits(const opblock* block, uint32_t bytes) {
    return uint64_t(block->offset) + bytes <= block->capacity;
}

// Tells that bytes of a block were put; the caller holds the lock.
void noteWritten(opblock* block, uint32_t end) {
    Block* whole = wholeOf<Block>(block);
    whole->used = std::max<uint32_t>(whole->used, end);
    markUsedVMem(block->vmem, whole->used);
}

bool leaveFiller(OpList* list) {
    opblock* block = list->curBlock;
    if (!fits(block, KAL_OP_HEADER)) // a seek may stand anywhere
        return true;
    if (!ensureMemory(list, block))
        return false;
    const LockedBlock locked(list, block);
    if (locked.bytes() == nullptr)
        return false;
    storeLittle(locked.bytes() + block->offset, kFiller);
    noteWritten(block, block->offset + KAL_OP_HEADER);
    return true;
}

bool startBlock(OpList* list, uint32_t capacity) {
    opblock* block = appendBlock(list, std::max(capacity, uint32_t(list->blockSize)));
    if (block == nullptr) {
        list->status = KAL_ERR_MEMORY;
        return false;
    }
    list->curBlock = block;
    return true;
}

// Whether the bytes fit at the block's offset, if need be in the room that a bitmap's shrunk block then gets back: one
// that was laid out, or one that was added for an op that fits in none of those.
bool hasRoom(OpList* list, opblock* block, uint32_t bytes) {
    if (fits(block, bytes))
        return true;
    uint32_t capacity = laidOutBytes(list, block);
    if (capacity == 0 && isDibList(list) && isSetUp(list))
        capacity = std::max(bytes, uint32_t(list->blockSize));
    if (capacity <= block->capacity || uint64_t(block->offset) + bytes > capacity)
        return false;
    if (block->vmem != nullptr && KalReAllocVMem(block->vmem, capacity) == nullptr)
        return false;
    block->capacity = capacity;
    return true;
}

// Makes a block current in which `needed` bytes fit at its offset, and which has memory.
bool findRoom(OpList* list, uint32_t needed, bool withFiller) {
    if (list->status != KAL_OK)
        return false;
    if (list->curBlock != nullptr) {
        if (!locate(list))
            return false;
        while (!hasRoom(list, list->curBlock, needed)) {
            if (withFiller && !leaveFiller(list))
                return false;
            if (!stepToNextBlock(list)) {
                list->curBlock = nullptr;
                break;
            }
        }
    }
    if (list->curBlock == nullptr && !startBlock(list, needed))
        return false;
    return ensureMemory(list, list->curBlock);
}

// findRoom for a row. Those of a bitmap that is set up go where the layout has room for them and nowhere else.
bool findRoomForRow(OpList* list, uint32_t rowBytes) {
    if (!isDibList(list) || !isSetUp(list) || list->status != KAL_OK)
        return findRoom(list, rowBytes, false);
    bool found = list->curBlock != nullptr && locate(list);
    while (found && uint64_t(list->curBlock->offset) + rowBytes > rowSpan(list, list->curBlock))
        found = stepToNextBlock(list);
    if (!found) {
        list->status = KAL_ERR_POSITION;
        return false;
    }
    if (!hasRoom(list, list->curBlock, rowBytes)) {
        list->status = KAL_ERR_VMEM;
        return false;
    }
    return ensureMemory(list, list->curBlock);
}

// Moves the list behind `count` bytes that were put. Where they start.
uint32_t advance(OpList* list, uint32_t count) {
    list->curBlock->offset += count;
    list->pos = positionOf(list->curBlock);
    return list->pos - count;
}

} // namespace

uint32_t putInBlocks(OpList* list, const void* first, uint32_t firstBytes, const void* second,
                     uint32_t secondBytes, bool withFiller) {
    const uint32_t count = firstBytes + secondBytes;
    // Room for one more header stays behind every op, for a filler or the end op.
    if (!findRoom(list, count + KAL_OP_HEADER, withFiller))
        return KAL_OP_FAILED;
    opblock* block = list->curBlock;
    const LockedBlock locked(list, block);
    if (locked.bytes() == nullptr)
        return KAL_OP_FAILED;
    // The end op of a bitmap list never takes the place of a row that stands there, and counts for none.
    const bool isBitmapEnd = isDibList(list) && count == KAL_OP_HEADER &&
                             loadOpHeader(static_cast<const uint8_t*>(first)).type == KAL_OP_END;
    if (!isBitmapEnd || block->offset >= wholeOf<Block>(block)->used) {
        uint8_t* place = locked.bytes() + block->offset;
        std::memcpy(place, first, firstBytes);
        if (secondBytes > 0)
            std::memcpy(place + firstBytes, second, secondBytes);
        noteWritten(block, isBitmapEnd ? 0 : block->offset + count);
    }
    return advance(list, count);
}

uint32_t putRow(OpList* list, const void* data, uint32_t count, uint32_t rowBytes) {
    if (rowBytes > kBlockSpan) { // no position could tell where it ends
        list->status = KAL_ERR_BUFFER;
        return KAL_OP_FAILED;
    }
    if (!findRoomForRow(list, rowBytes))
        return KAL_OP_FAILED;
    opblock* block = list->curBlock;
    const LockedBlock locked(list, block);
    if (locked.bytes() == nullptr)
        return KAL_OP_FAILED;
    uint8_t* place = locked.bytes() + block->offset;
    if (count > 0)
        std::memcpy(place, data, count);
    std::memset(place + count, 0, rowBytes - count);
    noteWritten(block, block->offset + rowBytes);
    list->putPending = 1;
    return advance(list, rowBytes);
}

void* getFromBlocks(OpList* list) {
    if (list->status != KAL_OK || list->curBlock == nullptr || !locate(list))
        return nullptr;
    for (;;) {
        opblock* block = list->curBlock;
        if (block->vmem == nullptr || !fits(block, KAL_OP_HEADER))
            return nullptr; // nothing was put here
        const LockedBlock locked(list, block);
        if (locked.bytes() == nullptr)
            return nullptr;
        const uint8_t* place = locked.bytes() + block->offset;
        const OpHeader header = loadOpHeader(place);
        if (header.type == KAL_OP_FILLER) {
            if (stepToNextBlock(list))
                continue;
            list->curBlock = nullptr;
            return nullptr;
        }
        // A header that runs past the block was never put.
        if (header.type == KAL_OP_END || !fits(block, KAL_OP_HEADER + header.size))
            return nullptr;
        void* op = createOpToFill(header.type, header.size);
        if (op == nullptr) {
            list->status = KAL_ERR_BUFFER;
            return nullptr;
        }
        // What follows is likely to be got next, and comes from afar while this op is made and copied.
        for (uint32_t ahead = 0; ahead <= std::min<uint32_t>(header.size, 2048); ahead += 64)
            __builtin_prefetch(place + KAL_OP_HEADER + header.size + ahead);
        std::memcpy(op, place + KAL_OP_HEADER, header.size);
        advance(list, KAL_OP_HEADER + header.size);
        return op;
    }
}

int16_t seekInBlocks(OpList* list, uint32_t position) {
    opblock* first = firstBlock(list);
    if (first == nullptr) {
        list->curBlock = nullptr;
        return KAL_OK;
    }
    const uint32_t index = position / kBlockSpan;
    opblock* block = index < kNamedBlocks ? findBlock(list, index) : nullptr;
    list->curBlock = block;
    if (block == nullptr)
        return list->status = KAL_ERR_POSITION;
    block->offset = position % kBlockSpan;
    list->pos = positionOf(block);
    return KAL_OK;
}

void shrinkBlocks(OpList* list) {
    const bool isBitmap = isDibList(list);
    const bool owesEnd = list->putPending != 0;
    const uint32_t end = owesEnd ? list->pos : list->endPos;
    const uint32_t index = end / kBlockSpan;
    opblock* block = isBitmap && owesEnd    ? lastUsedBlock(list)
                     : index < kNamedBlocks ? findBlock(list, index)
                                            : nullptr;
    // The rows of a bitmap's block that is not the last are found by their number in a full one.
    if (block == nullptr || (isBitmap && nextBlock(block) != nullptr))
        return;
    // An end op that is still to come is put like every op, with room for one more header behind it.
    const uint32_t used = wholeOf<Block>(block)->used;
    uint32_t needed = (isBitmap && owesEnd ? used : end % kBlockSpan) + (owesEnd ? 2 : 1) * KAL_OP_HEADER;
    if (isBitmap || owesEnd)
        needed = std::max(needed, used);
    if (block->capacity <= needed)
        return;
    void* const memory =
        block->vmem != nullptr ? KalReAllocVMem(block->vmem, needed) : allocateUnusedVMem(needed);
    if (memory == nullptr)
        return; // the block is as it was
    block->vmem = memory;
    block->capacity = needed;
}
