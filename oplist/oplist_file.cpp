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
    OpList* list = makeListRecord();
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

// Moves ops until `from` ends or either fails. Whether `to` took all that there were.
bool copyOps(OpList* to, OpList* from) {
    bool going = true;
    while (void* op = going ? KalGetOp(from) : nullptr) {
        going = KalPutOp(to, op) != KAL_OP_FAILED;
        freeOp(op);
    }
    return going;
}

// Ends the list being stored, with the end op that is owed after puts, and by a list that never got any. Whether it can
// be read back to its end.
bool endStored(OpList* list) {
    if (wholeOf<StreamList>(list)->brokeOff)
        return false;
    if ((list->putPending == 1 || list->endPos == 0) &&
        KalPutOpData(list, KAL_OP_END, nullptr, 0) == KAL_OP_FAILED)
        return false;
    return endPutsInStream(list);
}

// Takes the entry of the list being stored out of the index.
void dropPutEntry(IOPFILE* file) {
    IFILE* items = file->ifile;
    if (wholeOf<ListFile>(file)->putNumber + 1 == items->count)
        items->count--;
    else
        setEntryId(putEntryOf(file), KAL_ITEM_FREE);
}

int16_t endLists(IOPFILE* file) {
    const int16_t status = file->putList != nullptr ? KalClosePutIOpList(file) : int16_t(KAL_OK);
    if (file->getList != nullptr)
        KalCloseGetIOpList(file);
    return status;
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
    IFILE* items = file->ifile;
    bool stored = endStored(list);
    int16_t status = stored ? int16_t(KAL_OK) : KalGetOpError(list);
    freeList(list);
    // The list may stand anywhere; what it stored is all that lies behind its start.
    if (stored && !seekToEnd(items->stream)) {
        stored = false;
        status = items->stream->status;
    }
    ItemIndex* entry = putEntryOf(file);
    if (stored)
        setEntrySize(items, entry, logicalPosition(items->stream) - entryOffset(items, entry));
    else // without an end it would be read on into what is stored next
        dropPutEntry(file);
    file->putList = nullptr;
    file->putEntry = nullptr;
    return status;
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
    if (!seekToStored(items->stream, entryOffset(items, entry))) {
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
    const int16_t taken = copyOps(list, source) ? int16_t(KAL_OK) : KalGetOpError(list);
    const int16_t closed = KalClosePutIOpList(file);
    return closed != KAL_OK ? closed : taken;
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
    const int16_t ended = endLists(file);
    const int16_t closed = KalCloseIFile(file->ifile);
    KalFreeSMem(file);
    return ended != KAL_OK ? ended : closed;
}

int16_t KalFreeIOpFile(IOPFILE* file) {
    if (file == nullptr)
        return KAL_OK;
    const int16_t ended = endLists(file);
    const int16_t freed = KalFreeIFile(file->ifile);
    KalFreeSMem(file);
    return ended != KAL_OK ? ended : freed;
}
