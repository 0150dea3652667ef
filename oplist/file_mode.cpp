#include "oplist/file_mode.h"

#include "compress/end_run.h"
#include "items/item_index.h"
#include "memory/record.h"
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

// The bytes accepted.
uint32_t writeBytes(OpList* list, const void* source, uint32_t count) {
    if (list->compStream == nullptr) {
        const int32_t accepted = list->stream->write(list->stream, source, count);
        return accepted > 0 ? static_cast<uint32_t>(accepted) : 0;
    }
    const auto* from = static_cast<const uint8_t*>(source);
    for (uint32_t done = 0; done < count;) {
        const uint32_t piece = std::min(count - done, kPieceMax);
        const uint32_t accepted = KalWriteCFile(list->compStream, from + done, static_cast<uint16_t>(piece));
        done += accepted;
        if (accepted != piece)
            return done;
    }
    return count;
}

bool readBytes(OpList* list, void* destination, uint32_t count) {
    if (list->compStream == nullptr)
        return list->stream->read(list->stream, destination, count) == static_cast<int32_t>(count);
    return KalReadCFile(list->compStream, static_cast<uint8_t*>(destination), static_cast<uint16_t>(count)) ==
           count;
}

} // namespace

OpList* makeListRecord() {
    return static_cast<OpList*>(KalAllocSMem(sizeof(StreamList)));
}

uint32_t putInStream(OpList* list, const void* first, uint32_t firstBytes, const void* second,
                     uint32_t secondBytes) {
    wholeOf<StreamList>(list)->endFound = false;
    if (list->stream == nullptr || !moveStreamTo(list, list->pos))
        return KAL_OP_FAILED;
    const uint32_t start = streamPosition(list);
    uint32_t accepted = writeBytes(list, first, firstBytes);
    if (accepted == firstBytes && secondBytes > 0)
        accepted += writeBytes(list, second, secondBytes);
    if (accepted != firstBytes + secondBytes) {
        keepStatus(list);
        if (list->compStream != nullptr && (accepted > 0 || streamPosition(list) != start))
            wholeOf<StreamList>(list)->brokeOff = true;
        return KAL_OP_FAILED;
    }
    list->pos = streamPosition(list);
    return start;
}

void* getFromStream(OpList* list) {
    if (list->stream == nullptr || wholeOf<StreamList>(list)->endFound || !moveStreamTo(list, list->pos))
        return nullptr;
    uint8_t bytes[KAL_OP_HEADER];
    if (!readBytes(list, bytes, sizeof bytes)) {
        keepStatus(list);
        return nullptr;
    }
    const OpHeader header = loadOpHeader(bytes);
    if (header.type == KAL_OP_END) {
        // A compressed stream cannot read it again: it is read in one pass.
        wholeOf<StreamList>(list)->endFound = list->compStream != nullptr;
        return nullptr;
    }
    void* op = createOpToFill(header.type, header.size);
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

bool endPutsInStream(OpList* list) {
    const int16_t status = list->compStream != nullptr ? endWrittenRun(list->compStream) : int16_t(KAL_OK);
    if (status == KAL_OK)
        return true;
    if (list->status == KAL_OK)
        list->status = status;
    wholeOf<StreamList>(list)->brokeOff = true;
    return false;
}

int16_t seekInStream(OpList* list, uint32_t position) {
    if (list->stream == nullptr)
        return list->status;
    list->pos = position;
    wholeOf<StreamList>(list)->endFound = false;
    return list->stream->seek(list->stream, static_cast<int32_t>(position), KAL_SEEK_START);
}

uint16_t isStreamEmpty(const OpList* list) {
    SFILE* stream = list->stream;
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
