// Swap files: the extent list, a table of the items by id, and the file in pieces, by which the first fit is found
// without a walk over all extents.
//
// A piece is 64 KiB of the file. It knows the first extent that begins in it and a size that no free extent in it
// exceeds, so that a search looks into those pieces alone that may have what it wants, and corrects the size of each in
// vain. Callers free extents by setting their id to 0, and nobody tells the file: so a search that they ask for looks
// everywhere, and the manager's into the pieces of which callers were given an extent, and into one more in turn.
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
constexpr uint32_t kPiece = 0x10000;
constexpr uint32_t kPieces = 0x10000; // 4 GiB
constexpr uint32_t kAnySize = UINT32_MAX;

struct SwapFile {
    vfile shown;
    uint32_t extents;
    uint32_t end;               // of the last extent
    uint32_t turn;              // the piece that the next search looks into whatever it knows
    uint32_t mostFree[kPieces]; // no free extent that begins in the piece is larger
    bool isLent[kPieces];       // callers were given an extent of it, and may free that at any time
    vitem* firsts[kPieces];     // the extent that begins first in it
    vitem* byId[kIds];          // where each item was last, which a caller may have freed
};

vitem* nextOf(vitem* extent) {
    return static_cast<vitem*>(KalNextNode(extent));
}

uint32_t pieceOf(const vitem* extent) {
    return extent->offset / kPiece;
}

void lookEverywhere(SwapFile* file) {
    std::fill_n(file->mostFree, file->end / kPiece + 1, kAnySize);
}

// The free extent of the lowest offset that has at least `size` bytes, or null.
vitem* firstFit(SwapFile* file, uint32_t size) {
    for (uint32_t piece = 0; piece <= file->end / kPiece; piece++) {
        if (file->mostFree[piece] < size)
            continue;
        uint32_t mostFree = 0;
        for (vitem* extent = file->firsts[piece]; extent != nullptr && pieceOf(extent) == piece;
             extent = nextOf(extent)) {
            if (extent->id != 0)
                continue;
            const uint32_t free = extent->size;
            if (free >= size)
                return extent;
            mostFree = std::max(mostFree, free);
        }
        if (!file->isLent[piece])
            file->mostFree[piece] = mostFree;
    }
    return nullptr;
}

vitem* find(const SwapFile* file, uint16_t id) {
    vitem* extent = file->byId[id];
    return extent != nullptr && extent->id == id ? extent : nullptr;
}

void release(SwapFile* file, vitem* extent) {
    file->byId[extent->id] = nullptr;
    extent->id = 0;
    const uint32_t free = extent->size;
    uint32_t& mostFree = file->mostFree[pieceOf(extent)];
    mostFree = std::max(mostFree, free);
}

// A new free extent behind another, or at the end. Null when memory is short.
vitem* addExtent(SwapFile* file, vitem* before, uint32_t offset, uint32_t size) {
    auto* extent = static_cast<vitem*>(KalSCreateNode(sizeof(vitem)));
    if (extent == nullptr)
        return nullptr;
    *extent = {0, size, offset};
    before != nullptr ? KalSInsertNode(file->shown.items, before, extent)
                      : KalSAddTail(file->shown.items, extent);
    vitem*& first = file->firsts[pieceOf(extent)];
    if (first == nullptr || first->offset > offset)
        first = extent;
    release(file, extent);
    file->end = std::max(file->end, offset + size);
    file->extents++;
    return extent;
}

// Cuts off what lies behind the first `size` bytes, as a free extent of its own where there is memory for that.
void carve(SwapFile* file, vitem* extent, uint32_t size) {
    const uint32_t left = extent->size - size;
    extent->size = size;
    if (left > 0)
        addExtent(file, extent, extent->offset + size, left);
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
    if (file->shown.items == nullptr || file->shown.nameBuf == nullptr)
        return KAL_ERR_MEMORY;
    return makeFile(file);
}

} // namespace

vitem* findItem(vfile* file, uint16_t id) {
    return find(wholeOf<SwapFile>(file), id);
}

void dropItem(vfile* file, uint16_t id) {
    SwapFile* swap = wholeOf<SwapFile>(file);
    if (vitem* extent = find(swap, id))
        release(swap, extent);
}

uint64_t extentListBytes(vfile* file) {
    constexpr uint64_t kExtent = 72; // with its heap block and its places in the tables
    return wholeOf<SwapFile>(file)->extents * kExtent;
}

int32_t writeItem(vfile* file, const void* data, uint32_t size, uint16_t id) {
    if (id == 0 || size > INT32_MAX)
        return 0;
    SwapFile* swap = wholeOf<SwapFile>(file);
    if (vitem* old = find(swap, id)) {
        if (old->size == size)
            return static_cast<int32_t>(size);
        release(swap, old);
    }
    swap->turn = swap->turn < swap->end / kPiece ? swap->turn + 1 : 0;
    swap->mostFree[swap->turn] = kAnySize;
    vitem* extent = firstFit(swap, size);
    if (extent != nullptr)
        carve(swap, extent, size);
    else if (size <= UINT32_MAX - swap->end)
        extent = addExtent(swap, nullptr, swap->end, size);
    if (extent == nullptr)
        return 0;
    extent->id = id;
    swap->byId[id] = extent;
    if (!seekTo(file, extent->offset))
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
    if (file->handle != static_cast<uint32_t>(HFILE_ERROR))
        _lclose(static_cast<HFILE>(file->handle));
    KalSDestroyList(file->items);
    KalFreeSMem(file->nameBuf);
    KalFreeSMem(file);
    return KAL_OK;
}

vitem* KalFindVItem(vfile* file, uint16_t id) {
    SwapFile* swap = wholeOf<SwapFile>(file);
    if (id == 0)
        lookEverywhere(swap);
    vitem* extent = id == 0 ? firstFit(swap, 0) : find(swap, id);
    if (extent != nullptr) {
        swap->isLent[pieceOf(extent)] = true;
        swap->mostFree[pieceOf(extent)] = kAnySize;
    }
    return extent;
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
