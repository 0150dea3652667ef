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

} // namespace

TEST(GlobalMemory, BlocksKeepTheirBytesThroughAnySequence) {
    HeapBalance balance;
    std::mt19937 random(11);
    std::map<HGLOBAL, Bytes> model;
    std::set<HGLOBAL> dead;
    for (int step = 0; step < 2000; step++) {
        auto chosen = model.empty() ? model.end() : std::next(model.begin(), long(random() % model.size()));
        switch (random() % 4) {
        case 0: {
            const uint32_t size = randomSize(random) + 1;
            HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, size);
            ASSERT_NE(block, nullptr);
            ASSERT_NE(lowHalf(block), 0);
            for (const auto& [other, bytes] : model)
                ASSERT_NE(lowHalf(other), lowHalf(block));
            ASSERT_EQ(contentsOf(block), Bytes(size)) << "not all 0 at step " << step;
            dead.erase(block);
            model[block] = Bytes(size);
            break;
        }
        case 1:
            if (chosen == model.end() || chosen->second.empty())
                break;
            ASSERT_EQ(contentsOf(chosen->first), chosen->second) << "step " << step;
            chosen->second = randomBytes(chosen->second.size(), uint32_t(step));
            std::memcpy(GlobalLock(chosen->first), chosen->second.data(), chosen->second.size());
            EXPECT_EQ(GlobalUnlock(chosen->first), 0);
            break;
        case 2: {
            if (chosen == model.end())
                break;
            const uint32_t size = random() % 8 == 0 ? 0 : randomSize(random) + 1;
            ASSERT_EQ(KalGlobalReAlloc(chosen->first, size, GMEM_MOVEABLE), chosen->first);
            EXPECT_EQ(GlobalSize(chosen->first), size);
            if (size == 0) { // discarded: a handle without memory
                EXPECT_EQ(GlobalLock(chosen->first), nullptr);
                EXPECT_EQ(GlobalFlags(chosen->first), GMEM_DISCARDED);
            }
            chosen->second.resize(size);
            break;
        }
        default:
            if (chosen == model.end())
                break;
            EXPECT_EQ(GlobalFree(chosen->first), nullptr);
            dead.insert(chosen->first);
            model.erase(chosen);
        }
    }
    for (HGLOBAL block : dead) {
        EXPECT_EQ(GlobalFree(block), block);
        EXPECT_EQ(GlobalLock(block), nullptr);
        EXPECT_EQ(GlobalSize(block), 0u);
        EXPECT_EQ(GlobalReAlloc(block, 10, GMEM_MOVEABLE), nullptr);
        EXPECT_EQ(GlobalFlags(block), GMEM_INVALID_HANDLE);
    }
    for (const auto& [block, bytes] : model)
        GlobalFree(block);
}

TEST(GlobalMemory, LockedBlocksNeverMove) {
    HeapBalance balance;
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 5000);
    void* address = GlobalLock(block);
    EXPECT_EQ(GlobalLock(block), address);
    EXPECT_EQ(GlobalFlags(block), 2u);
    EXPECT_EQ(GlobalReAlloc(block, 8192, GMEM_MOVEABLE), block) << "there is room up to the page's end";
    EXPECT_EQ(GlobalReAlloc(block, 500000, GMEM_MOVEABLE), nullptr);
    EXPECT_EQ(GlobalReAlloc(block, 0, GMEM_MOVEABLE), nullptr);
    EXPECT_EQ(GlobalSize(block), 8192u);
    EXPECT_NE(GlobalUnlock(block), 0);
    EXPECT_EQ(GlobalUnlock(block), 0);
    EXPECT_EQ(GlobalUnlock(block), 0) << "one unlock too many is nothing";
    EXPECT_EQ(GlobalReAlloc(block, 500000, GMEM_MOVEABLE), block);
    GlobalFree(block);
}

TEST(GlobalMemory, GrowingByStepsSeldomMovesTheBlock) {
    HeapBalance balance;
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 1024);
    int moves = 0;
    const void* before = nullptr;
    for (uint32_t size = 2048; size <= (64u << 20); size += 1024) {
        ASSERT_EQ(GlobalReAlloc(block, size, GMEM_MOVEABLE), block);
        const void* now = GlobalLock(block);
        GlobalUnlock(block);
        moves += now != before ? 1 : 0;
        before = now;
    }
    EXPECT_LT(moves, 40); // half as much again each time
    GlobalFree(block);
}

TEST(GlobalMemory, HandsOutTheMemoryFreedLastAndAnotherHandle) {
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 10000);
    void* address = GlobalLock(block);
    GlobalFree(block);
    const uint64_t kept = keptGlobalMemory();
    EXPECT_GE(kept, 10000u);
    HGLOBAL next = GlobalAlloc(GMEM_MOVEABLE, 9000);
    EXPECT_NE(next, block);
    EXPECT_EQ(GlobalLock(next), address);
    EXPECT_LT(keptGlobalMemory(), kept);
    GlobalFree(next);
    trimGlobalMemory(0);
    EXPECT_EQ(keptGlobalMemory(), 0u);
}

TEST(GlobalMemory, RunsOutOfHandlesAndOfMemoryCleanly) {
    HeapBalance balance;
    std::vector<HGLOBAL> blocks;
    for (uint32_t i = 0; i < 3000; i++) // spans of other sizes, for the last handles to be taken from
        blocks.push_back(GlobalAlloc(GMEM_MOVEABLE, i % 2 == 0 ? 20000 : 300000));
    for (HGLOBAL block : blocks)
        GlobalFree(block);
    blocks.clear();
    while (HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 100))
        blocks.push_back(block);
    EXPECT_EQ(liveGlobalBlocks(), 65535u);
    EXPECT_EQ(GlobalReAlloc(blocks[0], 50, GMEM_MOVEABLE), blocks[0]);
    EXPECT_EQ(GlobalReAlloc(blocks[0], 50000, GMEM_MOVEABLE), nullptr) << "no number for the old memory";
    EXPECT_EQ(GlobalReAlloc(blocks[0], 0, GMEM_MOVEABLE), blocks[0]);
    EXPECT_EQ(GlobalReAlloc(blocks[0], 100, GMEM_MOVEABLE), blocks[0]);
    for (HGLOBAL block : blocks)
        GlobalFree(block);

    HostCallGuard guard;
    hostCalls.mmap = [](void*, size_t, int, int, int, off_t) {
        errno = ENOMEM;
        return MAP_FAILED;
    };
    hostCalls.mremap = [](void*, size_t, size_t, int) { return MAP_FAILED; };
    EXPECT_EQ(GlobalAlloc(GMEM_MOVEABLE, 50 << 20), nullptr);
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, 100); // from what is kept
    if (block != nullptr) {
        EXPECT_EQ(GlobalReAlloc(block, 50 << 20, GMEM_MOVEABLE), nullptr);
        EXPECT_EQ(GlobalSize(block), 100u);
        GlobalFree(block);
    }
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
