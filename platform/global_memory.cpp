// Global memory is a table of slots. A slot's number is the low half of a handle, and a slot owns a span of
// pages, also when no block lives in it: what GlobalFree leaves is a number and its pages for the next block of
// that size class.
//
//     bare     no span
//     spare    a span with its pages
//     live     a block; without a span while it is discarded
#include "platform/global_memory.h"

#include "platform/heap_faults.h"

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

using Slot = GlobalSlot;

constexpr uint32_t kSlots = 0x10000; // slot 0 is nobody's: it ends the lists
GlobalSlot globalSlots[kSlots];

namespace {

// --- Size classes: exact up to 64 units of 4 KiB, then eight to each doubling -----------------------------

constexpr uint32_t kUnit = 4096;
constexpr uint32_t kExactClasses = kWatchedClasses;
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

size_t bytesOf(const Slot& slot) {
    return static_cast<size_t>(capacityOf(slot.spanClass));
}

// --- Free slots: lists linked by slot number ---------------------------------------------------------------

uint16_t spareSlots[kClasses];
uint16_t bareSlots;
uint32_t slotsEverUsed;

constexpr uint64_t kMostKept = uint64_t(sizeof(void*) == 4 ? 128 : 512) << 20;
std::atomic<uint64_t> keptBytes; // read without the lock
std::atomic<uint32_t> liveBlocks;

// Only one thread at a time changes these two.
template <class Number>
void add(std::atomic<Number>& counter, Number change) {
    counter.store(counter.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

void push(uint16_t& list, uint16_t index) {
    globalSlots[index].next = list;
    list = index;
}

uint16_t pop(uint16_t& list) {
    const uint16_t index = list;
    list = globalSlots[index].next;
    return index;
}

uint16_t takeSpare(uint32_t spanClass) {
    add(keptBytes, 0 - capacityOf(spanClass));
    const uint16_t index = pop(spareSlots[spanClass]);
    // What the next allocations will touch lies far apart: fetch it while this one is at work.
    const Slot& next = globalSlots[globalSlots[index].next];
    __builtin_prefetch(next.span, 1);
    __builtin_prefetch(&globalSlots[next.next]);
    return index;
}

// Puts a slot in which no block lives any more among the free ones.
void retire(uint16_t index) {
    Slot& slot = globalSlots[index];
    if (slot.span != nullptr && keptBytes.load(std::memory_order_relaxed) + bytesOf(slot) > kMostKept) {
        unmapPages(slot.span, bytesOf(slot));
        slot.span = nullptr;
    }
    if (slot.span == nullptr)
        return push(bareSlots, index);
    markUnusable(slot.span, bytesOf(slot));
    add<uint64_t>(keptBytes, bytesOf(slot));
    push(spareSlots[slot.spanClass], index);
}

// Gives spans back to the host until no more than `most` bytes are kept, neighbours in one call: blocks are often
// freed in the order of their addresses.
void trim(uint64_t most) {
    uint8_t* begin = nullptr;
    uint8_t* end = nullptr;
    for (uint32_t c = kClasses; c-- > 0;)
        while (spareSlots[c] != 0 && keptBytes.load(std::memory_order_relaxed) > most) {
            const uint16_t index = takeSpare(c);
            uint8_t* span = std::exchange(globalSlots[index].span, nullptr);
            const auto bytes = static_cast<size_t>(capacityOf(c));
            push(bareSlots, index);
            if (span + bytes != begin && span != end) {
                unmapPages(begin, static_cast<size_t>(end - begin));
                begin = end = span;
            }
            begin = std::min(begin, span);
            end = std::max(end, span + bytes);
        }
    unmapPages(begin, static_cast<size_t>(end - begin));
}

// A slot without a span; when every number is taken, that of a spare one. 0 when all are live.
uint16_t takeBare() {
    if (bareSlots == 0 && slotsEverUsed + 1 < kSlots)
        return static_cast<uint16_t>(++slotsEverUsed);
    if (bareSlots == 0)
        trim(0);
    return bareSlots != 0 ? pop(bareSlots) : 0;
}

// --- Spans -------------------------------------------------------------------------------------------------

// Spans of the exact classes are cut from chunks; larger ones are mapped one by one. A process that fills many
// chunks gets larger ones on the host's large pages, which it has sooner and finds faster.
uint8_t* chunkNext;
size_t chunkLeft;
size_t chunkBytesEver;

bool newChunk() {
    constexpr size_t kChunk = 1 << 20;
    constexpr size_t kLargeChunk = 8 << 20;
    const bool isLarge = chunkBytesEver >= kLargeChunk;
    const size_t bytes = isLarge ? kLargeChunk : kChunk;
    uint8_t* chunk = mapPages(bytes);
    if (chunk == nullptr)
        return false;
    if (isLarge)
        wantLargePages(chunk, bytes);
    chunkBytesEver += bytes;
    chunkNext = chunk;
    chunkLeft = bytes;
    return true;
}

uint8_t* makeSpan(uint32_t spanClass) {
    const uint64_t capacity = capacityOf(spanClass);
    if (capacity > SIZE_MAX / 2)
        return nullptr;
    const auto bytes = static_cast<size_t>(capacity);
    if (spanClass >= kExactClasses)
        return mapPages(bytes);
    if (chunkLeft < bytes && !newChunk())
        return nullptr;
    chunkLeft -= bytes;
    return std::exchange(chunkNext, chunkNext + bytes);
}

// Spare spans are given up when nothing else helps.
uint8_t* newSpan(uint32_t spanClass) {
    uint8_t* span = makeSpan(spanClass);
    if (span == nullptr && keptBytes.load(std::memory_order_relaxed) > 0) {
        trim(0);
        span = makeSpan(spanClass);
    }
    return span;
}

// A free slot with a span of the class, or 0.
uint16_t takeSlot(uint32_t spanClass) {
    if (spareSlots[spanClass] != 0)
        return takeSpare(spanClass);
    const uint16_t index = takeBare();
    if (index == 0)
        return 0;
    globalSlots[index].span = newSpan(spanClass);
    if (globalSlots[index].span != nullptr) {
        globalSlots[index].spanClass = static_cast<uint8_t>(spanClass);
        return index;
    }
    push(bareSlots, index);
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

uint16_t indexOf(const Slot& slot) {
    return static_cast<uint16_t>(&slot - globalSlots);
}

Slot* liveSlot(HGLOBAL block) {
    Slot* slot = slotOf(block);
    return block != nullptr && slot->handle == reinterpret_cast<uintptr_t>(block) ? slot : nullptr;
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

// Moves an unlocked block, which may be discarded, to a span of another class: a spare one, else the same pages
// at another place.
bool moveTo(Slot& slot, uint32_t spanClass) {
    if (spareSlots[spanClass] != 0) {
        const uint16_t index = takeSpare(spanClass);
        Slot& other = globalSlots[index];
        const size_t kept = std::min<size_t>(slot.size, bytesOf(other));
        if (kept > 0) {
            markUsable(slot.span, kept);
            markUsable(other.span, kept);
            std::memcpy(other.span, slot.span, kept);
        }
        std::swap(slot.span, other.span);
        std::swap(slot.spanClass, other.spanClass);
        retire(index);
        return true;
    }
    const uint64_t capacity = capacityOf(spanClass);
    uint8_t* span = slot.span == nullptr ? newSpan(spanClass)
                    : capacity > SIZE_MAX / 2
                        ? nullptr
                        : remapPages(slot.span, bytesOf(slot), static_cast<size_t>(capacity));
    if (span == nullptr)
        return false;
    slot.span = span;
    slot.spanClass = static_cast<uint8_t>(spanClass);
    markUsable(span, std::min<size_t>(slot.size, bytesOf(slot)));
    return true;
}

// A block that grows gets half as much again to spare where that can be had, so that growth by small steps moves
// it seldom.
bool moveToGrow(Slot& slot, uint32_t size) {
    const uint64_t roomy = capacityOf(slot.spanClass) * 3 / 2;
    return (roomy > size && roomy <= UINT32_MAX && moveTo(slot, classOf(static_cast<uint32_t>(roomy)))) ||
           moveTo(slot, classOf(size));
}

// The pages go to whoever asks next for as many.
bool discard(Slot& slot) {
    if (slot.locks > 0)
        return false;
    slot.size = 0;
    uint8_t* span = std::exchange(slot.span, nullptr);
    if (span == nullptr)
        return true;
    if (const uint16_t index = takeBare()) {
        globalSlots[index].span = span;
        globalSlots[index].spanClass = slot.spanClass;
        retire(index);
    } else {
        unmapPages(span, bytesOf(slot));
    }
    return true;
}

bool resize(Slot& slot, uint32_t size, bool clear) {
    if (slot.span == nullptr ? !moveTo(slot, classOf(size))
                             : size > bytesOf(slot) && (slot.locks > 0 || !moveToGrow(slot, size)))
        return false;
    if (size < slot.size && slot.locks == 0 && classOf(size) < slot.spanClass && moveTo(slot, classOf(size)))
        slot.size = size;
    setSize(slot, size, clear);
    return true;
}

} // namespace

HGLOBAL GlobalAlloc(uint32_t flags, uint32_t size) {
    if (heapFaultDue())
        return nullptr;
    const TableLock lock;
    const uint16_t index = size > 0 ? takeSlot(classOf(size)) : takeBare();
    if (index == 0)
        return nullptr;
    Slot& slot = globalSlots[index];
    slot.size = 0;
    slot.locks = 0;
    slot.handle += 0x10000 + index;
    add(liveBlocks, 1u);
    if (size > 0)
        setSize(slot, size, (flags & GMEM_ZEROINIT) != 0);
    return reinterpret_cast<HGLOBAL>(uintptr_t(slot.handle));
}

HGLOBAL GlobalReAlloc(HGLOBAL block, uint32_t size, uint32_t flags) {
    Slot* slot = liveSlot(block);
    if (slot == nullptr || (size > slot->size && heapFaultDue()))
        return nullptr;
    const TableLock lock;
    return (size == 0 ? discard(*slot) : resize(*slot, size, (flags & GMEM_ZEROINIT) != 0)) ? block : nullptr;
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
    slot->handle &= 0xFFFF0000;
    add(liveBlocks, 0u - 1);
    retire(indexOf(*slot));
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
    trim(most);
}

uint32_t liveGlobalBlocks() {
    return liveBlocks.load(std::memory_order_relaxed);
}
