// Small memory over the C heap. A block:
//
//     malloc -> +------------------+---------------------+--------+
//               | size, 16 bytes   | usable bytes        | 0xCDAB |
//               +------------------+---------------------+--------+
//                                  ^ what the caller holds
//
// The block map answers whether a pointer is one of these before anything at it is read.
#include <kal/heap.h>

#include "platform/block_map.h"
#include "platform/heap_faults.h"
#include "platform/host_calls.h"
#include "platform/one_thread.h"
#include "platform/pages.h"
#include "platform/uncleared.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

namespace {

constexpr size_t kHeader = 16;
static_assert(kHeader % alignof(max_align_t) == 0 && kHeader >= sizeof(uint32_t));

// 0: no fault asked for. Counts down to the allocation that fails.
std::atomic<int64_t> faultCountdown{0};
std::atomic<bool> faultStays{false};
std::atomic<bool> faultHappened{false};

std::atomic<uint32_t> failures{0};
std::nullptr_t noMemory() {
    failures.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
}

uint8_t* rawOf(void* block) {
    return static_cast<uint8_t*>(block) - kHeader;
}

// The most a block can have: header and guard must fit the address space too.
bool tooLarge(uint32_t size) {
    return uint64_t{size} + kHeader + sizeof(KAL_HEAP_GUARD) > SIZE_MAX;
}

// A large block that grows gets an eighth to spare, so that growth by small steps seldom copies it.
size_t withSpare(size_t need, bool grows) {
    constexpr size_t kLarge = 4096;
    return grows && need >= kLarge && need <= SIZE_MAX - need / 8 ? need + need / 8 : need;
}

void setSize(uint8_t* raw, uint32_t size) {
    std::memcpy(raw, &size, sizeof size);
    std::memcpy(raw + kHeader + size, &KAL_HEAP_GUARD, sizeof KAL_HEAP_GUARD);
}

uint32_t sizeOf(const void* block) {
    uint32_t size;
    std::memcpy(&size, static_cast<const uint8_t*>(block) - kHeader, sizeof size);
    return size;
}

bool guardStands(const void* block) {
    return std::memcmp(static_cast<const uint8_t*>(block) + sizeOf(block), &KAL_HEAP_GUARD,
                       sizeof KAL_HEAP_GUARD) == 0;
}

// The block last freed of each size that records often have and that the C heap does not keep at hand itself. Not under
// the address sanitizer, which shall see whoever uses a block that was freed.
constexpr size_t kKeptStep = 256;
#ifdef KAL_ADDRESS_SANITIZER
constexpr size_t kKeptFrom = 1;
constexpr size_t kKeptTo = 1;
#else
constexpr size_t kKeptFrom = 1024;
constexpr size_t kKeptTo = 16384;
#endif
std::atomic<void*> keptBlocks[kKeptTo / kKeptStep + 1];

bool isKept(size_t bytes) {
    return bytes >= kKeptFrom && bytes < kKeptTo; // cppcheck-suppress incorrectLogicOperator
}

// Puts a block, or none, in the place of the one that is kept, which it returns.
void* swapKept(size_t bytes, void* raw) {
    std::atomic<void*>& place = keptBlocks[bytes / kKeptStep];
    if (!isOneThread())
        return place.exchange(raw);
    void* kept = place.load(std::memory_order_relaxed);
    place.store(raw, std::memory_order_relaxed);
    return kept;
}

void* allocate(uint32_t size, bool isCleared) {
    if (tooLarge(size) || heapFaultDue())
        return noMemory();
    size_t need = kHeader + size + sizeof KAL_HEAP_GUARD;
    if (isKept(need))
        need = (need + kKeptStep - 1) / kKeptStep * kKeptStep;
    void* raw = isKept(need) ? swapKept(need, nullptr) : nullptr;
    if (raw == nullptr)
        raw = isCleared ? std::calloc(1, need) : std::malloc(need);
    else if (isCleared)
        std::memset(raw, 0, need);
    if (raw == nullptr)
        return noMemory();
    setSize(static_cast<uint8_t*>(raw), size);
    void* block = static_cast<uint8_t*>(raw) + kHeader;
    if (markBlock(block))
        return block;
    std::free(raw);
    return noMemory();
}

} // namespace

void* KalAllocSMem(uint32_t size) {
    return allocate(size, true);
}

void* allocateUncleared(uint32_t size) {
    return allocate(size, false);
}

int16_t KalFreeSMem(void* block) {
    if (!unmarkBlock(block))
        return KAL_ERR_MEMORY;
    if (!guardStands(block)) {
        markBlock(block);
        return KAL_ERR_MEMORY;
    }
    const size_t bytes = malloc_usable_size(rawOf(block));
    std::free(isKept(bytes) ? swapKept(bytes, rawOf(block)) : rawOf(block));
    return KAL_OK;
}

void* KalReAllocSMem(void* block, uint32_t size) {
    if (!isBlock(block) || !guardStands(block) || tooLarge(size))
        return nullptr;
    const uint32_t oldSize = sizeOf(block);
    if (heapFaultDue())
        return noMemory();
    const size_t need = kHeader + size + sizeof KAL_HEAP_GUARD;
    if (size >= oldSize && need <= malloc_usable_size(rawOf(block))) {
        std::memset(static_cast<uint8_t*>(block) + oldSize, 0, size - oldSize);
        setSize(rawOf(block), size);
        return block;
    }
    // The address changes hands inside realloc, so the mark moves around it.
    if (!unmarkBlock(block))
        return nullptr;
    auto* raw = static_cast<uint8_t*>(std::realloc(rawOf(block), withSpare(need, size > oldSize)));
    if (raw == nullptr) {
        markBlock(block);
        return noMemory();
    }
    if (size > oldSize)
        std::memset(raw + kHeader + oldSize, 0, size - oldSize);
    setSize(raw, size);
    if (!markBlock(raw + kHeader)) {
        // No room in the map for the new address: the caller's bytes must not be lost, so move them into a
        // block that the map can hold.
        void* moved = KalAllocSMem(size);
        if (moved != nullptr)
            std::memcpy(moved, raw + kHeader, size);
        std::free(raw);
        return moved;
    }
    return raw + kHeader;
}

uint32_t KalFailedSMem() {
    return failures.load(std::memory_order_relaxed);
}

uint32_t KalSizeSMem(const void* block) {
    return isBlock(block) ? sizeOf(block) : 0;
}

uint16_t KalIsValidFarPointer(const void* address) {
    if (address == nullptr)
        return 0;
    if (isBlock(address))
        return 1;
    uint8_t probe;
    const iovec local = {&probe, 1};
    const iovec remote = {const_cast<void*>(address), 1};
    const ssize_t got = hostCalls.process_vm_readv(hostCalls.getpid(), &local, 1, &remote, 1, 0);
    if (got == 1)
        return 1;
    if (errno != EPERM && errno != ENOSYS)
        return 0;
    // The host forbids the call: ask whether the page is mapped at all.
    const uintptr_t page = reinterpret_cast<uintptr_t>(address) & ~uintptr_t{pageSize() - 1};
    unsigned char residency;
    return hostCalls.mincore(reinterpret_cast<void*>(page), 1, &residency) == 0 ? 1 : 0;
}

void* ZEPObject::operator new(size_t size) noexcept {
    return size > UINT32_MAX ? nullptr : KalAllocSMem(static_cast<uint32_t>(size));
}

void ZEPObject::operator delete(void* object) noexcept {
    if (object != nullptr)
        KalFreeSMem(object);
}

void failHeapAllocation(int64_t n) {
    faultStays = false;
    if (n != 0)
        faultHappened = false;
    faultCountdown = n;
}

void failHeapAllocationsFrom(int64_t n) {
    failHeapAllocation(n);
    faultStays = true;
}

bool heapFaultHappened() {
    return faultHappened;
}

uint64_t liveHeapBlocks() {
    return countBlocks();
}

bool heapFaultDue() {
    if (faultCountdown.load(std::memory_order_relaxed) == 0) [[likely]]
        return false;
    const int64_t left = faultCountdown.fetch_sub(1) - 1;
    if (left > 0)
        return false;
    if (faultStays)
        faultCountdown = 1;
    faultHappened = true;
    return true;
}
