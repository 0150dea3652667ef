// Swap files: the extent list, a table of the items by id, and the list's stretches, by which the first fit is found
// without a walk over all extents.
//
// A stretch is some hundred extents one behind the other. It knows a size that no free extent in it exceeds, so that
// a search looks into those stretches alone that may have what it wants, and corrects the size of each in vain. Callers
// free extents by setting their id to 0, and nobody tells the file: so a search that they ask for looks everywhere.
#include "memory/swap_file.h"

#include "memory/record.h"
#include "paths/task_text.h"
#include "paths/temp_names.h"
#include "platform/file_calls.h"
#include "platform/windows_directory.h"

#include <kal/heap.h>
#include <kal/memory.h>
#include <kal/path.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr uint32_t kIds = 0x10000;

constexpr uint32_t kMostInStretch = 256;
constexpr uint32_t kAnySize = UINT32_MAX;

struct Stretch;

#pragma pack(push, 2)
struct Extent {
    vitem shown;
    Stretch* stretch;
};
#pragma pack(pop)

struct Stretch {
    Extent* first;
    uint32_t count;
    uint32_t mostFree; // no free extent here is larger
    Stretch* next;
};

struct SwapFile {
    vfile shown;
    Extent** byId; // where the extent of each id was last, which a caller may have freed
    Stretch stretches;
    uint32_t extents;
    uint32_t writes; // since a search looked everywhere
};

Extent* extentAt(KalNodeHeader* header) {
    return reinterpret_cast<Extent*>(header + 1);
}

KalNodeHeader* headerOf(Extent* extent) {
    return reinterpret_cast<KalNodeHeader*>(extent) - 1;
}

// Null behind the last one.
Extent* nextOf(Extent* extent) {
    KalNodeHeader* const next = headerOf(extent)->next;
    return next != nullptr ? extentAt(next) : nullptr;
}

// --- Stretches -----------------------------------------------------------------------------------------------

// Cuts a long stretch in two; without memory for that it stays long.
void split(Stretch* stretch) {
    auto* rest = static_cast<Stretch*>(KalAllocSMem(sizeof(Stretch)));
    if (rest == nullptr)
        return;
    Extent* extent = stretch->first;
    for (uint32_t i = 0; i < stretch->count / 2; i++)
        extent = nextOf(extent);
    *rest = {extent, stretch->count - stretch->count / 2, stretch->mostFree, stretch->next};
    stretch->count /= 2;
    stretch->next = rest;
    for (uint32_t i = 0; i < rest->count; i++, extent = nextOf(extent))
        extent->stretch = rest;
}

// Notes an extent that now stands in the list behind another of the stretch, or begins it.
void enter(SwapFile* file, Stretch* stretch, Extent* extent) {
    if (stretch->count == 0)
        stretch->first = extent;
    extent->stretch = stretch;
    file->extents++;
    if (++stretch->count > kMostInStretch)
        split(stretch);
}

void noteFree(Extent* extent) {
    const uint32_t size = extent->shown.size;
    extent->stretch->mostFree = std::max(extent->stretch->mostFree, size);
}

void lookEverywhere(SwapFile* file) {
    for (Stretch* stretch = &file->stretches; stretch != nullptr; stretch = stretch->next)
        stretch->mostFree = kAnySize;
    file->writes = 0;
}

// The free extent of the lowest offset that has at least `size` bytes, or null.
Extent* firstFit(SwapFile* file, uint32_t size) {
    for (Stretch* stretch = &file->stretches; stretch != nullptr; stretch = stretch->next) {
        if (stretch->mostFree < size)
            continue;
        uint32_t mostFree = 0;
        Extent* extent = stretch->first;
        for (uint32_t i = 0; i < stretch->count; i++, extent = nextOf(extent)) {
            if (extent->shown.id != 0)
                continue;
            const uint32_t free = extent->shown.size;
            if (free >= size)
                return extent;
            mostFree = std::max(mostFree, free);
        }
        stretch->mostFree = mostFree;
    }
    return nullptr;
}

// --- Extents -------------------------------------------------------------------------------------------------

Extent* newExtent(uint32_t offset, uint32_t size) {
    auto* extent = static_cast<Extent*>(KalSCreateNode(sizeof(Extent)));
    if (extent != nullptr)
        extent->shown = {0, size, offset};
    return extent;
}

Extent* find(const SwapFile* file, uint16_t id) {
    Extent* extent = file->extents > 0 ? file->byId[id] : nullptr;
    return extent != nullptr && extent->shown.id == id ? extent : nullptr;
}

void release(SwapFile* file, Extent* extent) {
    file->byId[extent->shown.id] = nullptr;
    extent->shown.id = 0;
    noteFree(extent);
}

// Cuts off what lies behind the first `size` bytes of a free extent, as one of its own where there is memory for that.
void carve(SwapFile* file, Extent* extent, uint32_t size) {
    const uint32_t left = extent->shown.size - size;
    Extent* remainder = left > 0 ? newExtent(extent->shown.offset + size, left) : nullptr;
    extent->shown.size = size;
    if (remainder == nullptr)
        return;
    KalSInsertNode(file->shown.items, extent, remainder);
    enter(file, extent->stretch, remainder);
    noteFree(remainder);
}

// A new extent at the file's end, or null.
Extent* append(SwapFile* file, uint32_t size) {
    KalNodeHeader* header = file->shown.items->last;
    const Extent* last = header != nullptr ? extentAt(header) : nullptr;
    const uint64_t end = last != nullptr ? uint64_t(last->shown.offset) + last->shown.size : 0;
    Extent* extent = end + size <= UINT32_MAX ? newExtent(static_cast<uint32_t>(end), size) : nullptr;
    if (extent == nullptr)
        return nullptr;
    KalSAddTail(file->shown.items, extent);
    enter(file, last != nullptr ? last->stretch : &file->stretches, extent);
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
    char* name = file->shown.nameBuf;
    if (taskText(kSlotTempDirectory) == nullptr) {
        constexpr char kTemplate[] = "ZEP.TMP";
        const uint32_t length = GetTempPathA(KAL_NAME_SIZE - sizeof kTemplate, name);
        if (length == 0 || length >= KAL_NAME_SIZE - sizeof kTemplate)
            return KAL_ERR_SERVICE;
        std::memcpy(name + length, kTemplate, sizeof kTemplate);
    }
    HFILE handle = HFILE_ERROR;
    const int16_t status = findUniqueName(name, KAL_NAME_SIZE, makeTemporary, &handle);
    file->shown.handle = static_cast<uint32_t>(handle);
    if (status != KAL_OK)
        return status;
    return handle != HFILE_ERROR ? int16_t(KAL_OK) : openStatus();
}

int16_t furnish(SwapFile* file) {
    file->shown.handle = static_cast<uint32_t>(HFILE_ERROR);
    file->shown.items = KalSCreateList();
    file->shown.nameBuf = static_cast<char*>(KalAllocSMem(KAL_NAME_SIZE));
    file->byId = static_cast<Extent**>(KalAllocSMem(kIds * sizeof(Extent*)));
    if (file->shown.items == nullptr || file->shown.nameBuf == nullptr || file->byId == nullptr)
        return KAL_ERR_MEMORY;
    return makeFile(file);
}

} // namespace

const vitem* findItem(vfile* file, uint16_t id) {
    const Extent* extent = find(wholeOf<SwapFile>(file), id);
    return extent != nullptr ? &extent->shown : nullptr;
}

void dropItem(vfile* file, uint16_t id) {
    SwapFile* swap = wholeOf<SwapFile>(file);
    if (Extent* extent = find(swap, id))
        release(swap, extent);
}

uint64_t extentListBytes(vfile* file) {
    constexpr uint64_t kExtent = 72; // with its heap block and its place in the table of ids
    return wholeOf<SwapFile>(file)->extents * kExtent;
}

int32_t writeItem(vfile* file, const void* data, uint32_t size, uint16_t id) {
    if (id == 0 || size > INT32_MAX)
        return 0;
    SwapFile* swap = wholeOf<SwapFile>(file);
    if (Extent* old = find(swap, id)) {
        if (old->shown.size == size)
            return static_cast<int32_t>(size);
        release(swap, old);
    }
    // What callers freed is not lost for long either: some looks for each write.
    constexpr uint32_t kLooks = 64;
    if (++swap->writes * kLooks > swap->extents)
        lookEverywhere(swap);
    Extent* extent = firstFit(swap, size);
    if (extent != nullptr)
        carve(swap, extent, size);
    else
        extent = append(swap, size);
    if (extent == nullptr)
        return 0;
    extent->shown.id = id;
    swap->byId[id] = extent;
    if (!seekTo(file, extent->shown.offset))
        return 0;
    return KalHWrite(static_cast<HFILE>(file->handle), data, static_cast<int32_t>(size));
}

int16_t KalOpenTempVFile(vfile** out) {
    *out = nullptr;
    auto* file = static_cast<SwapFile*>(KalAllocSMem(sizeof(SwapFile)));
    if (file == nullptr)
        return KAL_ERR_MEMORY;
    const int16_t status = furnish(file);
    if (status != KAL_OK)
        KalCloseVFile(shownOf(file));
    else
        *out = shownOf(file);
    return status;
}

int16_t KalCloseVFile(vfile* file) {
    if (file == nullptr)
        return KAL_OK;
    SwapFile* swap = wholeOf<SwapFile>(file);
    if (file->handle != static_cast<uint32_t>(HFILE_ERROR))
        _lclose(static_cast<HFILE>(file->handle));
    while (Stretch* stretch = swap->stretches.next) {
        swap->stretches.next = stretch->next;
        KalFreeSMem(stretch);
    }
    KalSDestroyList(file->items);
    KalFreeSMem(file->nameBuf);
    KalFreeSMem(swap->byId);
    KalFreeSMem(swap);
    return KAL_OK;
}

vitem* KalFindVItem(vfile* file, uint16_t id) {
    SwapFile* swap = wholeOf<SwapFile>(file);
    if (id == 0)
        lookEverywhere(swap);
    Extent* extent = id == 0 ? firstFit(swap, 0) : find(swap, id);
    return extent != nullptr ? &extent->shown : nullptr;
}

int32_t KalReadVFile(vfile* file, vitem* item, void* destination) {
    if (!seekTo(file, item->offset))
        return KAL_ERR_SEEK;
    const auto size = static_cast<int32_t>(item->size);
    return KalHRead(static_cast<HFILE>(file->handle), destination, size) == size ? size
                                                                                 : int32_t(KAL_ERR_READ);
}

int32_t KalWriteVFile(vfile* file, const void* data, uint32_t size, uint16_t id) {
    lookEverywhere(wholeOf<SwapFile>(file));
    return writeItem(file, data, size, id);
}
