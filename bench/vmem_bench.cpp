// VMem: blocks allocated, touched and freed, locked and unlocked, and swapped under a tight limit. Beside it in the
// same run mimalloc behind a table of handles, malloc, a warm arena, and a memory map of a file.
//
// The swap benchmarks count the bytes that go to and from the swap file (`swapMB`) beside the fewest that the order
// of swapping allows (`fewestMB`): the block longest in memory goes, and is written only when it was changed. With
// many small blocks the records count for the limit too: `fewestBesideRecordsMB` is for the room that they leave.
#include "bench/handle_table.h"
#include "bench/row.h"

#include <kal.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kBlockSize = 4096;

enum Order { kOldestFirst, kNewestFirst, kAtRandom };

std::vector<uint32_t> orderOf(Order order, uint32_t count) {
    std::vector<uint32_t> indexes(count);
    std::iota(indexes.begin(), indexes.end(), 0u);
    if (order == kNewestFirst)
        std::reverse(indexes.begin(), indexes.end());
    else if (order == kAtRandom)
        std::shuffle(indexes.begin(), indexes.end(), std::mt19937(1));
    return indexes;
}

// --- The allocators ------------------------------------------------------------------------------------------

struct VMem {
    VMem() {
        KalSetMaxVMem(0xFFFFFFFF);
        check(KalOpenVMem(0) == 0);
    }
    ~VMem() { KalCloseVMem(); }
    void* allocate() { return KalAllocVMem(2, kBlockSize); }
    void* lock(void* block) { return KalLockVMem(block); }
    void unlock(void* block) { KalUnLockVMem(block); }
    void free(void* block) { KalFreeVMem(block); }
};

// mimalloc behind the least that blocks by handle need: a table with an address and a lock count each, and free numbers.
class MimallocTable {
public:
    MimallocTable() {
        // Loaded here and not linked, or it would stand in for malloc too.
        void* library = ::dlopen("libmimalloc.so.2", RTLD_NOW | RTLD_LOCAL);
        check(library != nullptr);
        allocateBytes_ = reinterpret_cast<void* (*)(size_t)>(::dlsym(library, "mi_malloc"));
        freeBytes_ = reinterpret_cast<void (*)(void*)>(::dlsym(library, "mi_free"));
        for (uint32_t i = kEntries; i-- > 1;)
            free_.push_back(i);
    }
    [[gnu::noinline]] void* allocate() {
        const uint32_t number = free_.back();
        free_.pop_back();
        entries_[number] = {allocateBytes_(kBlockSize), 0, 1};
        return reinterpret_cast<void*>(uintptr_t(number));
    }
    [[gnu::noinline]] void* lock(void* block) {
        Entry& entry = entries_[reinterpret_cast<uintptr_t>(block) & (kEntries - 1)];
        if (entry.isLive == 0)
            return nullptr;
        entry.locks++;
        return entry.address;
    }
    [[gnu::noinline]] void unlock(void* block) {
        Entry& entry = entries_[reinterpret_cast<uintptr_t>(block) & (kEntries - 1)];
        if (entry.isLive != 0 && entry.locks > 0)
            entry.locks--;
    }
    [[gnu::noinline]] void free(void* block) {
        const auto number = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block));
        freeBytes_(entries_[number].address);
        entries_[number].isLive = 0;
        free_.push_back(number);
    }

private:
    static constexpr uint32_t kEntries = 65536;
    struct Entry {
        void* address;
        uint32_t locks;
        uint32_t isLive;
    };
    std::vector<Entry> entries_ = std::vector<Entry>(kEntries);
    std::vector<uint32_t> free_;
    void* (*allocateBytes_)(size_t);
    void (*freeBytes_)(void*);
};

struct Malloc {
    void* allocate() { return std::malloc(kBlockSize); }
    void* lock(void* block) { return block; }
    void unlock(void*) {}
    void free(void* block) { std::free(block); }
};

struct LibraryTable {
    ~LibraryTable() { tableClear(); }
    void* allocate() { return tableAdd(this); }
    void* lock(void* block) { return tableLock(block); }
    void unlock(void* block) { tableUnlock(block); }
    void free(void*) {}
};

// What touching the memory costs alone: pages that are there already, nothing to manage.
struct Arena {
    std::vector<char> bytes = std::vector<char>(size_t(65536) * kBlockSize);
    size_t next = 0;
    void* allocate() { return &bytes[kBlockSize * (next++ % 65536)]; }
    void* lock(void* block) { return block; }
    void unlock(void*) {}
    void free(void*) {}
};

// --- Blocks come and go --------------------------------------------------------------------------------------

// A first round outside the measurement brings the pages that an allocator may keep.
template <class Allocator>
void cycle(benchmark::State& state, Order freeing, uint32_t count) {
    Allocator allocator;
    const std::vector<uint32_t> order = orderOf(freeing, count);
    std::vector<void*> blocks(count);
    const auto round = [&] {
        for (void*& block : blocks) {
            block = allocator.allocate();
            *static_cast<volatile char*>(allocator.lock(block)) = 1;
            allocator.unlock(block);
        }
        for (const uint32_t index : order)
            allocator.free(blocks[index]);
    };
    round();
    for (auto _ : state)
        round();
}
// --- Lock and unlock -----------------------------------------------------------------------------------------

enum Pattern { kInOrder, kRandomly, kOneHot };

template <class Allocator>
void locking(benchmark::State& state, Pattern which, uint32_t count) {
    Allocator allocator;
    std::vector<void*> blocks(count);
    for (void*& block : blocks)
        block = allocator.allocate();
    std::vector<void*> pattern(count, blocks[count / 2]);
    if (which != kOneHot) {
        const std::vector<uint32_t> order = orderOf(which == kInOrder ? kOldestFirst : kAtRandom, count);
        for (uint32_t i = 0; i < count; i++)
            pattern[i] = blocks[order[i]];
    }
    for (auto _ : state)
        for (void* block : pattern) {
            benchmark::DoNotOptimize(allocator.lock(block));
            allocator.unlock(block);
        }
    for (void* block : blocks)
        allocator.free(block);
}

// --- Under a limit -------------------------------------------------------------------------------------------

enum Visits { kVisitInOrder, kVisitRandomly, kVisitHotSet };

// Which block each visit touches; nine of ten visits to the hot set go to a fiftieth of the blocks.
std::vector<uint32_t> visitsOf(Visits kind, uint32_t blocks) {
    std::vector<uint32_t> visits(blocks * 2);
    std::mt19937 random(1);
    for (uint32_t i = 0; i < visits.size(); i++)
        visits[i] = kind == kVisitInOrder                        ? i % blocks
                    : kind == kVisitHotSet && random() % 10 != 0 ? uint32_t(random() % (blocks / 50))
                                                                 : uint32_t(random() % blocks);
    return visits;
}

// Every third visit changes its block.
bool changes(uint32_t visit) {
    return visit % 3 == 0;
}

uint64_t bytesMoved() {
    std::ifstream io("/proc/self/io");
    std::string name;
    uint64_t bytes = 0;
    for (uint64_t count = 0; io >> name >> count;)
        if (name == "rchar:" || name == "wchar:")
            bytes += count;
    return bytes;
}

// The same order of swapping in a few lines: the bytes that it cannot do without, over `rounds` of the visits after
// all blocks were made.
uint64_t fewestBytes(uint32_t blocks, uint32_t room, const std::vector<uint32_t>& visits, uint64_t rounds) {
    std::deque<uint32_t> queue;
    std::vector<char> isIn(blocks), isChanged(blocks, 1);
    uint64_t moved = 0;
    const auto enter = [&](uint32_t block) {
        if (queue.size() == room) {
            const uint32_t oldest = queue.front();
            queue.pop_front();
            isIn[oldest] = 0;
            moved += isChanged[oldest] != 0 ? 1 : 0;
            isChanged[oldest] = 0;
        }
        queue.push_back(block);
        isIn[block] = 1;
    };
    for (uint32_t i = 0; i < blocks; i++)
        enter(i);
    moved = 0;
    for (; rounds > 0; rounds--)
        for (uint32_t i = 0; i < visits.size(); i++) {
            if (isIn[visits[i]] == 0) {
                moved++;
                enter(visits[i]);
            }
            if (changes(i))
                isChanged[visits[i]] = 1;
        }
    return moved * kBlockSize;
}

void touch(void* address, uint32_t visit) {
    auto* bytes = static_cast<volatile char*>(address);
    if (changes(visit))
        bytes[visit % kBlockSize] = char(visit);
    else
        benchmark::DoNotOptimize(bytes[visit % kBlockSize]);
}

void swapping(benchmark::State& state, Visits kind, uint32_t count) {
    const uint32_t room = count / 10;
    const std::vector<uint32_t> visits = visitsOf(kind, count);
    KalSetVMemTemp("/dev/shm");
    KalSetMaxVMem(room * kBlockSize);
    check(KalOpenVMem(0) == 0);
    std::vector<void*> blocks(count);
    for (void*& block : blocks) {
        block = KalAllocVMem(2, kBlockSize);
        std::memset(KalLockVMem(block), 1, kBlockSize);
        KalUnLockVMem(block);
    }
    const uint64_t before = bytesMoved();
    const auto left = static_cast<uint32_t>(static_cast<vmemstate*>(KalGetTaskData(6))->bytesResident);
    for (auto _ : state)
        for (uint32_t i = 0; i < visits.size(); i++) {
            void* block = blocks[visits[i]];
            touch(KalLockVMem(block), i);
            if (changes(i))
                KalMarkDirtyVMem(block);
            KalUnLockVMem(block);
        }
    const auto rounds = static_cast<uint64_t>(state.iterations());
    state.counters["swapMB"] = double(bytesMoved() - before) / 1e6 / double(rounds);
    const auto fewestMB = [&](uint32_t inMemory) {
        return double(fewestBytes(count, inMemory, visits, rounds)) / 1e6 / double(rounds);
    };
    state.counters["fewestMB"] = fewestMB(room);
    state.counters["fewestBesideRecordsMB"] = fewestMB(left / kBlockSize);
    KalCloseVMem();
    KalTempPath(nullptr);
}

// The same visits to a map of a file, whose pages the host moves as it likes: it has room for all of them.
void mappedFile(benchmark::State& state, Visits kind, uint32_t count) {
    const std::vector<uint32_t> visits = visitsOf(kind, count);
    char name[] = "/tmp/kal-vmem-benchXXXXXX";
    const int file = ::mkstemp(name);
    ::unlink(name);
    const size_t bytes = size_t(count) * kBlockSize;
    check(file >= 0 && ::ftruncate(file, off_t(bytes)) == 0);
    void* map = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    check(map != MAP_FAILED);
    std::memset(map, 1, bytes);
    for (auto _ : state) {
        // A tenth of the pages stays with the process, as under the limit.
        check(::madvise(map, bytes / 10 * 9 / kBlockSize * kBlockSize, MADV_DONTNEED) == 0);
        for (uint32_t i = 0; i < visits.size(); i++)
            touch(static_cast<char*>(map) + size_t(visits[i]) * kBlockSize, i);
    }
    ::munmap(map, bytes);
    ::close(file);
}

// --- One unlocked block among many locked ones ---------------------------------------------------------------

// Each round swaps the only unlocked block out, for a block that is freed again, and brings it back.
void oneUnlocked(benchmark::State& state, uint32_t count) {
    KalSetVMemTemp("/dev/shm");
    KalSetMaxVMem(count * kBlockSize);
    check(KalOpenVMem(0) == 0);
    std::vector<void*> blocks(count);
    for (void*& block : blocks)
        check((block = KalAllocVMem(2, kBlockSize)) != nullptr && KalLockVMem(block) != nullptr);
    void* unlocked = blocks[count / 2];
    KalUnLockVMem(unlocked);
    for (auto _ : state)
        for (int i = 0; i < 1000; i++) {
            KalFreeVMem(KalAllocVMem(2, kBlockSize));
            check(KalLockVMem(unlocked) != nullptr);
            KalUnLockVMem(unlocked);
        }
    KalCloseVMem();
    KalTempPath(nullptr);
}

// --- Small lists in large blocks -----------------------------------------------------------------------------

// 1,000 lists of 200 bytes in blocks of 1 MiB, under a limit of 16 MB, made and read.
void smallLists(benchmark::State& state) {
    KalSetVMemTemp("/dev/shm");
    KalSetMaxVMem(16000000);
    check(KalOpenVMem(0) == 0);
    const std::vector<char> payload(200, 'p');
    const uint64_t before = bytesMoved();
    for (auto _ : state) {
        std::vector<OpList*> lists(1000);
        for (OpList*& list : lists)
            check(KalTempOpList(&list, KAL_OPL_VMEM) == 0 &&
                  KalPutOpData(list, 7, payload.data(), uint32_t(payload.size())) != KAL_OP_FAILED);
        for (OpList* list : lists) {
            KalSeekOp(list, 0);
            void* op = KalGetOp(list);
            check(op != nullptr && std::memcmp(op, payload.data(), payload.size()) == 0);
            KalFreeSMem(KalOpBlock(op));
            KalCloseOpList(list);
        }
    }
    state.counters["swapMB"] = double(bytesMoved() - before) / 1e6 / double(state.iterations());
    KalCloseVMem();
    KalTempPath(nullptr);
}

} // namespace

std::string thousands(uint32_t count) {
    return std::to_string(count / 1000) + "," + std::to_string(count % 1000 + 1000).substr(1);
}

int main(int argc, char** argv) {
    const char* const orders[] = {"oldest first", "newest first", "at random"};
    for (const Order order : {kOldestFirst, kNewestFirst, kAtRandom})
        for (const uint32_t count : {15000u, 60000u}) {
            const std::string row = thousands(count) + " blocks of 4 KiB, freed " + orders[order];
            cell(row, "kal", [=](benchmark::State& state) { cycle<VMem>(state, order, count); });
            cell(row, "mimalloc",
                 [=](benchmark::State& state) { cycle<MimallocTable>(state, order, count); });
            cell(row, "malloc", [=](benchmark::State& state) { cycle<Malloc>(state, order, count); });
            cell(row, "limit", [=](benchmark::State& state) { cycle<Arena>(state, order, count); });
        }
    const char* const patterns[] = {"in order", "at random", "one hot block"};
    for (const Pattern pattern : {kInOrder, kRandomly, kOneHot})
        for (const uint32_t count : {15000u, 60000u}) {
            const std::string row = thousands(count) + " locks and unlocks, " + patterns[pattern];
            cell(row, "kal", [=](benchmark::State& state) { locking<VMem>(state, pattern, count); });
            cell(row, "table in a library",
                 [=](benchmark::State& state) { locking<LibraryTable>(state, pattern, count); });
            cell(row, "limit",
                 [=](benchmark::State& state) { locking<MimallocTable>(state, pattern, count); });
        }
    const char* const kinds[] = {"in order", "at random", "mostly a fiftieth"};
    for (const Visits kind : {kVisitInOrder, kVisitRandomly, kVisitHotSet})
        for (const uint32_t count : {16250u, 65000u}) {
            const std::string row =
                thousands(count) + " blocks, a tenth in memory, visited twice " + kinds[kind];
            cell(row, "kal", [=](benchmark::State& state) { swapping(state, kind, count); })->Iterations(2);
            cell(row, "mapped file", [=](benchmark::State& state) { mappedFile(state, kind, count); });
        }
    for (const uint32_t count : {15000u, 60000u})
        cell(thousands(count) + " locked blocks, the unlocked one swapped out and back, 1,000 times", "kal",
             [=](benchmark::State& state) { oneUnlocked(state, count); });
    cell("1,000 small lists under 16 MB, made and read", "kal", smallLists);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
