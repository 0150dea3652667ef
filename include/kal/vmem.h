// VMem: movable blocks by handle, swapped to a file when they pass a limit.
//
// The manager belongs to the calling task (thread). It is opened once, before the first block, and closing it
// frees every block that is left:
//
//     KalOpenVMem(0);
//     void* handle = KalAllocVMem(2, 32768);
//     auto* bytes = static_cast<uint8_t*>(KalLockVMem(handle));
//     bytes[0] = 1;
//     KalMarkDirtyVMem(handle); // after each change of a block that may have been swapped out before
//     KalUnLockVMem(handle);
//     KalFreeVMem(handle);
//     KalCloseVMem();
//
// A block has an address between lock and unlock only. While the bytes in memory would pass the limit, the
// unlocked blocks that have been in memory longest go to the swap file, and come back when they are locked.
// A block's size is the size asked for. A handle that is not a live block is refused everywhere: such calls
// give null and change nothing. The blocks of operation lists (kal/oplist.h) are swapped only as far as ops or rows were
// put into them, so that a short list in a large block moves few bytes; who changes such a block himself calls
// KalMarkDirtyVMem, which makes all of it count from then on.
#ifndef KAL_VMEM_H
#define KAL_VMEM_H

#include <kal/base.h>
#include <kal/list.h>

class TagSet;

#pragma pack(push, 1)

// One extent of a swap file. The extents lie one behind the other from the file's start.
struct vitem {
    uint16_t id;     // the item that it holds, 0 when it is free
    uint32_t size;   // in bytes
    uint32_t offset; // in the file
};

// A swap file.
struct vfile {
    uint32_t handle; // of the operating system; reads and writes seek from the file's start
    char* nameBuf;   // KAL_NAME_SIZE bytes: the name under which the file was made, which leads nowhere
    slisthd* items;  // its extents in the order of their offsets, one vitem a node
};

// What the calling task's data slot 6 holds while the manager is open.
struct vmemstate {
    vfile* swapFile;        // where blocks go
    slisthd* lruList;       // one node a live block, which begins with its handle; the newest first
    uint16_t swapFailed;    // 1 from a swap-out that came short until one that did not
    void (*errorHandler)(); // called when a swap-out comes short, or null
    int32_t bytesUsed;      // of all live blocks
    int32_t bytesPeak;      // the most that bytesUsed has been
    int32_t bytesResident;  // of the blocks that are in memory
    uint32_t blockSize;     // see KalGetVMemSize
};

#pragma pack(pop)

static_assert(KAL_SIZE(vitem, 10, 10));
static_assert(KAL_AT(vitem, id, 0, 0) && KAL_AT(vitem, size, 2, 2) && KAL_AT(vitem, offset, 6, 6));
static_assert(KAL_SIZE(vfile, 12, 20));
static_assert(KAL_AT(vfile, handle, 0, 0) && KAL_AT(vfile, nameBuf, 4, 4) && KAL_AT(vfile, items, 8, 12));
static_assert(KAL_SIZE(vmemstate, 30, 42));
static_assert(KAL_AT(vmemstate, swapFile, 0, 0) && KAL_AT(vmemstate, lruList, 4, 8) &&
              KAL_AT(vmemstate, swapFailed, 8, 16) && KAL_AT(vmemstate, errorHandler, 10, 18) &&
              KAL_AT(vmemstate, bytesUsed, 14, 26) && KAL_AT(vmemstate, bytesPeak, 18, 30) &&
              KAL_AT(vmemstate, bytesResident, 22, 34) && KAL_AT(vmemstate, blockSize, 26, 38));

// --- The manager -----------------------------------------------------------------------------------------

// Opens the manager for the calling task; the argument plays no part. A limit that was never set becomes the
// free system memory. 0; KAL_ERR_VMEM when it is open already (which stays as it is) or not even a small
// block can be had; KAL_ERR_BUFFER or KAL_ERR_MEMORY when memory is short; KAL_ERR_SERVICE or KAL_ERR_OPEN -
// errno when the swap file cannot be made. On failure nothing is left open.
KAL_API int16_t KalOpenVMem(uint16_t unused);

// Frees every live block and closes the manager. The status of closing the swap file; 0 when not open.
KAL_API int16_t KalCloseVMem();

// Allocates a block of `size` bytes, their values undefined; `flags` plays no part, callers pass 2. Swaps out
// older blocks where the limit asks for it. The handle, or null when memory is short or the manager or its LRU list is
// not open. KalFreeVMem or KalCloseVMem frees the block.
KAL_API void* KalAllocVMem(int16_t flags, uint32_t size);

// Locks a block and returns its address, which holds until as many unlocks; brings a swapped-out block back,
// for which others may go out. Null when it cannot be brought back (its copy then stays for another try), and
// for a block of 0 bytes.
KAL_API void* KalLockVMem(void* handle);

// Takes one lock back. Returns 0.
KAL_API int16_t KalUnLockVMem(void* handle);

// Resizes a block, which keeps its handle and what fits of its bytes, and counts as changed. The handle, or
// null, with the block as it was, when memory is short, the block is locked and has no room to grow where it
// lies, or the manager or its LRU list is not open. Size 0 is refused for a locked block.
KAL_API void* KalReAllocVMem(void* handle, uint32_t size);

// Frees a block, locked or not, also when the manager is not open. Returns 0.
KAL_API int16_t KalFreeVMem(void* handle);

// Tells that a block in memory was changed since it was last swapped out, so that its copy no longer counts.
// Does nothing for a block that is out: its copy is all there is of it.
KAL_API void KalMarkDirtyVMem(void* handle);

// Sets the function to call when the swap file has no room, once until a swap-out succeeds again; null for
// none. The block at which it happened stays in memory. The function may use and free blocks.
KAL_API void KalSetVMemErrorHandler(void (*handler)());

// Sets the directory for temporary files: KalTempPath. A swap file that is open stays where it is.
KAL_API void KalSetVMemTemp(const char* directory);

// The most bytes that live blocks have had since the manager was opened, and what they have now, at most
// 2,147,483,647; 0 when it is not open.
KAL_API int32_t KalMaxVMem();
KAL_API int32_t KalVMemUsed();

// Half the size in bytes of the largest block that could be had at open, at most 1,048,576; 0 when not open.
KAL_API int32_t KalGetVMemSize();

// Sets the limit in bytes for the blocks of each task in memory. It holds for the whole process, from the
// next allocation on, and outlives the manager. 0 takes it away: nothing is swapped until the next open sets
// it anew.
KAL_API void KalSetMaxVMem(uint32_t bytes);

// Sets the limit from the tag "VMEMMAX" of the settings, else to the free system memory, 1,500,000 at least.
KAL_API void KalSetMemManOptions(TagSet* options);

// The available physical memory in bytes, less a reserve of 2,200,000 where there is more.
KAL_API uint32_t KalGetFreeSystemMemory();

// --- Swap files ------------------------------------------------------------------------------------------
// Each keeps copies of blocks under 16-bit ids. It is private to the process: made for its owner alone in the
// directory that KalTempPath set (else the host's), and gone when it is closed or the process ends in any way.

// Makes an empty swap file, which KalCloseVFile ends. 0, or with `*out` null KAL_ERR_MEMORY when memory is
// short; KAL_ERR_SERVICE or KAL_ERR_OPEN - errno when the file cannot be made.
KAL_API int16_t KalOpenTempVFile(vfile** out);

// Closes a swap file and frees its record and extents. 0 (also for null).
KAL_API int16_t KalCloseVFile(vfile* file);

// The extent that holds item `id`, or for id 0 the free extent of the lowest offset; null when there is none.
// A caller frees the extent by setting its id to 0; it belongs to the file.
KAL_API vitem* KalFindVItem(vfile* file, uint16_t id);

// Reads an item's bytes to `destination`. Their count; KAL_ERR_SEEK or KAL_ERR_READ when they do not all
// come.
KAL_API int32_t KalReadVFile(vfile* file, vitem* item, void* destination);

// Stores `size` bytes as item `id`: an item of that id and size counts as the same bytes and is not written
// again; one of another size is freed first. The new item goes to the free extent of the lowest offset that
// holds it, else to the file's end. The bytes written: fewer than `size` (or -1) when the disk is full or
// fails, the extent then claimed all the same; 0 with nothing claimed when memory is short, the file would
// pass 4 GiB, or for id 0.
KAL_API int32_t KalWriteVFile(vfile* file, const void* data, uint32_t size, uint16_t id);

// --- The LRU list ----------------------------------------------------------------------------------------
// The live blocks of the calling task's manager, the newest at the head. The manager keeps it; these calls do
// nothing while it is not open.

// Makes the list; one that is there stays. 0, or KAL_ERR_BUFFER.
KAL_API int16_t KalOpenLRUVList();

// Frees the block of each node with KalFreeVMem, the newest first, and then the list. Its status. Until KalOpenLRUVList no
// block can be allocated.
KAL_API int16_t KalCloseLRUVList();

// Adds a handle at the head. 0; KAL_ERR_BUFFER when memory is short, KAL_ERR_LIST when there is no list.
KAL_API int16_t KalAddLRU(void* handle);

// Takes the first node from the head that holds the handle out of the list. 0, also when there is none. A block taken out
// is neither swapped out nor freed with the list until KalAddLRU puts it back, and counts until KalFreeVMem.
KAL_API int16_t KalDeleteLRU(void* handle);

// For KalSPeekList on the list: 1 when the node holds the handle at which `wanted` points, else 0.
KAL_API uint16_t KalFindLRUNode(void* node, void* wanted);

// Kept for their callers: the list is in the order of allocation, and neither call changes it. Both return 0.
KAL_API int16_t KalLRUNewest(void* handle);
KAL_API int16_t KalDiscardLRUOldest();

#endif
