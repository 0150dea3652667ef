// Operation-list files: lists as the items of an item file.
#include "items/item_index.h"
#include "memory/record.h"
#include "oplist/file_mode.h"
#include "oplist/op.h"

namespace {

// The public record and what storing needs besides: the entry's number, which stays right when the index
// grows and moves.
struct ListFile {
    IOPFILE shown;
    uint32_t putNumber;
};

ItemIndex* putEntryOf(IOPFILE* file) {
    return entryAt(file->ifile, wholeOf<ListFile>(file)->putNumber);
}

int16_t makeRecord(IOPFILE** out) {
    *out = static_cast<IOPFILE*>(KalAllocSMem(sizeof(ListFile)));
    return *out != nullptr ? KAL_OK : KAL_ERR_MEMORY;
}

// Gives the record its item file, or releases it with the status of the failure.
int16_t takeItemFile(IOPFILE** out, int16_t status, IFILE* file) {
    if (status == KAL_OK) {
        (*out)->ifile = file;
        return KAL_OK;
    }
    KalFreeSMem(*out);
    *out = nullptr;
    return status;
}

// A list over the item file's stream, compressed as the format says.
OpList* makeList(IFILE* file) {
    auto* list = static_cast<OpList*>(KalAllocSMem(sizeof(OpList)));
    if (list == nullptr)
        return nullptr;
    list->stream = file->stream;
    list->flags = static_cast<uint16_t>(file->mode & ~KAL_OPL_VMEM); // the stream's mode means other things
    if ((file->formatFlags & KAL_IOP_COMPRESSED) != 0)
        compress(list);
    return list;
}

void freeList(OpList* list) {
    if (list->compStream != nullptr)
        KalFreeCFile(list->compStream);
    KalFreeSMem(list);
}

// Moves ops until `from` ends or either fails.
void copyOps(OpList* to, OpList* from) {
    bool going = true;
    while (void* op = going ? KalGetOp(from) : nullptr) {
        going = KalPutOp(to, op) != KAL_OP_FAILED;
        freeOp(op);
    }
}

void endLists(IOPFILE* file) {
    if (file->putList != nullptr)
        KalClosePutIOpList(file);
    if (file->getList != nullptr)
        KalCloseGetIOpList(file);
}

} // namespace

int16_t KalOpenIOpFile(IOPFILE** out, const char* name, uint16_t mode, uint16_t format) {
    if (const int16_t status = makeRecord(out); status != KAL_OK)
        return status;
    IFILE* file = nullptr;
    const int16_t status = KalOpenIFile(&file, name, mode, format);
    return takeItemFile(out, status, file);
}

int16_t KalOpenTempIOpFile(IOPFILE** out) {
    if (const int16_t status = makeRecord(out); status != KAL_OK)
        return status;
    IFILE* file = nullptr;
    const int16_t status = KalOpenTempIFile(&file);
    return takeItemFile(out, status, file);
}

int16_t KalMakeIOpFile(IOPFILE** out, SFILE* stream, uint16_t format) {
    if (const int16_t status = makeRecord(out); status != KAL_OK)
        return status;
    IFILE* file = nullptr;
    const int16_t status = KalMakeIFile(&file, stream, format);
    return takeItemFile(out, status, file);
}

int16_t KalOpenPutIOpList(IOPFILE* file, uint16_t id, OpList** out) {
    *out = nullptr;
    IFILE* items = file->ifile;
    SFILE* stream = items->stream;
    OpList* list = makeList(items);
    if (list == nullptr)
        return KAL_ERR_MEMORY;
    int16_t status = seekToEnd(stream) ? int16_t(KAL_OK) : int16_t(stream->status);
    ItemIndex* entry = status == KAL_OK ? KalAppendItemIndex(items) : nullptr;
    if (status == KAL_OK && entry == nullptr)
        status = KAL_ERR_BUFFER;
    if (status != KAL_OK) {
        freeList(list);
        return status;
    }
    list->pos = logicalPosition(stream);
    setEntryId(entry, id);
    setEntrySize(items, entry, 0);
    setEntryOffset(items, entry, list->pos);
    wholeOf<ListFile>(file)->putNumber = uint32_t(items->count) - 1;
    file->putEntry = entry;
    file->putList = list;
    *out = list;
    return KAL_OK;
}

int16_t KalClosePutIOpList(IOPFILE* file) {
    OpList* list = file->putList;
    if (list == nullptr)
        return KAL_ERR_SERVICE;
    // An end op is owed after puts, and also by a list that never got any.
    if (list->putPending == 1 || list->endPos == 0)
        KalPutOpData(list, KAL_OP_END, nullptr, 0);
    freeList(list);
    ItemIndex* entry = putEntryOf(file);
    setEntrySize(file->ifile, entry, logicalPosition(file->ifile->stream) - entryOffset(file->ifile, entry));
    file->putList = nullptr;
    file->putEntry = nullptr;
    return KAL_OK;
}

int16_t KalOpenGetIOpList(IOPFILE* file, uint16_t id, OpList** out) {
    *out = nullptr;
    IFILE* items = file->ifile;
    ItemIndex* entry = id != KAL_ITEM_FREE ? KalFindItem(items, id) : nullptr;
    if (entry == nullptr)
        return 1;
    OpList* list = makeList(items);
    if (list == nullptr)
        return KAL_ERR_MEMORY;
    if (!seekDespiteFullDisk(items->stream, entryOffset(items, entry))) {
        freeList(list);
        return items->stream->status;
    }
    list->pos = logicalPosition(items->stream);
    file->getEntry = entry;
    file->getList = list;
    *out = list;
    return KAL_OK;
}

int16_t KalCloseGetIOpList(IOPFILE* file) {
    if (file->getList == nullptr)
        return KAL_ERR_SERVICE;
    freeList(file->getList);
    file->getList = nullptr;
    file->getEntry = nullptr;
    return KAL_OK;
}

int16_t KalPutIOpList(IOPFILE* file, uint16_t id, OpList* source) {
    OpList* list;
    if (const int16_t status = KalOpenPutIOpList(file, id, &list); status != KAL_OK)
        return status;
    copyOps(list, source);
    return KalClosePutIOpList(file);
}

int16_t KalGetIOpList(IOPFILE* file, uint16_t id, OpList* destination) {
    OpList* list;
    if (KalOpenGetIOpList(file, id, &list) != KAL_OK)
        return 1;
    copyOps(destination, list);
    return KalCloseGetIOpList(file);
}

int16_t KalCloseIOpFile(IOPFILE* file) {
    if (file == nullptr)
        return KAL_OK;
    endLists(file);
    KalCloseIFile(file->ifile);
    KalFreeSMem(file);
    return KAL_OK;
}

int16_t KalFreeIOpFile(IOPFILE* file) {
    if (file == nullptr)
        return KAL_OK;
    endLists(file);
    KalFreeIFile(file->ifile);
    KalFreeSMem(file);
    return KAL_OK;
}
