// Streams in VMem blocks of 32 KiB.
//
//     backData   the block table: one 32-bit handle a block, 0 for a block that is missing
//     bufEnd     the length
#include "streams/backends.h"

#include <kal/heap.h>
#include <kal/vmem.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t kBlockBits = 15;
constexpr uint32_t kBlock = 1u << kBlockBits;
constexpr uint32_t kMostBlocks = 0x10000;
constexpr uint32_t kMostAtOnce = 0xFFFF; // bytes in one transfer

using Entry = uint32_t;

uint32_t* tableOf(const SFILE* stream) {
    return reinterpret_cast<Entry*>(stream->backData);
}

uint32_t blocksOf(const SFILE* stream) {
    return KalSizeSMem(tableOf(stream)) / uint32_t(sizeof(Entry));
}

void* handleOf(Entry entry) {
    return reinterpret_cast<void*>(uintptr_t(entry));
}

// Gives the table `count` entries, more than it has; the new ones are missing blocks.
bool growTable(SFILE* stream, uint32_t count) {
    void* grown = KalReAllocSMem(tableOf(stream), count * uint32_t(sizeof(Entry)));
    if (grown == nullptr)
        return false;
    stream->backData = reinterpret_cast<uintptr_t>(grown);
    return true;
}

bool allocBlock(Entry& entry) {
    if (entry == 0)
        entry = static_cast<Entry>(reinterpret_cast<uintptr_t>(KalAllocVMem(2, kBlock)));
    return entry != 0;
}

// Sees to it that a write finds its block: at most one past the table is made.
int16_t provideBlock(SFILE* stream, uint32_t block) {
    const uint32_t blocks = blocksOf(stream);
    if (block > blocks || block >= kMostBlocks || (block == blocks && !growTable(stream, blocks + 1)))
        return KAL_ERR_DISK_FULL;
    return allocBlock(tableOf(stream)[block]) ? int16_t(KAL_OK) : int16_t(KAL_ERR_GLOBAL);
}

// Moves `count` bytes from `pos` on, a piece for each block that they lie in; `movePiece` moves one and gives
// a status. The bytes moved, by which `pos` advances; the status is that of the piece that failed, or 0.
template <class MovePiece>
uint32_t moveInPieces(SFILE* stream, uint32_t count, MovePiece movePiece) {
    uint32_t done = 0;
    int16_t status = KAL_OK;
    while (done < count) {
        const uint32_t pos = stream->pos;
        const uint32_t offset = pos % kBlock;
        const uint32_t size = std::min(count - done, kBlock - offset);
        status = movePiece(pos >> kBlockBits, offset, done, size);
        if (status != KAL_OK)
            break;
        done += size;
        stream->pos = pos + size;
    }
    stream->status = status;
    return done;
}

// Makes what is missing of the blocks up to `block`, for a seek. On failure the blocks made so far stay, and the
// next seek goes on from there: blocks are made from the first on, so that those missing are the last ones.
int16_t provideBlocks(SFILE* stream, uint32_t block) {
    if (block >= blocksOf(stream) && !growTable(stream, block + 1))
        return KAL_ERR_BUFFER;
    Entry* table = tableOf(stream);
    uint32_t missing = block + 1;
    while (missing > 0 && table[missing - 1] == 0)
        missing--;
    for (; missing <= block; missing++)
        if (!allocBlock(table[missing]))
            return KAL_ERR_VMEM;
    return KAL_OK;
}

constexpr StreamOperations operations = {
    KalReadVMemFile, KalGetVMemChar, KalWriteVMemFile, KalPutVMemChar, KalSeekVMemPos, KalCloseVMemFile,
};

int16_t setUp(SFILE* record, const char*, int32_t) {
    installOperations(record, operations);
    record->backData = reinterpret_cast<uintptr_t>(KalAllocSMem(sizeof(Entry)));
    if (record->backData == 0) {
        KalFreeSMem(record);
        return KAL_ERR_BUFFER;
    }
    if (!allocBlock(tableOf(record)[0])) {
        KalCloseVMemFile(record);
        return KAL_ERR_VMEM;
    }
    return KAL_OK;
}

// The handle of a block that may be missing, null then.
void* blockAt(const SFILE* stream, uint32_t block) {
    return block < blocksOf(stream) ? handleOf(tableOf(stream)[block]) : nullptr;
}

void look(SFILE* stream, PlacedBytes* placed) {
    const uint32_t pos = stream->pos;
    void* handle = pos < stream->bufEnd ? blockAt(stream, pos >> kBlockBits) : nullptr;
    const auto* bytes = handle != nullptr ? static_cast<const uint8_t*>(KalLockVMem(handle)) : nullptr;
    if (bytes != nullptr)
        *placed = {bytes + pos % kBlock, std::min(stream->bufEnd - pos, kBlock - pos % kBlock), handle};
}

void take(SFILE* stream, uint32_t count) {
    stream->pos += count;
    stream->status = KAL_OK;
}

void letGo(PlacedBytes* placed) {
    KalUnLockVMem(placed->block);
}

} // namespace

extern const Backend vmemBackend;
constexpr Backend vmemBackend = {
    .modeBit = KAL_MODE_VMEM,
    .setUp = setUp,
    .close = KalCloseVMemFile,
    .flush = nullptr,
    .look = look,
    .take = take,
    .letGo = letGo,
};

int32_t KalReadVMemFile(SFILE* stream, void* destination, uint32_t count) {
    const uint32_t length = stream->bufEnd;
    const uint32_t ahead = stream->pos < length ? length - stream->pos : 0;
    count = std::min(count, kMostAtOnce);
    const uint32_t moved =
        moveInPieces(stream, std::min(count, ahead),
                     [=](uint32_t block, uint32_t offset, uint32_t done, uint32_t size) -> int16_t {
                         void* handle = blockAt(stream, block);
                         if (handle == nullptr)
                             return KAL_ERR_SHORT_READ;
                         const auto* bytes = static_cast<const uint8_t*>(KalLockVMem(handle));
                         if (bytes == nullptr)
                             return KAL_ERR_VMEM;
                         std::memcpy(static_cast<uint8_t*>(destination) + done, bytes + offset, size);
                         KalUnLockVMem(handle);
                         return KAL_OK;
                     });
    if (count > ahead && stream->status == KAL_OK)
        stream->status = KAL_ERR_SHORT_READ;
    return static_cast<int32_t>(moved);
}

int32_t KalGetVMemChar(SFILE* stream) {
    uint8_t byte = 0;
    KalReadVMemFile(stream, &byte, 1);
    return stream->status != KAL_OK ? stream->status : int32_t(byte);
}

int32_t KalWriteVMemFile(SFILE* stream, const void* source, uint32_t count) {
    const uint32_t moved =
        moveInPieces(stream, std::min(count, kMostAtOnce),
                     [=](uint32_t block, uint32_t offset, uint32_t done, uint32_t size) -> int16_t {
                         const int16_t status = provideBlock(stream, block);
                         if (status != KAL_OK)
                             return status;
                         void* handle = handleOf(tableOf(stream)[block]);
                         auto* bytes = static_cast<uint8_t*>(KalLockVMem(handle));
                         if (bytes == nullptr)
                             return KAL_ERR_VMEM;
                         std::memcpy(bytes + offset, static_cast<const uint8_t*>(source) + done, size);
                         KalMarkDirtyVMem(handle);
                         KalUnLockVMem(handle);
                         return KAL_OK;
                     });
    if (stream->pos > stream->bufEnd)
        stream->bufEnd = stream->pos;
    return static_cast<int32_t>(moved);
}

int16_t KalPutVMemChar(SFILE* stream, char byte) {
    KalWriteVMemFile(stream, &byte, 1);
    return stream->status;
}

int16_t KalSeekVMemPos(SFILE* stream, int32_t offset, uint32_t origin) {
    const uint32_t from = origin == KAL_SEEK_CURRENT ? stream->pos
                          : origin == KAL_SEEK_END   ? stream->bufEnd
                                                     : 0;
    const uint32_t target = from + static_cast<uint32_t>(offset);
    if (target >> kBlockBits >= kMostBlocks)
        return stream->status = KAL_ERR_BUFFER;
    // Past the end the target's block is made; up to the end only what a seek before could not make.
    const uint32_t last = target > stream->bufEnd ? target : std::max(target, 1u) - 1;
    stream->bufEnd = std::max(uint32_t(stream->bufEnd), target); // also when a block is missing
    const int16_t status = provideBlocks(stream, last >> kBlockBits);
    if (status != KAL_OK)
        return stream->status = status;
    stream->pos = target;
    return KAL_OK;
}

int16_t KalCloseVMemFile(SFILE* stream) {
    if (stream == nullptr)
        return KAL_OK;
    const uint32_t blocks = blocksOf(stream);
    for (uint32_t b = 0; b < blocks; b++)
        if (tableOf(stream)[b] != 0)
            KalFreeVMem(handleOf(tableOf(stream)[b]));
    KalFreeSMem(tableOf(stream));
    return KalFreeSMem(stream);
}
