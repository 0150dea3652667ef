// Global memory is a table of slots, whose numbers are the low halves of handles, and spans of pages. A live slot owns a
// span, unless it is discarded. The spans that nobody owns keep their pages; they stand in one list for each size class.
#include "platform/global_memory.h"

#include "platform/heap_faults.h"
#include "platform/one_thread.h"

#include <kal/heap.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <mutex>
#include <utility>

using Slot = GlobalSlot;

constexpr uint32_t kSlots = 0x10000; // slot 0 is nobody's: it ends the list of free ones
GlobalSlot globalSlots[kSlots];
uint32_t globalSizes[kSlots];

namespace {

// What only allocating and freeing look at.
struct SlotExtra {
    uint16_t next; // in the list of free slots
    uint8_t spanClass;
};
SlotExtra extras[kSlots];
uint16_t freeSlots;
uint32_t slotsEverUsed;
uint32_t liveBlocks;

// --- Size classes: exact up to 16 units of 4 KiB, then eight to each doubling -----------------------------

constexpr uint32_t kUnit = 4096;
constexpr uint32_t kClasses = 144; // up to 4 GiB

uint32_t classOf(uint32_t size) {
    const uint64_t page = pageSize();
    const auto last = static_cast<uint32_t>((size + page - 1) / page * page / kUnit - 1);
    const auto shift = static_cast<uint32_t>(std::max(static_cast<int>(std::bit_width(last)), 4) - 4);
    return shift * 8 + (last >> shift);
}

// More than can be had where it is more than an object can have.
size_t capacityOf(uint32_t spanClass) {
    const uint32_t shift = std::max(spanClass / 8, 1u) - 1;
    const uint64_t bytes = uint64_t(spanClass - shift * 8 + 1) * kUnit << shift;
    return bytes <= SIZE_MAX / 2 ? static_cast<size_t>(bytes) : SIZE_MAX;
}

// --- Spans -------------------------------------------------------------------------------------------------

// Nothing is written into the spans: many are far from the processor by then.
struct Spare {
    uint8_t* span;
    uint16_t next; // in its class's list, or in that of the unused ones
};
Spare spareTable[kSlots]; // the first ends the lists
uint16_t spares[kClasses];
uint16_t unusedSpares;
uint32_t sparesEverUsed;
uint64_t keptBytes;

// Small spans are cut from chunks; larger ones are mapped one by one. A process that fills many chunks gets larger
// ones on the host's large pages, which it has sooner and finds faster.
constexpr size_t kMostCut = 64 * kUnit;
uint8_t* chunkNext;
size_t chunkLeft;
size_t chunkBytesEver;

uint8_t* makeSpan(size_t bytes) {
    constexpr size_t kChunk = 1 << 20, kLargeChunk = 8 << 20;
    if (bytes > kMostCut)
        return mapPages(bytes);
    if (chunkLeft < bytes) {
        const bool isLarge = chunkBytesEver >= kLargeChunk;
        const size_t chunkBytes = isLarge ? kLargeChunk : kChunk;
        uint8_t* chunk = mapPages(chunkBytes);
        if (chunk == nullptr)
            return nullptr;
        if (isLarge)
            wantLargePages(chunk, chunkBytes);
        chunkBytesEver += chunkBytes;
        chunkNext = chunk;
        chunkLeft = chunkBytes;
    }
    chunkLeft -= bytes;
    return std::exchange(chunkNext, chunkNext + bytes);
}

uint8_t* takeSpare(uint32_t spanClass) {
    const uint16_t index = spares[spanClass];
    Spare& spare = spareTable[index];
    spares[spanClass] = std::exchange(spare.next, unusedSpares);
    unusedSpares = index;
    __builtin_prefetch(spareTable[spares[spanClass]].span, 1); // the next block's, which will be filled
    keptBytes -= capacityOf(spanClass);
    return spare.span;
}

void sortByAddress(uint16_t* list) {
    static uint16_t sorted[kSlots];
    uint16_t* end = sorted;
    for (uint16_t index = *list; index != 0; index = spareTable[index].next)
        *end++ = index;
    std::sort(sorted, end, [](uint16_t a, uint16_t b) { return spareTable[a].span < spareTable[b].span; });
    for (const uint16_t* index = sorted; index != end; index++)
        list = &(spareTable[*list = *index].next);
    *list = 0;
}

// Gives spans back to the host until no more than `most` bytes are kept, neighbours in one call. A few go in the order
// in which they were freed, which often is that of their addresses.
void trim(uint64_t most) {
    if (most == 0)
        std::ranges::for_each(spares, [](uint16_t& list) { sortByAddress(&list); });
    uint8_t* begin = nullptr;
    uint8_t* end = nullptr;
    for (uint32_t c = kClasses; c-- > 0;)
        while (spares[c] != 0 && keptBytes > most) {
            uint8_t* span = takeSpare(c);
            const size_t bytes = capacityOf(c);
            if (span + bytes != begin && span != end) {
                unmapPages(begin, static_cast<size_t>(end - begin));
                begin = end = span;
            }
            begin = std::min(begin, span);
            end = std::max(end, span + bytes);
        }
    unmapPages(begin, static_cast<size_t>(end - begin));
}

// Spare spans of other classes are given up when nothing else helps.
uint8_t* takeSpan(uint32_t spanClass) {
    if (spares[spanClass] != 0)
        return takeSpare(spanClass);
    uint8_t* span = makeSpan(capacityOf(spanClass));
    if (span == nullptr && keptBytes > 0) {
        trim(0);
        span = makeSpan(capacityOf(spanClass));
    }
    return span;
}

void giveSpan(uint8_t* span, uint32_t spanClass) {
    constexpr uint64_t kMostKept = uint64_t(sizeof(void*) == 4 ? 128 : 512) << 20;
    const size_t bytes = capacityOf(spanClass);
    if (keptBytes + bytes > kMostKept || (unusedSpares == 0 && sparesEverUsed + 1 == kSlots))
        return unmapPages(span, bytes);
    const auto index = static_cast<uint16_t>(unusedSpares != 0 ? unusedSpares : ++sparesEverUsed);
    unusedSpares = spareTable[index].next;
    spareTable[index] = {span, spares[spanClass]};
    spares[spanClass] = index;
    keptBytes += bytes;
    markUnusable(span, bytes);
}

// --- Blocks ------------------------------------------------------------------------------------------------

std::mutex tableMutex;

// Guards the lists and counts. A block itself is used by one thread at a time, as its user sees to.
std::unique_lock<std::mutex> lockTable() {
    return isOneThread() ? std::unique_lock(tableMutex, std::defer_lock) : std::unique_lock(tableMutex);
}

uint16_t indexOf(HGLOBAL block) {
    return static_cast<uint16_t>(reinterpret_cast<uintptr_t>(block));
}

Slot* liveSlot(HGLOBAL block) {
    Slot* slot = slotOf(block);
    return block != nullptr && slot->handle == reinterpret_cast<uintptr_t>(block) ? slot : nullptr;
}

// Moves an unlocked block to a span of another class: a spare one, else the same pages at another place.
bool moveTo(Slot* slot, uint16_t index, uint32_t spanClass) {
    const uint32_t oldClass = extras[index].spanClass;
    const size_t capacity = capacityOf(spanClass);
    const auto kept = static_cast<uint32_t>(std::min<size_t>(globalSizes[index], capacity));
    uint8_t* span;
    markUsable(slot->span, kept);
    if (spares[spanClass] != 0) {
        span = takeSpare(spanClass);
        markUsable(span, kept);
        std::memcpy(span, slot->span, kept);
        giveSpan(slot->span, oldClass);
    } else {
        span = remapPages(slot->span, capacityOf(oldClass), capacity);
        if (span == nullptr)
            return false;
        markUsable(span, kept);
    }
    slot->span = span;
    globalSizes[index] = kept;
    extras[index].spanClass = static_cast<uint8_t>(spanClass);
    return true;
}

// Makes a block's span hold as much. One that grows gets half as much again to spare where that can be had, so that
// growth by small steps moves it seldom.
bool fitSpan(Slot* slot, uint16_t index, uint32_t size) {
    const uint32_t wanted = classOf(size);
    if (slot->span == nullptr) {
        slot->span = takeSpan(wanted);
        extras[index].spanClass = static_cast<uint8_t>(wanted);
        return slot->span != nullptr;
    }
    const uint32_t now = extras[index].spanClass;
    if (size <= capacityOf(now)) {
        if (wanted < now && size < globalSizes[index] && slot->locks == 0)
            moveTo(slot, index, wanted);
        return true;
    }
    const uint64_t roomy = uint64_t{capacityOf(now)} * 3 / 2;
    return slot->locks == 0 &&
           ((roomy > size && roomy <= UINT32_MAX && moveTo(slot, index, classOf(uint32_t(roomy)))) ||
            moveTo(slot, index, wanted));
}

// Gives a block another size, its bytes gained cleared when that is asked for. False, and no change, without memory.
bool resize(Slot* slot, uint16_t index, uint32_t size, uint32_t flags) {
    if (!fitSpan(slot, index, size))
        return false;
    const uint32_t old = std::exchange(globalSizes[index], size);
    const uint32_t gained = size > old ? size - old : 0;
    markUsable(slot->span, std::min(old, kMostWatched));
    markUsable(slot->span + old, gained);
    markUnusable(slot->span + size, old + gained - size);
    if ((flags & GMEM_ZEROINIT) != 0)
        std::memset(slot->span + old, 0, gained);
    if (slot->locks == 0)
        watch(slot, markUnusable);
    return true;
}

// The pages go to whoever asks next for as many.
void discard(Slot* slot, uint16_t index) {
    if (slot->span != nullptr)
        giveSpan(std::exchange(slot->span, nullptr), extras[index].spanClass);
    globalSizes[index] = 0;
}

void freeSlot(Slot* slot, uint16_t index) {
    slot->handle &= 0xFFFF0000;
    extras[index].next = std::exchange(freeSlots, index);
    liveBlocks--;
}

} // namespace

HGLOBAL GlobalAlloc(uint32_t flags, uint32_t size) {
    if (heapFaultDue())
        return nullptr;
    const auto lock = lockTable();
    if (freeSlots == 0 && slotsEverUsed + 1 == kSlots)
        return nullptr;
    const auto index = static_cast<uint16_t>(freeSlots != 0 ? freeSlots : ++slotsEverUsed);
    freeSlots = extras[index].next;
    Slot* slot = &globalSlots[index];
    slot->handle += 0x10000 + index;
    slot->locks = 0;
    liveBlocks++;
    if (size > 0 && !resize(slot, index, size, flags)) {
        freeSlot(slot, index);
        return nullptr;
    }
    return reinterpret_cast<HGLOBAL>(uintptr_t(slot->handle));
}

HGLOBAL GlobalReAlloc(HGLOBAL block, uint32_t size, uint32_t flags) {
    Slot* slot = liveSlot(block);
    const uint16_t index = indexOf(block);
    if (slot == nullptr || (size > globalSizes[index] && heapFaultDue()) || (size == 0 && slot->locks > 0))
        return nullptr;
    const auto lock = lockTable();
    if (size == 0)
        discard(slot, index);
    else if (!resize(slot, index, size, flags))
        return nullptr;
    return block;
}

uint32_t GlobalSize(HGLOBAL block) {
    return liveSlot(block) != nullptr ? globalSizes[indexOf(block)] : 0;
}

HGLOBAL GlobalFree(HGLOBAL block) {
    Slot* slot = liveSlot(block);
    if (slot == nullptr)
        return block;
    const auto lock = lockTable();
    discard(slot, indexOf(block));
    freeSlot(slot, indexOf(block));
    return nullptr;
}

uint32_t GlobalFlags(HGLOBAL block) {
    const Slot* slot = liveSlot(block);
    if (slot == nullptr)
        return GMEM_INVALID_HANDLE;
    return std::min<uint32_t>(slot->locks, GMEM_LOCKCOUNT) | (slot->span == nullptr ? GMEM_DISCARDED : 0);
}

void* KalGlobalReAlloc(void* block, uint32_t size, uint32_t flags) {
    return GlobalReAlloc(block, size, flags | GMEM_ZEROINIT);
}

uint64_t keptGlobalMemory() {
    const auto lock = lockTable();
    return keptBytes;
}

void trimGlobalMemory(uint64_t most) {
    const auto lock = lockTable();
    trim(most);
}

uint32_t liveGlobalBlocks() {
    const auto lock = lockTable();
    return liveBlocks;
}
