// Swap files: the extent list, an index of the items by id, and a tree of the free extents beside it.
//
// Callers free an extent by setting its id to 0, and nobody tells the file. So every used extent that was
// handed out is kept in a list of lent ones, which each write looks through first.
#include "memory/swap_file.h"

#include "memory/extents.h"
#include "paths/task_text.h"
#include "paths/temp_names.h"
#include "platform/file_calls.h"
#include "platform/windows_directory.h"

#include <kal/heap.h>
#include <kal/memory.h>

#include <cerrno>

namespace {

constexpr uint32_t kNameSize = 772;
constexpr uint32_t kIds = 0x10000;

// The record that callers see, and the rest.
struct SwapFile {
    vfile record;
    Extent** byId; // a used extent for each id, or null; one that its caller has freed may still stand here
    Extent* freeTree;
    Extent* lent; // the first of the lent extents
    uint32_t extents;
};

SwapFile* whole(vfile* file) {
    return reinterpret_cast<SwapFile*>(file);
}

const SwapFile* whole(const vfile* file) {
    return reinterpret_cast<const SwapFile*>(file);
}

Extent* lastExtent(const SwapFile* file) {
    KalNodeHeader* last = file->record.items->last;
    return last != nullptr ? reinterpret_cast<Extent*>(last + 1) : nullptr;
}

Extent* newExtent(SwapFile* file, uint32_t offset, uint32_t size) {
    auto* extent = static_cast<Extent*>(KalSCreateNode(sizeof(Extent)));
    if (extent != nullptr) {
        extent->item.offset = offset;
        extent->item.size = size;
        file->extents++;
    }
    return extent;
}

void lend(SwapFile* file, Extent* extent) {
    if (extent->indexedId == 0 || extent->lent != 0)
        return;
    extent->lent = 1;
    extent->lower = nullptr;
    extent->higher = file->lent;
    if (file->lent != nullptr)
        file->lent->lower = extent;
    file->lent = extent;
}

void takeBack(SwapFile* file, Extent* extent) {
    if (extent->lent == 0)
        return;
    (extent->lower != nullptr ? extent->lower->higher : file->lent) = extent->higher;
    if (extent->higher != nullptr)
        extent->higher->lower = extent->lower;
    extent->lent = 0;
}

void release(SwapFile* file, Extent* extent) {
    takeBack(file, extent);
    file->byId[extent->indexedId] = nullptr;
    extent->indexedId = 0;
    extent->item.id = 0;
    addFree(file->freeTree, extent);
}

void claim(SwapFile* file, Extent* extent, uint32_t size, uint16_t id) {
    extent->item.id = id;
    extent->item.size = size;
    extent->indexedId = id;
    extent->lent = 0;
    file->byId[id] = extent;
}

// Takes in what callers have freed.
void settle(SwapFile* file) {
    for (Extent* extent = file->lent; extent != nullptr;) {
        Extent* next = extent->higher;
        if (extent->item.id == 0)
            release(file, extent);
        extent = next;
    }
}

Extent* find(const SwapFile* file, uint16_t id) {
    Extent* extent = file->byId[id];
    return extent != nullptr && extent->item.id == id ? extent : nullptr;
}

// Takes `extent` out of the free ones and cuts off what lies behind its first `size` bytes, as a free extent
// of its own where there is memory for one.
void carve(SwapFile* file, Extent* extent, uint32_t size) {
    removeFree(file->freeTree, extent);
    const uint32_t left = extent->item.size - size;
    Extent* remainder = left > 0 ? newExtent(file, extent->item.offset + size, left) : nullptr;
    if (remainder == nullptr)
        return;
    KalSInsertNode(file->record.items, extent, remainder);
    addFree(file->freeTree, remainder);
}

// A new extent at the file's end, or null.
Extent* append(SwapFile* file, uint32_t size) {
    const Extent* last = lastExtent(file);
    const uint64_t end = last != nullptr ? uint64_t(last->item.offset) + last->item.size : 0;
    if (end + size > UINT32_MAX)
        return nullptr;
    Extent* extent = newExtent(file, static_cast<uint32_t>(end), size);
    if (extent != nullptr)
        KalSAddTail(file->record.items, extent);
    return extent;
}

bool seekTo(const vfile* file, uint32_t offset) {
    return static_cast<uint32_t>(
               _llseek(static_cast<HFILE>(file->handle), static_cast<int32_t>(offset), 0)) == offset;
}

// --- The file ----------------------------------------------------------------------------------------------

// Tries one name; another one helps only where this is taken.
bool makeTemporary(const char* name, void* context) {
    HFILE file = _open(name, _O_RDWR | _O_CREAT | _O_EXCL | _O_TEMPORARY);
    *static_cast<HFILE*>(context) = file;
    return file != HFILE_ERROR || errno != EEXIST;
}

int16_t makeFile(SwapFile* file) {
    char* name = file->record.nameBuf;
    if (taskText(kSlotTempDirectory) == nullptr) {
        constexpr char kTemplate[] = "ZEP.TMP";
        const uint32_t length = GetTempPathA(kNameSize - sizeof kTemplate, name);
        if (length == 0 || length >= kNameSize - sizeof kTemplate)
            return KAL_ERR_SERVICE;
        std::memcpy(name + length, kTemplate, sizeof kTemplate);
    }
    HFILE handle = HFILE_ERROR;
    const int16_t status = findUniqueName(name, kNameSize, makeTemporary, &handle);
    file->record.handle = static_cast<uint32_t>(handle);
    if (status != KAL_OK)
        return status;
    return handle != HFILE_ERROR ? int16_t(KAL_OK) : openStatus();
}

int16_t furnish(SwapFile* file) {
    file->record.handle = static_cast<uint32_t>(HFILE_ERROR);
    file->record.items = KalSCreateList();
    file->record.nameBuf = static_cast<char*>(KalAllocSMem(kNameSize));
    file->byId = static_cast<Extent**>(KalAllocSMem(kIds * sizeof(Extent*)));
    if (file->record.items == nullptr || file->record.nameBuf == nullptr || file->byId == nullptr)
        return KAL_ERR_MEMORY;
    return makeFile(file);
}

} // namespace

const vitem* findItem(const vfile* file, uint16_t id) {
    const Extent* extent = find(whole(file), id);
    return extent != nullptr ? &extent->item : nullptr;
}

void dropItem(vfile* file, uint16_t id) {
    if (Extent* extent = find(whole(file), id))
        release(whole(file), extent);
}

uint64_t extentListBytes(const vfile* file) {
    constexpr uint64_t kHeapBlock = 32; // the heap's own part of a block, generously
    return whole(file)->extents * (sizeof(KalNodeHeader) + sizeof(Extent) + sizeof(Extent*) + kHeapBlock);
}

int16_t KalOpenTempVFile(vfile** out) {
    *out = nullptr;
    auto* file = static_cast<SwapFile*>(KalAllocSMem(sizeof(SwapFile)));
    if (file == nullptr)
        return KAL_ERR_MEMORY;
    const int16_t status = furnish(file);
    if (status != KAL_OK)
        KalCloseVFile(&file->record);
    else
        *out = &file->record;
    return status;
}

int16_t KalCloseVFile(vfile* file) {
    if (file == nullptr)
        return KAL_OK;
    if (file->handle != static_cast<uint32_t>(HFILE_ERROR))
        _lclose(static_cast<HFILE>(file->handle));
    KalSDestroyList(file->items);
    KalFreeSMem(file->nameBuf);
    KalFreeSMem(whole(file)->byId);
    KalFreeSMem(file);
    return KAL_OK;
}

vitem* KalFindVItem(vfile* file, uint16_t id) {
    SwapFile* swap = whole(file);
    if (id == 0)
        settle(swap);
    Extent* extent = id == 0 ? firstFit(swap->freeTree, 0) : find(swap, id);
    if (extent == nullptr)
        return nullptr;
    lend(swap, extent);
    return &extent->item;
}

int32_t KalReadVFile(vfile* file, vitem* item, void* destination) {
    if (!seekTo(file, item->offset))
        return KAL_ERR_SEEK;
    const auto size = static_cast<int32_t>(item->size);
    return KalHRead(static_cast<HFILE>(file->handle), destination, size) == size ? size
                                                                                 : int32_t(KAL_ERR_READ);
}

int32_t KalWriteVFile(vfile* file, const void* data, uint32_t size, uint16_t id) {
    if (id == 0 || size > INT32_MAX)
        return 0;
    SwapFile* swap = whole(file);
    settle(swap);
    if (Extent* old = find(swap, id)) {
        if (old->item.size == size)
            return static_cast<int32_t>(size);
        release(swap, old);
    }
    Extent* extent = firstFit(swap->freeTree, size);
    if (extent != nullptr)
        carve(swap, extent, size);
    else
        extent = append(swap, size);
    if (extent == nullptr)
        return 0;
    claim(swap, extent, size, id);
    if (!seekTo(file, extent->item.offset))
        return 0;
    return KalHWrite(static_cast<HFILE>(file->handle), data, static_cast<int32_t>(size));
}
