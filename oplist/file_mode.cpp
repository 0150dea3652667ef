#include "oplist/file_mode.h"

#include "items/item_index.h"
#include "oplist/op.h"

#include <algorithm>

namespace {

// The most bytes that one call on a compressed stream moves.
constexpr uint32_t kPieceMax = UINT16_MAX;

// The position of a list is its stream's; with a compressed stream, that of the compressed bytes.
uint32_t streamPosition(const OpList* list) {
    return logicalPosition(list->stream);
}

// Keeps why the stream or compressed stream came short.
void keepStatus(OpList* list) {
    list->status = list->compStream != nullptr ? list->compStream->status : list->stream->status;
}

bool moveStreamTo(OpList* list, uint32_t position) {
    if (streamPosition(list) == position || seekTo(list->stream, position))
        return true;
    list->status = list->stream->status;
    return false;
}

bool writeBytes(OpList* list, const void* source, uint32_t count) {
    if (list->compStream == nullptr)
        return list->stream->write(list->stream, source, count) == static_cast<int32_t>(count);
    const auto* from = static_cast<const uint8_t*>(source);
    while (count > 0) {
        const uint32_t piece = std::min(count, kPieceMax);
        if (KalWriteCFile(list->compStream, from, static_cast<uint16_t>(piece)) != piece)
            return false;
        from += piece;
        count -= piece;
    }
    return true;
}

bool readBytes(OpList* list, void* destination, uint32_t count) {
    if (list->compStream == nullptr)
        return list->stream->read(list->stream, destination, count) == static_cast<int32_t>(count);
    return KalReadCFile(list->compStream, static_cast<uint8_t*>(destination), static_cast<uint16_t>(count)) ==
           count;
}

// A compressed list is read in one pass, so a compressed stream that stands where it stopped while the list's
// position lies before it has delivered the end op.
bool hasReachedCompressedEnd(const OpList* list) {
    const uint32_t position = streamPosition(list);
    return list->compStream != nullptr && list->compStream->runPos == position && list->pos != position;
}

} // namespace

uint32_t putInStream(OpList* list, const void* first, uint32_t firstBytes, const void* second,
                     uint32_t secondBytes) {
    if (list->stream == nullptr || !moveStreamTo(list, list->pos))
        return KAL_OP_FAILED;
    const uint32_t start = streamPosition(list);
    if (!writeBytes(list, first, firstBytes) || (secondBytes > 0 && !writeBytes(list, second, secondBytes))) {
        keepStatus(list);
        return KAL_OP_FAILED;
    }
    list->pos = streamPosition(list);
    return start;
}

void* getFromStream(OpList* list) {
    if (list->stream == nullptr || hasReachedCompressedEnd(list) || !moveStreamTo(list, list->pos))
        return nullptr;
    uint8_t bytes[KAL_OP_HEADER];
    if (!readBytes(list, bytes, sizeof bytes)) {
        keepStatus(list);
        return nullptr;
    }
    const OpHeader header = loadOpHeader(bytes);
    if (header.type == KAL_OP_END)
        return nullptr;
    void* op = KalCreateOp(header.type, header.size);
    if (op == nullptr) {
        list->status = KAL_ERR_BUFFER;
        return nullptr;
    }
    if (!readBytes(list, op, header.size)) {
        keepStatus(list);
        freeOp(op);
        return nullptr;
    }
    list->pos = streamPosition(list);
    return op;
}

void endPutsInStream(OpList* list) {
    if (list->compStream == nullptr)
        return;
    const int16_t status = KalFlushCFile(list->compStream);
    if (status != KAL_OK && list->status == KAL_OK)
        list->status = status;
}

int16_t seekInStream(OpList* list, uint32_t position) {
    if (list->stream == nullptr)
        return list->status;
    list->pos = position;
    return list->stream->seek(list->stream, static_cast<int32_t>(position), KAL_SEEK_START);
}

uint16_t isStreamEmpty(const OpList* list) {
    SFILE* stream = list->stream;
    if (stream == nullptr && list->compStream != nullptr)
        stream = list->compStream->stream;
    if (stream == nullptr)
        return 1;
    KalNextChar(stream);
    const bool empty = stream->status != KAL_OK;
    if (empty)
        stream->status = KAL_OK;
    seekTo(stream, 0);
    return empty ? 1 : 0;
}

int16_t compress(OpList* list) {
    scfiletag* made = nullptr;
    list->status = KalMakeCFile(&made, list->stream);
    list->compStream = made;
    if (list->status != KAL_OK)
        list->stream = nullptr;
    return list->status;
}
