// Global memory is a table of slots. A slot's number is the low half of a handle, and a slot owns a span of
// pages, also when no block lives in it: what GlobalFree leaves is handle and memory for the next block of
// that size class.
//
//     unused   no span
//     cold     a span whose pages are the host's again
//     kept     a span with its pages
//     live     a block; discarded while its size is 0, and then mostly without a span: a slot that is free
//              keeps it
#include "platform/global_memory.h"

#include "platform/heap_faults.h"
#include "platform/host_calls.h"
#include "platform/pages.h"

#include <kal/heap.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <mutex>
#include <utility>
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

namespace {

struct Slot {
    uint8_t* span;       // null when there is none
    uint32_t size;       // bytes asked for; 0 while discarded
    uint16_t generation; // high half of the handle
    uint16_t locks;
    uint16_t next; // in the list of free slots that this one is in
    uint8_t spanClass;
    bool live;
};

constexpr uint32_t kSlots = 0x10000; // slot 0 is nobody's: it ends the lists
Slot slots[kSlots];

// --- Size classes: exact up to 64 units of 4 KiB, then eight to each doubling -----------------------------

constexpr uint32_t kUnit = 4096;
constexpr uint32_t kExactClasses = 64;
constexpr uint32_t kClasses = kExactClasses + 14 * 8;

uint32_t classOf(uint32_t size) {
    const uint64_t page = pageSize();
    const auto units = static_cast<uint32_t>((size + page - 1) / page * page / kUnit);
    if (units <= kExactClasses)
        return units - 1;
    const auto width = static_cast<uint32_t>(std::bit_width(units - 1));
    return kExactClasses + (width - 7) * 8 + ((units - 1) >> (width - 4)) - 8;
}

uint64_t capacityOf(uint32_t spanClass) {
    if (spanClass < kExactClasses)
        return uint64_t(spanClass + 1) * kUnit;
    const uint32_t above = spanClass - kExactClasses;
    return uint64_t(above % 8 + 9) * kUnit << (above / 8 + 3);
}

// --- Spans -------------------------------------------------------------------------------------------------

// Spans of the exact classes are cut from chunks and stay part of them; larger ones are mappings of their
// own.
constexpr size_t kChunk = 1 << 20;
uint8_t* chunkNext;
size_t chunkLeft;

bool isMapping(uint32_t spanClass) {
    return spanClass >= kExactClasses;
}

uint8_t* newSpan(uint32_t spanClass) {
    const uint64_t capacity = capacityOf(spanClass);
    if (capacity > SIZE_MAX / 2)
        return nullptr;
    const auto bytes = static_cast<size_t>(capacity);
    if (isMapping(spanClass))
        return mapPages(bytes);
    if (chunkLeft < bytes) {
        uint8_t* chunk = mapPages(kChunk);
        if (chunk == nullptr)
            return nullptr;
        chunkNext = chunk;
        chunkLeft = kChunk;
    }
    uint8_t* span = chunkNext;
    chunkNext += bytes;
    chunkLeft -= bytes;
    return span;
}

void unmapSpan(Slot& slot) {
    unmapPages(slot.span, static_cast<size_t>(capacityOf(slot.spanClass)));
    slot.span = nullptr;
}

// Gives the span's memory back to the host, and its addresses too where it is a mapping.
void coolSpan(Slot& slot) {
    if (isMapping(slot.spanClass))
        unmapSpan(slot);
    else
        dropPages(slot.span, static_cast<size_t>(capacityOf(slot.spanClass)));
}

void closeSpan(const Slot& slot) {
    markUnusable(slot.span, static_cast<size_t>(capacityOf(slot.spanClass)));
}

// An unlocked block must not be touched. The sanitizer does not watch over large ones, whose marks take long.
void closeBlock(const Slot& slot) {
    if (!isMapping(slot.spanClass))
        closeSpan(slot);
}

// --- Free slots: lists linked by slot number ---------------------------------------------------------------

uint16_t keptSlots[kClasses];
uint16_t coldSlots[kClasses];
uint16_t unusedSlots;
uint32_t slotsEverUsed;

constexpr uint64_t kMostKept = uint64_t(256) << 20;
std::atomic<uint64_t> keptBytes; // read without the lock
std::atomic<uint32_t> liveBlocks;

// Only one thread at a time changes these two.
template <class Number>
void add(std::atomic<Number>& counter, Number change) {
    counter.store(counter.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

void push(uint16_t& list, uint16_t index) {
    slots[index].next = list;
    list = index;
}

uint16_t pop(uint16_t& list) {
    const uint16_t index = list;
    list = slots[index].next;
    return index;
}

uint16_t takeKept(uint32_t spanClass) {
    add(keptBytes, 0 - capacityOf(spanClass));
    const uint16_t index = pop(keptSlots[spanClass]);
    // Slots and spans freed at random lie far apart: fetch what the next two allocations will ask for.
    const Slot& next = slots[keptSlots[spanClass]];
    __builtin_prefetch(next.span, 1);
    __builtin_prefetch(&slots[next.next]);
    return index;
}

// Puts a slot in which no block lives any more among the free ones.
void retire(uint16_t index) {
    Slot& slot = slots[index];
    if (slot.span == nullptr)
        return push(unusedSlots, index);
    closeSpan(slot);
    const uint64_t capacity = capacityOf(slot.spanClass);
    const bool discarded = slot.size == 0;
    if (!discarded && keptBytes.load(std::memory_order_relaxed) + capacity <= kMostKept) {
        add(keptBytes, capacity);
        return push(keptSlots[slot.spanClass], index);
    }
    if (!discarded)
        coolSpan(slot);
    push(slot.span != nullptr ? coldSlots[slot.spanClass] : unusedSlots, index);
}

bool hasUnused() {
    return unusedSlots != 0 || slotsEverUsed + 1 < kSlots;
}

// A free slot stripped of its span, or 0: when every number is taken, a span of another class must go.
uint16_t stripOne() {
    for (uint32_t c = 0; c < kClasses; c++) {
        if (coldSlots[c] == 0 && keptSlots[c] == 0)
            continue;
        const uint16_t index = coldSlots[c] != 0 ? pop(coldSlots[c]) : takeKept(c);
        unmapSpan(slots[index]);
        return index;
    }
    return 0;
}

uint16_t takeUnused() {
    if (!hasUnused())
        return stripOne();
    return unusedSlots != 0 ? pop(unusedSlots) : static_cast<uint16_t>(++slotsEverUsed);
}

// Gives a slot without a span a new one, for which all spans of free slots are given up when nothing else
// helps.
bool giveSpan(Slot& slot, uint32_t spanClass) {
    slot.spanClass = static_cast<uint8_t>(spanClass);
    slot.span = newSpan(spanClass);
    if (slot.span != nullptr)
        return true;
    while (const uint16_t index = stripOne())
        push(unusedSlots, index);
    slot.span = newSpan(spanClass);
    return slot.span != nullptr;
}

// A free slot with a span of the class, or 0.
uint16_t takeSlot(uint32_t spanClass) {
    if (keptSlots[spanClass] != 0)
        return takeKept(spanClass);
    if (coldSlots[spanClass] != 0)
        return pop(coldSlots[spanClass]);
    const uint16_t index = takeUnused();
    if (index == 0)
        return 0;
    if (giveSpan(slots[index], spanClass))
        return index;
    push(unusedSlots, index);
    return 0;
}

// --- Blocks ------------------------------------------------------------------------------------------------

std::mutex tableMutex;

// Guards the lists of free slots. A block itself is used by one thread at a time, as its user sees to.
class TableLock {
public:
#if __has_include(<sys/single_threaded.h>)
    TableLock() : taken_(__libc_single_threaded == 0) {
#else
    TableLock() : taken_(true) {
#endif
        if (taken_)
            tableMutex.lock();
    }
    ~TableLock() {
        if (taken_)
            tableMutex.unlock();
    }
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

private:
    bool taken_;
};

// Pages to give back to the host, neighbours in one call: blocks are often freed in the order of their
// addresses.
class PageRun {
public:
    void add(uint8_t* pages, size_t bytes) {
        if (pages + bytes == begin_) {
            begin_ = pages;
        } else if (pages == end_) {
            end_ += bytes;
        } else {
            drop();
            begin_ = pages;
            end_ = pages + bytes;
        }
    }
    ~PageRun() { drop(); }

private:
    void drop() {
        if (begin_ != end_)
            dropPages(begin_, static_cast<size_t>(end_ - begin_));
    }
    uint8_t* begin_ = nullptr;
    uint8_t* end_ = nullptr;
};

HGLOBAL handleOf(uint16_t index) {
    return reinterpret_cast<HGLOBAL>(uintptr_t(slots[index].generation) << 16 | index);
}

uint16_t indexOf(HGLOBAL block) {
    return static_cast<uint16_t>(reinterpret_cast<uintptr_t>(block));
}

Slot* liveSlot(HGLOBAL block) {
    const auto number = reinterpret_cast<uintptr_t>(block);
    Slot& slot = slots[number & 0xFFFF];
    return slot.live && slot.generation == number >> 16 ? &slot : nullptr;
}

// Sets the size of a block whose span holds as much, and clears bytes gained when asked to.
void setSize(Slot& slot, uint32_t size, bool clear) {
    if (size > slot.size) {
        markUsable(slot.span + slot.size, size - slot.size);
        if (clear)
            std::memset(slot.span + slot.size, 0, size - slot.size);
    } else {
        markUnusable(slot.span + size, slot.size - size);
    }
    slot.size = size;
    if (slot.locks == 0)
        closeBlock(slot);
}

// Pages behind the end of a block that shrank go back to the host.
void dropTail(const Slot& slot, uint32_t oldSize) {
    const uint64_t page = pageSize();
    const uint64_t used = (slot.size + page - 1) / page * page;
    const uint64_t wasUsed = (oldSize + page - 1) / page * page;
    if (used < wasUsed)
        dropPages(slot.span + used, static_cast<size_t>(wasUsed - used));
}

// Moves an unlocked block, which may be discarded, to a span of another class.
bool moveTo(Slot& slot, uint32_t spanClass) {
    if (slot.size > 0 && isMapping(slot.spanClass) && isMapping(spanClass)) {
        const uint64_t capacity = capacityOf(spanClass);
        uint8_t* span = capacity > SIZE_MAX / 2
                            ? nullptr
                            : remapPages(slot.span, static_cast<size_t>(capacityOf(slot.spanClass)),
                                         static_cast<size_t>(capacity));
        if (span == nullptr)
            return false;
        slot.span = span;
        markUsable(span, slot.size);
        slot.spanClass = static_cast<uint8_t>(spanClass);
        return true;
    }
    const uint16_t index = takeSlot(spanClass);
    if (index == 0)
        return slot.span == nullptr && giveSpan(slot, spanClass); // every number is taken
    Slot& other = slots[index];
    if (slot.size > 0) {
        markUsable(slot.span, slot.size);
        markUsable(other.span, slot.size);
        std::memcpy(other.span, slot.span, slot.size);
    }
    std::swap(slot.span, other.span);
    std::swap(slot.spanClass, other.spanClass);
    other.size = slot.size; // the old span is as cold as the block was
    retire(index);
    return true;
}

// Moves an unlocked block to a larger span, with half as much again to spare where that can be had, so that
// growth by small steps moves it seldom.
bool moveToGrow(Slot& slot, uint32_t size) {
    const uint64_t roomy = capacityOf(slot.spanClass) * 3 / 2;
    if (roomy > size && roomy <= UINT32_MAX && moveTo(slot, classOf(static_cast<uint32_t>(roomy))))
        return true;
    return moveTo(slot, classOf(size));
}

bool discard(Slot& slot) {
    if (slot.locks > 0)
        return false;
    if (slot.size > 0 && hasUnused()) {
        const uint16_t index = takeUnused();
        slots[index].span = slot.span;
        slots[index].spanClass = slot.spanClass;
        slots[index].size = slot.size;
        slot.span = nullptr;
        retire(index);
    } else if (slot.size > 0) {
        closeSpan(slot);
        coolSpan(slot);
    }
    slot.size = 0;
    return true;
}

// Gives a discarded block memory again.
bool revive(Slot& slot, uint32_t size, bool clear) {
    const uint32_t spanClass = classOf(size);
    if ((slot.span == nullptr || slot.spanClass != spanClass) && !moveTo(slot, spanClass))
        return false;
    setSize(slot, size, clear);
    return true;
}

bool resize(Slot& slot, uint32_t size, bool clear) {
    if (size > capacityOf(slot.spanClass) && (slot.locks > 0 || !moveToGrow(slot, size)))
        return false;
    const uint32_t oldSize = slot.size;
    setSize(slot, size, clear);
    if (size < oldSize)
        dropTail(slot, oldSize);
    return true;
}

} // namespace

HGLOBAL GlobalAlloc(uint32_t flags, uint32_t size) {
    if (heapFaultDue())
        return nullptr;
    const TableLock lock;
    const uint16_t index = size > 0 ? takeSlot(classOf(size)) : takeUnused();
    if (index == 0)
        return nullptr;
    Slot& slot = slots[index];
    slot.size = 0;
    slot.locks = 0;
    slot.live = true;
    add(liveBlocks, 1u);
    if (size > 0)
        setSize(slot, size, (flags & GMEM_ZEROINIT) != 0);
    return handleOf(index);
}

void* GlobalLock(HGLOBAL block) {
    Slot* slot = liveSlot(block);
    if (slot == nullptr || slot->size == 0 || slot->locks == UINT16_MAX)
        return nullptr;
    if (slot->locks++ == 0 && !isMapping(slot->spanClass))
        markUsable(slot->span, slot->size);
    return slot->span;
}

int32_t GlobalUnlock(HGLOBAL block) {
    Slot* slot = liveSlot(block);
    if (slot == nullptr || slot->locks == 0)
        return 0;
    if (--slot->locks == 0)
        closeBlock(*slot);
    return slot->locks;
}

HGLOBAL GlobalReAlloc(HGLOBAL block, uint32_t size, uint32_t flags) {
    Slot* slot = liveSlot(block);
    if (slot == nullptr || (size > slot->size && heapFaultDue()))
        return nullptr;
    const bool clear = (flags & GMEM_ZEROINIT) != 0;
    const TableLock lock;
    const bool done = size == 0         ? discard(*slot)
                      : slot->size == 0 ? revive(*slot, size, clear)
                                        : resize(*slot, size, clear);
    return done ? block : nullptr;
}

uint32_t GlobalSize(HGLOBAL block) {
    const Slot* slot = liveSlot(block);
    return slot != nullptr ? slot->size : 0;
}

HGLOBAL GlobalFree(HGLOBAL block) {
    Slot* slot = liveSlot(block);
    if (slot == nullptr)
        return block;
    const TableLock lock;
    slot->live = false;
    slot->generation++;
    add(liveBlocks, 0u - 1);
    retire(indexOf(block));
    return nullptr;
}

uint32_t GlobalFlags(HGLOBAL block) {
    const Slot* slot = liveSlot(block);
    if (slot == nullptr)
        return GMEM_INVALID_HANDLE;
    return std::min<uint32_t>(slot->locks, GMEM_LOCKCOUNT) | (slot->size == 0 ? GMEM_DISCARDED : 0);
}

void* KalGlobalReAlloc(void* block, uint32_t size, uint32_t flags) {
    return GlobalReAlloc(block, size, flags | GMEM_ZEROINIT);
}

uint64_t keptGlobalMemory() {
    return keptBytes.load(std::memory_order_relaxed);
}

void trimGlobalMemory(uint64_t most) {
    const TableLock lock;
    PageRun run;
    for (uint32_t c = kClasses; c-- > 0;)
        while (keptSlots[c] != 0 && keptBytes.load(std::memory_order_relaxed) > most) {
            const uint16_t index = takeKept(c);
            if (isMapping(c))
                unmapSpan(slots[index]);
            else
                run.add(slots[index].span, static_cast<size_t>(capacityOf(c)));
            push(isMapping(c) ? unusedSlots : coldSlots[c], index);
        }
}

uint32_t liveGlobalBlocks() {
    return liveBlocks.load(std::memory_order_relaxed);
}
