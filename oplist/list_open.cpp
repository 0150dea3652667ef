// Opening, making and closing lists.
#include "oplist/blocks.h"
#include "oplist/dib.h"
#include "oplist/file_mode.h"
#include "oplist/op.h"

#include "streams/close.h"

namespace {

constexpr uint32_t kStreamBuffer = 4096;

int16_t makeRecord(OpList** out) {
    *out = makeListRecord();
    return *out != nullptr ? KAL_OK : KAL_ERR_MEMORY;
}

// Takes over a stream that was just opened, or the status of the failure.
void takeStream(OpList* list, int16_t status, SFILE* stream) {
    list->status = status;
    if (status != KAL_OK)
        return;
    KalSetBuf(stream, kStreamBuffer); // without that much memory the list is slower, not broken
    list->stream = stream;
}

// Turns the record into a VMem list without blocks.
int16_t startBlocks(OpList* list, uint16_t flags) {
    list->flags = flags;
    list->blockSize = static_cast<uint32_t>(KalGetVMemSize());
    list->blocks = KalSCreateList();
    if (list->blocks == nullptr)
        list->status = KAL_ERR_BUFFER;
    return list->status;
}

void closeBlocks(OpList* list) {
    releaseBlocks(list);
    KalSDestroyList(list->blocks);
    freeDescription(list);
}

void closeStream(OpList* list) {
    if (list->putPending == 1)
        KalPutOpData(list, KAL_OP_END, nullptr, 0);
    if (list->compStream != nullptr)
        KalFreeCFile(list->compStream);
    if (list->stream != nullptr)
        closeForGood(list->stream);
}

} // namespace

int16_t KalOpenOpList(OpList** out, const char* name, uint16_t mode) {
    if (const int16_t status = makeRecord(out); status != KAL_OK)
        return status;
    OpList* list = *out;
    if ((mode & KAL_OPL_VMEM) != 0)
        return startBlocks(list, KAL_OPL_VMEM);
    mode &= static_cast<uint16_t>(~KAL_OPL_DIB); // a list in a stream holds no bitmap rows
    SFILE* stream = nullptr;
    const int16_t status = KalOpenFile(&stream, name, mode, 0);
    takeStream(list, status, stream);
    if (status != KAL_OK)
        return status;
    list->flags = mode;
    if ((mode & KAL_OPL_COMPRESSED) != 0 && compress(list) != KAL_OK)
        closeForGood(stream);
    return list->status;
}

int16_t KalTempOpList(OpList** out, uint16_t flags) {
    if (const int16_t status = makeRecord(out); status != KAL_OK)
        return status;
    OpList* list = *out;
    if ((flags & KAL_OPL_KEEP) != 0)
        flags &= static_cast<uint16_t>(~KAL_OPL_VMEM); // what is kept lives in a file
    if ((flags & KAL_OPL_VMEM) == 0)
        flags &= static_cast<uint16_t>(~KAL_OPL_DIB);
    if ((flags & KAL_OPL_VMEM) != 0) {
        const bool isBitmap = (flags & KAL_OPL_DIB) != 0;
        if (startBlocks(list, flags) == KAL_OK && isBitmap)
            list->status = makeDescription(list);
        return list->status;
    }
    list->flags = flags;
    SFILE* stream = nullptr;
    const int16_t status = KalOpenTempFile(&stream, KAL_MODE_NEW_FILE, flags & KAL_OPL_KEEP);
    takeStream(list, status, stream);
    return status;
}

OpList* KalMakeOpList(IFILE* file) {
    OpList* list = nullptr;
    if (file == nullptr || makeRecord(&list) != KAL_OK)
        return nullptr;
    list->stream = file->stream;
    list->flags = file->mode;
    list->putPending = 1;
    return list;
}

void KalCloseOpList(OpList* list) {
    if (list == nullptr)
        return;
    if (isVMemList(list))
        closeBlocks(list);
    else
        closeStream(list);
    KalFreeSMem(list);
}
