#include "tests/support/faults.h"
#include "tests/support/files.h"

#include "platform/global_memory.h"

#include <kal/heap.h>

#include <cstring>
#include <fcntl.h>
#include <map>
#include <random>
#include <set>
#include <sys/mman.h>
#include <thread>

namespace {

struct Block {
    Bytes bytes;
    uint32_t locks = 0;
    const void* address = nullptr; // while it is locked
};

// Blocks beside a model of them, in a random sequence: bytes, sizes, locks, places, and handles, of which none comes back.
void holdToModel(uint32_t seed) {
    std::mt19937 random(seed);
    std::map<HGLOBAL, Block> model;
    std::set<HGLOBAL> dead = {nullptr};
    for (int step = 0; step < 1500; step++) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
        const auto chosen = std::next(model.begin(), long(random() % (model.size() + 1)));
        const auto size =
            static_cast<uint32_t>(random() % 8 == 0 ? 0 : (random() >> (random() % 20 + 12)) + 1);
        if (chosen == model.end()) {
            HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, size);
            ASSERT_NE(reinterpret_cast<uintptr_t>(block) & 0xFFFF, 0u);
            ASSERT_FALSE(dead.contains(block) || model.contains(block)) << "a handle comes back at once";
            model[block].bytes.resize(size);
            continue;
        }
        auto& [block, now] = *chosen;
        const auto old = static_cast<uint32_t>(now.bytes.size());
        const auto way = random() % 5;
        if (way < 2) { // locked, compared, changed
            void* address = GlobalLock(block);
            ASSERT_EQ(address == nullptr, old == 0);
            ASSERT_TRUE(now.locks == 0 || address == now.address) << "a locked block has moved";
            now.locks += address != nullptr ? 1 : 0;
            now.address = address;
            ASSERT_TRUE(old == 0 || std::memcmp(address, now.bytes.data(), old) == 0);
            std::memset(address, static_cast<int>(random() % 256), old);
            now.bytes.assign(static_cast<uint8_t*>(address), static_cast<uint8_t*>(address) + old);
        } else if (way == 2) {
            now.locks -= now.locks > 0 ? 1 : 0;
            ASSERT_EQ(GlobalUnlock(block) != 0, now.locks > 0);
        } else if (way == 3) {
            const bool isDone = KalGlobalReAlloc(block, size, GMEM_MOVEABLE) == block;
            const bool hasRoom = size > 0 && size <= (old + 4095) / 4096 * 4096;
            ASSERT_TRUE(isDone ? now.locks == 0 || size > 0 : now.locks > 0 && !hasRoom);
            now.bytes.resize(isDone ? size : old);
        } else {
            ASSERT_EQ(GlobalFree(block), nullptr);
            dead.insert(block);
            model.erase(chosen);
            continue;
        }
        ASSERT_EQ(GlobalSize(block), now.bytes.size());
        ASSERT_EQ(GlobalFlags(block), now.locks | (now.bytes.empty() ? GMEM_DISCARDED : 0));
    }
    for (HGLOBAL block : dead) {
        EXPECT_TRUE(GlobalFree(block) == block && GlobalLock(block) == nullptr && GlobalUnlock(block) == 0);
        EXPECT_TRUE(GlobalSize(block) == 0 && GlobalReAlloc(block, 10, GMEM_MOVEABLE) == nullptr);
        EXPECT_EQ(GlobalFlags(block), GMEM_INVALID_HANDLE);
    }
    for (const auto& [block, state] : model)
        GlobalFree(block);
}

void* addressOf(HGLOBAL block) {
    void* address = GlobalLock(block);
    GlobalUnlock(block);
    return address;
}

} // namespace

TEST(GlobalMemory, BlocksKeepBytesLocksAndPlaceThroughAnySequence) {
    HeapBalance balance;
    holdToModel(1);
    std::thread threads[] = {std::thread(holdToModel, 2), std::thread(holdToModel, 3),
                             std::thread(holdToModel, 4)};
    for (auto& thread : threads)
        thread.join();
}

TEST(GlobalMemory, PagesAreUsedAgain) {
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 1024);
    int moves = 0;
    const void* before = nullptr;
    for (uint32_t size = 2048; size <= (64u << 20); size += 1024) {
        ASSERT_EQ(GlobalReAlloc(block, size, GMEM_MOVEABLE), block);
        moves += addressOf(block) != std::exchange(before, addressOf(block)) ? 1 : 0;
    }
    EXPECT_LT(moves, 40) << "half as much again each time";
    trimGlobalMemory(0);
    GlobalReAlloc(block, 0, GMEM_MOVEABLE); // discarded
    EXPECT_GE(keptGlobalMemory(), 64u << 20);
    EXPECT_LT(keptGlobalMemory(), 128u << 20);
    GlobalFree(block);
    trimGlobalMemory(0);
    std::vector<HGLOBAL> many(700);
    for (HGLOBAL& one : many)
        one = GlobalAlloc(GMEM_MOVEABLE, 1 << 20);
    const void* last = addressOf(many.back());
    std::reverse(many.begin(), many.end());
    std::for_each(many.begin(), many.end(), GlobalFree);
    EXPECT_EQ(keptGlobalMemory(), sizeof(void*) == 4 ? 128u << 20 : 512u << 20) << "the most that is kept";
    trimGlobalMemory(1 << 20);
    EXPECT_EQ(keptGlobalMemory(), 1u << 20);
    block = GlobalAlloc(GMEM_MOVEABLE, (1 << 20) - 5000);
    EXPECT_EQ(addressOf(block), last) << "what was freed first is the last that is left";
    EXPECT_EQ(keptGlobalMemory(), 0u);
    GlobalFree(block);
}

TEST(GlobalMemory, RunsOutOfHandlesAndOfMemoryCleanly) {
    HeapBalance balance;
    std::vector<HGLOBAL> blocks;
    while (HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 100))
        blocks.push_back(block);
    EXPECT_EQ(blocks.size(), 65535u);
    EXPECT_EQ(liveGlobalBlocks(), 65535u);
    for (HGLOBAL block : blocks)
        GlobalFree(block);
    HostCallGuard guard;
    static int failures;
    failures = 1;
    hostCalls.mmap = [](void* at, size_t size, int protection, int flags, int fd, off_t offset) {
        return failures-- > 0 ? MAP_FAILED : ::mmap(at, size, protection, flags, fd, offset);
    };
    hostCalls.mremap = [](void*, size_t, size_t, int) { return MAP_FAILED; };
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 100); // of what is kept
    EXPECT_EQ(GlobalReAlloc(block, 50 << 20, GMEM_MOVEABLE), nullptr);
    EXPECT_EQ(GlobalSize(block), 100u);
    EXPECT_GT(keptGlobalMemory(), 0u);
    HGLOBAL large = GlobalAlloc(GMEM_MOVEABLE, 50 << 20);
    EXPECT_NE(large, nullptr) << "what is kept is given up when nothing else helps";
    EXPECT_EQ(keptGlobalMemory(), 0u);
    failures = 9;
    EXPECT_EQ(GlobalAlloc(GMEM_MOVEABLE, 60 << 20), nullptr);
    GlobalFree(large);
    GlobalFree(block);
}

using MemoryStatus = FolderTest;

TEST_F(MemoryStatus, IsClampedToItsField) {
    HostCallGuard guard;
    hostCalls.open = [](const char*, int flags, mode_t) { return ::open("meminfo", flags); };
    constexpr uint32_t kMost = sizeof(void*) == 4 ? 0x7FFFFFFF : 0xFFFFFFFF;
    for (const auto& [text, bytes] : {std::pair("MemTotal:  9 kB\nMemAvailable:   3000 kB\n", 3072000u),
                                      {"MemAvailable: 24000000 kB\n", kMost},
                                      {"nothing", 0u}}) {
        MEMORYSTATUS status;
        writeFile("meminfo", bytesOf(text));
        GlobalMemoryStatus(&status);
        EXPECT_EQ(bytes != 0 ? status.dwAvailPhys : status.dwAvailPhys == 0, bytes) << text;
    }
}
