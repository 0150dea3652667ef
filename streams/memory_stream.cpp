// Streams in one growing block of global memory.
//
//     handle   the block
//     osPos    the recorded length: raised by a write that makes the block grow, and by a seek that finds the
//              position beyond it
#include "platform/global_memory.h"
#include "streams/backends.h"

#include <kal/heap.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr uint64_t kStep = 1024; // the block's size is a multiple of this

HGLOBAL blockOf(const SFILE* stream) {
    return reinterpret_cast<HGLOBAL>(uintptr_t(stream->handle));
}

void setBlock(SFILE* stream, HGLOBAL block) {
    stream->handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block));
}

uint64_t roundUp(uint64_t size) {
    return (size + kStep - 1) / kStep * kStep;
}

int16_t fail(SFILE* stream) {
    return stream->status = KAL_ERR_GLOBAL;
}

// Makes the block hold the bytes up to `end`. A length that a seek raised beyond the block holds none.
bool provide(SFILE* stream, uint64_t end) {
    const uint32_t length = stream->osPos;
    if (end <= std::min<uint64_t>(roundUp(length), GlobalSize(blockOf(stream))))
        return true;
    if (roundUp(end) > UINT32_MAX)
        return false;
    HGLOBAL grown = KalGlobalReAlloc(blockOf(stream), static_cast<uint32_t>(roundUp(end)), GMEM_MOVEABLE);
    if (grown == nullptr)
        return false;
    setBlock(stream, grown);
    stream->osPos = std::max(length, static_cast<uint32_t>(end));
    return true;
}

constexpr StreamOperations operations = {
    KalReadMemFile, KalGetMemChar, KalWriteMemFile, KalPutMemChar, KalSeekMemPos, KalCloseMemFile,
};

int16_t setUp(SFILE* record, const char*, int32_t) {
    installOperations(record, operations);
    setBlock(record, GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, kStep));
    if (record->handle != 0)
        return KAL_OK;
    KalFreeSMem(record);
    return KAL_ERR_GLOBAL;
}

// Where the bytes that can be read end.
uint32_t endOfBytes(const SFILE* stream) {
    return std::min(uint32_t(stream->osPos), GlobalSize(blockOf(stream)));
}

void look(SFILE* stream, PlacedBytes* placed) {
    const uint32_t end = endOfBytes(stream);
    const auto* bytes =
        stream->pos < end ? static_cast<const uint8_t*>(GlobalLock(blockOf(stream))) : nullptr;
    if (bytes != nullptr)
        *placed = {bytes + stream->pos, end - stream->pos, blockOf(stream)};
}

void take(SFILE* stream, uint32_t count) {
    stream->pos += count;
    stream->status = KAL_OK;
}

void letGo(PlacedBytes* placed) {
    GlobalUnlock(placed->block);
}

} // namespace

extern const Backend memoryBackend;
constexpr Backend memoryBackend = {
    .modeBit = KAL_MODE_MEMORY,
    .setUp = setUp,
    .close = KalCloseMemFile,
    .flush = nullptr,
    .look = look,
    .take = take,
    .letGo = letGo,
};

int32_t KalReadMemFile(SFILE* stream, void* destination, uint32_t count) {
    const auto* bytes = static_cast<const uint8_t*>(GlobalLock(blockOf(stream)));
    if (bytes == nullptr)
        return fail(stream);
    const uint32_t pos = stream->pos;
    const uint32_t end = endOfBytes(stream);
    const bool isShort = uint64_t(pos) + count > end;
    if (isShort)
        count = pos < end ? end - pos : 0;
    if (count > 0)
        std::memcpy(destination, bytes + pos, count);
    GlobalUnlock(blockOf(stream));
    stream->pos = pos + count;
    stream->status = isShort ? KAL_ERR_SHORT_READ : KAL_OK;
    return static_cast<int32_t>(count);
}

int32_t KalGetMemChar(SFILE* stream) {
    uint8_t byte = 0;
    KalReadMemFile(stream, &byte, 1);
    return stream->status != KAL_OK ? stream->status : int32_t(byte);
}

int32_t KalWriteMemFile(SFILE* stream, const void* source, uint32_t count) {
    const uint32_t pos = stream->pos;
    if (!provide(stream, uint64_t(pos) + count))
        return fail(stream);
    auto* bytes = static_cast<uint8_t*>(GlobalLock(blockOf(stream)));
    if (bytes == nullptr)
        return fail(stream);
    if (count > 0)
        std::memcpy(bytes + pos, source, count);
    GlobalUnlock(blockOf(stream));
    stream->pos = pos + count;
    stream->status = KAL_OK;
    return static_cast<int32_t>(count);
}

int16_t KalPutMemChar(SFILE* stream, char byte) {
    KalWriteMemFile(stream, &byte, 1);
    return stream->status;
}

int16_t KalSeekMemPos(SFILE* stream, int32_t offset, uint32_t origin) {
    if (stream->pos > stream->osPos)
        stream->osPos = stream->pos;
    const uint32_t from = origin == KAL_SEEK_CURRENT ? stream->pos
                          : origin == KAL_SEEK_END   ? stream->osPos
                                                     : 0;
    stream->pos = from + static_cast<uint32_t>(offset);
    return KAL_OK;
}

int16_t KalCloseMemFile(SFILE* stream) {
    if (stream == nullptr)
        return KAL_OK;
    if (stream->handle != 0)
        GlobalFree(blockOf(stream));
    if (stream->buf != nullptr) // a buffer that somebody set; the stream never used it
        KalFreeSMem(stream->buf);
    return KalFreeSMem(stream);
}
