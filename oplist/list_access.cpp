// Putting, getting and seeking: the steps that every kind of list shares, and the choice of the kind.
#include "oplist/blocks.h"
#include "oplist/dib.h"
#include "oplist/file_mode.h"
#include "oplist/op.h"
#include "oplist/vmem_mode.h"

namespace {

// The payload size of a put as filter, sink and streams see it: a raw bitmap row comes with 8 bytes that only
// the row's own list counts.
uint32_t shownSize(uint32_t type, uint32_t size) {
    constexpr uint32_t kRowExtra = 8;
    return type == KAL_OP_ROW && size > kRowExtra ? size - kRowExtra : size;
}

void showToFilter(OpList* list, void* op, uint32_t type, uint32_t size) {
    if (FilterOps* filter = list->filter)
        filter->FilterOp(op, static_cast<uint16_t>(type), static_cast<uint16_t>(size));
}

// Puts the end op that the list owes.
void endPuts(OpList* list) {
    if (list->putPending == 0)
        return;
    if (opblock* block = isDibList(list) ? lastUsedBlock(list) : nullptr) {
        // Rows are put in any order, and read in between.
        block->offset = wholeOf<Block>(block)->used;
        list->curBlock = block;
        list->pos = positionOf(block);
    }
    KalPutOpData(list, KAL_OP_END, nullptr, 0);
    list->putPending = 0;
    endPutsInStream(list);
}

// Ops that a bitmap list takes apart into rows.
bool isBand(const OpList* list, uint16_t type) {
    return isDibList(list) && (type == KAL_OP_DIB ||
                               (type == KAL_OP_DIB1 && list->dib != nullptr && list->dib->bitsPerPixel == 1));
}

// What every stored put notes before and after.
void notePut(OpList* list, bool isEnd) {
    if (isEnd)
        list->endPos = list->pos;
    list->putPending = 1;
}

uint32_t notePosition(OpList* list, bool isEnd, uint32_t position) {
    if (isEnd && position != KAL_OP_FAILED)
        list->endPos = position;
    return position;
}

} // namespace

uint32_t KalPutOp(OpList* list, void* op) {
    if (list == nullptr || op == nullptr)
        return KAL_OP_FAILED;
    const uint16_t type = KalOpType(op);
    const uint16_t size = KalOpSize(op);
    const bool isEnd = type == KAL_OP_END;
    notePut(list, isEnd);
    showToFilter(list, op, type, size);
    if (OpSink* sink = list->sink)
        return sink->PutOp(op);
    if (isBand(list, type))
        return KalPutDIBOp(list, op);
    const uint32_t bytes = KAL_OP_HEADER + size;
    return notePosition(list, isEnd,
                        isVMemList(list) ? putInBlocks(list, opStart(op), bytes, nullptr, 0, true)
                                         : putInStream(list, opStart(op), bytes, nullptr, 0));
}

uint32_t KalPutOpData(OpList* list, uint32_t type, const void* data, uint32_t size) {
    if (list == nullptr)
        return KAL_OP_FAILED;
    const uint32_t shown = shownSize(type, size);
    showToFilter(list, const_cast<void*>(data), type, shown);
    if (OpSink* sink = list->sink)
        return sink->PutOpData(type, data, shown);
    const bool isRow = type == KAL_OP_ROW && isVMemList(list);
    if (shown > kOpPayloadMax && !isRow) { // its header could not tell how long it is
        list->status = KAL_ERR_WRITE;
        return KAL_OP_FAILED;
    }
    const bool isEnd = static_cast<uint16_t>(type) == KAL_OP_END;
    notePut(list, isEnd);
    if (isRow)
        return putRow(list, data, size, size);
    uint8_t header[KAL_OP_HEADER];
    storeOpHeader(header, type, shown);
    return notePosition(list, isEnd,
                        isVMemList(list)
                            ? putInBlocks(list, header, sizeof header, data, shown, !isDibList(list))
                            : putInStream(list, header, sizeof header, data, shown));
}

void* KalGetOp(OpList* list) {
    if (list == nullptr)
        return nullptr;
    list->putPending = 0;
    if (!isVMemList(list))
        return getFromStream(list);
    if (!isDibList(list))
        return getFromBlocks(list);
    const bool stands = list->status == KAL_OK && list->curBlock != nullptr && locate(list);
    return stands ? KalGetDIBOp(list) : nullptr;
}

int16_t KalSeekOp(OpList* list, int32_t position) {
    if (list == nullptr)
        return KAL_ERR_NULL_STREAM;
    endPuts(list);
    if (isDibList(list))
        return KalSeekDIBOp(list, position);
    const auto target = static_cast<uint32_t>(position);
    return isVMemList(list) ? seekInBlocks(list, target) : seekInStream(list, target);
}

int16_t KalSeekEndOp(OpList* list) {
    if (list == nullptr)
        return KAL_ERR_NULL_STREAM;
    endPuts(list); // which moves endPos
    return KalSeekOp(list, static_cast<int32_t>(list->endPos));
}

uint16_t KalIsOpListEmpty(OpList* list) {
    if (list == nullptr || list->pos != 0)
        return 1;
    if (isVMemList(list))
        return firstBlock(list) != nullptr ? 0 : 1;
    return isStreamEmpty(list);
}

int16_t KalGetOpError(OpList* list) {
    if (list == nullptr)
        return KAL_OK;
    if (list->status != KAL_OK)
        return list->status;
    if (list->stream != nullptr)
        return list->stream->status;
    return list->compStream != nullptr ? list->compStream->status : int16_t(KAL_OK);
}

void KalSetOpListFilter(OpList* list, FilterOps& filter) {
    if (list != nullptr)
        list->filter = &filter;
}

void KalShrinkOpList(OpList* list) {
    if (list != nullptr && isVMemList(list))
        shrinkBlocks(list);
}
