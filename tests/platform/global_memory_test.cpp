#include "tests/support/faults.h"
#include "tests/support/files.h"

#include "platform/global_memory.h"

#include <kal/heap.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <random>
#include <set>
#include <sys/mman.h>
#include <thread>

namespace {

uint16_t lowHalf(HGLOBAL block) {
    return static_cast<uint16_t>(reinterpret_cast<uintptr_t>(block));
}

Bytes contentsOf(HGLOBAL block) {
    const auto* bytes = static_cast<const uint8_t*>(GlobalLock(block));
    Bytes copy(bytes, bytes + GlobalSize(block));
    GlobalUnlock(block);
    return copy;
}

uint32_t randomSize(std::mt19937& random) {
    return static_cast<uint32_t>(random() >> (random() % 20 + 12)); // to 1 MiB, small ones as likely
}

struct Block {
    Bytes bytes;
    uint32_t locks = 0;
    const void* address = nullptr; // while it is locked
};

} // namespace

// Handles, bytes, sizes, locks and addresses beside a model, in a random sequence.
TEST(GlobalMemory, BlocksKeepBytesLocksAndPlaceThroughAnySequence) {
    for (uint32_t seed = firstSeed(), end = seed + 3; seed != end; seed++) {
        HeapBalance balance;
        std::mt19937 random(seed);
        std::map<HGLOBAL, Block> model;
        std::set<HGLOBAL> dead;
        for (int step = 0; step < 1500; step++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            const auto chosen = std::next(model.begin(), long(random() % (model.size() + 1)));
            const uint32_t size = random() % 8 == 0 ? 0 : randomSize(random) + 1;
            if (chosen == model.end()) {
                HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, size);
                ASSERT_NE(lowHalf(block), 0);
                for (const auto& [other, state] : model)
                    ASSERT_NE(lowHalf(other), lowHalf(block));
                ASSERT_FALSE(dead.contains(block)) << "a handle comes back at once";
                model[block] = {Bytes(size)};
                continue;
            }
            const auto& [block, state] = *chosen;
            Block& now = chosen->second;
            const auto old = static_cast<uint32_t>(now.bytes.size());
            switch (random() % 5) {
            case 0:
            case 1: { // locked, compared, changed
                void* address = GlobalLock(block);
                ASSERT_EQ(address == nullptr, old == 0);
                if (old == 0)
                    break;
                ASSERT_TRUE(now.locks == 0 || address == now.address) << "a locked block has moved";
                ASSERT_EQ(std::memcmp(address, now.bytes.data(), old), 0);
                now.bytes = randomBytes(old, uint32_t(random()));
                std::memcpy(address, now.bytes.data(), old);
                now.address = address;
                now.locks++;
                break;
            }
            case 2:
                now.locks -= now.locks > 0 ? 1 : 0;
                ASSERT_EQ(GlobalUnlock(block) != 0, now.locks > 0);
                break;
            case 3: {
                const bool isDone = KalGlobalReAlloc(block, size, GMEM_MOVEABLE) == block;
                const bool hasRoom = size > 0 && size <= (old + 4095) / 4096 * 4096;
                ASSERT_TRUE(isDone || (now.locks > 0 && !hasRoom));
                ASSERT_FALSE(isDone && now.locks > 0 && size == 0);
                now.bytes.resize(isDone ? size : old);
                break;
            }
            default:
                EXPECT_EQ(GlobalFree(block), nullptr);
                dead.insert(block);
                model.erase(chosen);
                continue;
            }
            ASSERT_EQ(GlobalSize(block), now.bytes.size());
            ASSERT_EQ(GlobalFlags(block), now.locks | (now.bytes.empty() ? GMEM_DISCARDED : 0));
        }
        dead.insert(nullptr);
        for (HGLOBAL block : dead) {
            EXPECT_EQ(GlobalFree(block), block);
            EXPECT_EQ(GlobalLock(block), nullptr);
            EXPECT_EQ(GlobalUnlock(block) + int32_t(GlobalSize(block)), 0);
            EXPECT_EQ(GlobalReAlloc(block, 10, GMEM_MOVEABLE), nullptr);
            EXPECT_EQ(GlobalFlags(block), GMEM_INVALID_HANDLE);
        }
        for (const auto& [block, state] : model)
            GlobalFree(block);
    }
}

// A block that grows by steps moves seldom, and one that was freed gives its pages to the next.
TEST(GlobalMemory, PagesAreUsedAgain) {
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 1024);
    int moves = 0;
    const void* before = nullptr;
    for (uint32_t size = 2048; size <= (64u << 20); size += 1024) {
        ASSERT_EQ(GlobalReAlloc(block, size, GMEM_MOVEABLE), block);
        const void* now = GlobalLock(block);
        GlobalUnlock(block);
        moves += now != std::exchange(before, now) ? 1 : 0;
    }
    EXPECT_LT(moves, 40); // half as much again each time
    trimGlobalMemory(0);
    EXPECT_EQ(keptGlobalMemory(), 0u);
    GlobalFree(block);
    EXPECT_GE(keptGlobalMemory(), 64u << 20);
    EXPECT_LT(keptGlobalMemory(), 128u << 20);
    trimGlobalMemory(0);

    block = GlobalAlloc(GMEM_MOVEABLE, 300000);
    void* address = GlobalLock(block);
    GlobalUnlock(block);
    GlobalReAlloc(block, 0, GMEM_MOVEABLE); // discarded
    HGLOBAL next = GlobalAlloc(GMEM_MOVEABLE, 299000);
    EXPECT_EQ(GlobalLock(next), address);
    EXPECT_EQ(keptGlobalMemory(), 0u);
    GlobalFree(block);
    GlobalFree(next);
    std::vector<HGLOBAL> many(700);
    for (HGLOBAL& one : many)
        one = GlobalAlloc(GMEM_MOVEABLE, 1 << 20);
    for (HGLOBAL one : many)
        GlobalFree(one);
    EXPECT_LE(keptGlobalMemory(), 512u << 20) << "more than is ever kept";
    trimGlobalMemory(0);
}

TEST(GlobalMemory, RunsOutOfHandlesAndOfMemoryCleanly) {
    HeapBalance balance;
    std::vector<HGLOBAL> blocks;
    for (uint32_t i = 0; i < 3000; i++) // pages of other sizes, which the last numbers have
        blocks.push_back(GlobalAlloc(GMEM_MOVEABLE, i % 2 == 0 ? 20000 : 300000));
    for (HGLOBAL block : blocks)
        GlobalFree(block);
    blocks.clear();
    while (HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 100))
        blocks.push_back(block);
    EXPECT_EQ(liveGlobalBlocks(), 65535u);
    for (const uint32_t size : {50u, 50000u, 0u, 100u})
        EXPECT_EQ(GlobalReAlloc(blocks[0], size, GMEM_MOVEABLE), blocks[0]) << size;
    for (HGLOBAL block : blocks)
        GlobalFree(block);

    HostCallGuard guard;
    static bool isShort;
    isShort = true;
    hostCalls.mmap = [](void* at, size_t size, int protection, int flags, int fd, off_t offset) {
        errno = ENOMEM;
        return std::exchange(isShort, true) ? MAP_FAILED : ::mmap(at, size, protection, flags, fd, offset);
    };
    hostCalls.mremap = [](void*, size_t, size_t, int) { return MAP_FAILED; };
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 100); // of what is kept
    EXPECT_GT(keptGlobalMemory(), 0u);
    EXPECT_EQ(GlobalReAlloc(block, 50 << 20, GMEM_MOVEABLE), nullptr);
    EXPECT_EQ(GlobalSize(block), 100u);
    EXPECT_EQ(GlobalAlloc(GMEM_MOVEABLE, 50 << 20), nullptr);
    EXPECT_EQ(keptGlobalMemory(), 0u) << "what is kept is given up when nothing else helps";
    isShort = false;
    HGLOBAL large = GlobalAlloc(GMEM_MOVEABLE, 50 << 20);
    EXPECT_NE(large, nullptr);
    GlobalFree(large);
    GlobalFree(block);
}

TEST(GlobalMemory, ThreadsShareTheTable) {
    HeapBalance balance;
    std::vector<std::thread> threads;
    for (uint8_t t = 1; t <= 4; t++)
        threads.emplace_back([t] {
            std::mt19937 random(t);
            std::vector<HGLOBAL> mine;
            for (int step = 0; step < 3000; step++) {
                if (mine.size() < 50) {
                    mine.push_back(GlobalAlloc(GMEM_MOVEABLE, uint32_t(3000 + random() % 9000)));
                    std::memset(GlobalLock(mine.back()), t, 3000);
                    GlobalUnlock(mine.back());
                    continue;
                }
                const auto at = mine.begin() + long(random() % mine.size());
                ASSERT_EQ(contentsOf(*at)[random() % 3000], t);
                GlobalFree(*at);
                mine.erase(at);
            }
            for (HGLOBAL block : mine)
                GlobalFree(block);
        });
    for (auto& thread : threads)
        thread.join();
}

class MemoryStatus : public FolderTest {};

TEST_F(MemoryStatus, IsClampedToItsField) {
    HostCallGuard guard;
    hostCalls.open = [](const char*, int flags, mode_t) { return ::open("meminfo", flags); };
    MEMORYSTATUS status;
    writeFile("meminfo", bytesOf("MemTotal:  9 kB\nMemAvailable:   3000 kB\n"));
    GlobalMemoryStatus(&status);
    EXPECT_EQ(status.dwAvailPhys, 3072000u);
    writeFile("meminfo", bytesOf("MemAvailable: 24000000 kB\n"));
    GlobalMemoryStatus(&status);
    EXPECT_EQ(status.dwAvailPhys, sizeof(void*) == 4 ? 0x7FFFFFFFu : 0xFFFFFFFFu);
    writeFile("meminfo", bytesOf("nothing"));
    GlobalMemoryStatus(&status);
    EXPECT_GT(status.dwAvailPhys, 0u) << "asks the host in another way";
}
