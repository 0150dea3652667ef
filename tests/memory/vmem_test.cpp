#include "tests/support/faults.h"
#include "tests/support/trouble.h"
#include "tests/support/vmem.h"

#include <kal/heap.h>
#include <kal/path.h>
#include <kal/tagset.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <random>
#include <thread>

class VMemTest : public VMemFixture {
protected:
    static const vmemstate& state() { return *static_cast<vmemstate*>(KalGetTaskData(6)); }
    // Every call with handles that are nobody's: null, a dead one, one that never was.
    static void callAll(bool isOpen) {
        int local = 0;
        void* dead = GlobalAlloc(GMEM_MOVEABLE, 10);
        GlobalFree(dead);
        for (void* handle : {static_cast<void*>(nullptr), dead, static_cast<void*>(&local)}) {
            EXPECT_EQ(KalLockVMem(handle), nullptr);
            EXPECT_EQ(KalReAllocVMem(handle, 10), nullptr);
            EXPECT_EQ(KalUnLockVMem(handle) + KalFreeVMem(handle) + KalDeleteLRU(handle), 0);
            KalMarkDirtyVMem(handle);
        }
        EXPECT_EQ(KalLRUNewest(dead) + KalDiscardLRUOldest() + KalVMemUsed(), 0);
        EXPECT_EQ(KalMaxVMem(), isOpen ? 2097152 : 0);
        EXPECT_EQ(KalGetVMemSize(), isOpen ? 1048576 : 0);
        KalSetVMemErrorHandler(nullptr);
        HGLOBAL loose = GlobalAlloc(GMEM_MOVEABLE, 10);
        KalFreeVMem(loose);
        EXPECT_EQ(GlobalFlags(loose), GMEM_INVALID_HANDLE);
    }
};

TEST_F(VMemTest, EveryCallServesInEveryStateOfTheManager) {
    HeapBalance balance;
    callAll(false);
    EXPECT_EQ(KalAllocVMem(2, 10), nullptr);
    EXPECT_EQ(KalAddLRU(&balance) + KalOpenLRUVList() + KalCloseLRUVList() + KalCloseVMem(), 0);

    ASSERT_EQ(KalOpenVMem(7), 0);
    EXPECT_EQ(KalOpenVMem(7), -101);
    callAll(true);
    EXPECT_EQ(KalOpenLRUVList(), 0) << "the list that is there stays";
    std::thread([] { // another task knows nothing of it
        callAll(false);
        EXPECT_EQ(KalOpenVMem(0) + KalCloseVMem(), 0);
    })
        .join();

    void* unlisted = make(1000, 1);
    make(3000, 2);
    KalDeleteLRU(unlisted);
    EXPECT_EQ(KalCloseLRUVList(), 0); // frees the other
    EXPECT_EQ(KalVMemUsed(), 1000);
    expect(unlisted, 1000, 1);
    EXPECT_EQ(KalReAllocVMem(unlisted, 50), nullptr);
    EXPECT_EQ(KalAddLRU(unlisted), -801);
    KalFreeVMem(unlisted);
    EXPECT_EQ(KalAllocVMem(2, 10), nullptr);
    callAll(true);
    EXPECT_EQ(KalCloseLRUVList() + KalOpenLRUVList(), 0);
    void* block = make(10, 3);
    EXPECT_EQ(KalVMemUsed(), 10);
    EXPECT_EQ(KalCloseVMem(), 0);
    callAll(false);
    EXPECT_EQ(KalLockVMem(block), nullptr);
}

TEST_F(VMemTest, ProbesForTheLargestBlockThatCanBeHad) {
    HostCallGuard guard;
    hostCalls.mmap = [](void* at, size_t size, int protection, int flags, int fd, off_t offset) {
        errno = ENOMEM;
        return size > (1 << 20) ? MAP_FAILED : ::mmap(at, size, protection, flags, fd, offset);
    };
    trimGlobalMemory(0);
    ASSERT_EQ(KalOpenVMem(0), 0);
    EXPECT_EQ(KalGetVMemSize(), 524288);
}

// The handler is told once, and again only after a write has come through; what cannot be written stays in memory.
TEST_F(VMemTest, AFullDiskCallsTheHandlerOnceAndLosesNothing) {
    static int calls, room;
    calls = 0;
    HostCallGuard guard;
    hostCalls.write = [](int fd, const void* bytes, size_t count) -> ssize_t {
        errno = ENOSPC;
        return room-- > 0 ? ::write(fd, bytes, count) : -1;
    };
    open(100000);
    KalSetVMemErrorHandler([] { calls++; });
    std::vector<void*> blocks;
    for (const auto& [writes, told] : {std::pair(1, 1), std::pair(0, 1), std::pair(2, 2), std::pair(50, 2)}) {
        room = writes;
        for (int i = 0; i < 12; i++)
            blocks.push_back(make(10000, uint32_t(blocks.size())));
        EXPECT_EQ(calls, told) << "with room for " << writes << " writes";
        EXPECT_EQ(val(state().swapFailed), writes < 50 ? 1 : 0);
        EXPECT_EQ(val(state().bytesResident) > 100000, writes < 50);
    }
    for (size_t i = 0; i < blocks.size(); i++)
        expect(blocks[i], 10000, uint32_t(i));
    EXPECT_EQ(calls, 2);
}

static std::vector<void*> handlerBlocks;

TEST_F(VMemTest, TheHandlerMayFreeBlocksAndEvenClose) {
    HeapBalance balance;
    HostCallGuard guard;
    hostCalls.write = [](int, const void*, size_t) {
        errno = ENOSPC;
        return ssize_t(-1);
    };
    for (const bool closes : {false, true}) {
        const auto handler = closes ? [] { (void)KalCloseVMem(); } : [] {
            for (void* block : handlerBlocks)
                KalFreeVMem(block);
        };
        for (const bool grows : {false, true}) {
            open(20000);
            handlerBlocks = {make(9000, 1), make(9000, 2)};
            void* last = make(2000, 3);
            KalSetVMemErrorHandler(handler);
            EXPECT_EQ((grows ? KalReAllocVMem(last, 9000) : KalAllocVMem(2, 9000)) == nullptr, closes);
            KalCloseVMem();
        }
    }
}

TEST_F(VMemTest, ABlockThatCannotBeReadBackIsNullAndKeepsItsCopy) {
    open(20000);
    void* first = make(15000, 1);
    make(15000, 2);
    {
        HostCallGuard guard;
        hostCalls.read = [](int, void*, size_t) {
            errno = EIO;
            return ssize_t(-1);
        };
        EXPECT_EQ(KalLockVMem(first), nullptr);
        EXPECT_EQ(KalReAllocVMem(first, 20000), nullptr);
        failHeapAllocationsFrom(1);
        EXPECT_EQ(KalLockVMem(first), nullptr) << "the tries are bounded";
        failHeapAllocation(0);
    }
    EXPECT_LE(val(state().bytesResident), 15000);
    EXPECT_EQ(KalVMemUsed(), 30000);
    expect(first, 15000, 1);
}

TEST_F(VMemTest, NothingIsLostOrLeftInTrouble) {
    KalSetVMemTemp(path("").c_str()); // where the walk sees what a killed process leaves
    const auto work = [this]() -> int {
        KalSetMaxVMem(30000);
        const int16_t status = KalOpenVMem(0);
        int lost = 0;
        std::vector<void*> blocks(status == 0 ? 6 : 0);
        for (uint32_t i = 0; i < blocks.size(); i++)
            blocks[i] = make(10000, i);
        if (!blocks.empty())
            KalReAllocVMem(blocks[1], 14000);
        for (uint32_t i = 0; i < blocks.size(); i++)
            if (const void* bytes = KalLockVMem(blocks[i]); bytes == nullptr)
                lost++;
            else
                EXPECT_EQ(std::memcmp(bytes, pattern(10000, i).data(), 10000), 0) << "block " << i;
        EXPECT_EQ(KalCloseVMem(), 0);
        return status != 0 ? status : lost;
    };
    walkTrouble(
        {.run = work, .statuses = {-100, -101, -105, -250, -200 - EIO, -200 - ENOSPC, 1, 2, 3, 4, 5, 6}});
    KalTempPath(nullptr);
}

TEST_F(VMemTest, TheLruListServesAnyHandle) {
    HeapBalance balance;
    open(0);
    int a = 0, b = 0; // no blocks: the list holds what it is given
    void* block = make(10, 1);
    EXPECT_EQ(KalAddLRU(&a) + KalAddLRU(&b) + KalAddLRU(block) + KalAddLRU(&a), 0);
    slisthd* list = state().lruList;
    void* wanted = &b;
    void* node = KalSPeekList(list, KalFindLRUNode, &wanted);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(KalDeleteLRU(&a) + KalDeleteLRU(block), 0); // the newer of two each
    EXPECT_EQ(reinterpret_cast<void*>(list->first + 1), node);
    EXPECT_EQ(KalDeleteLRU(&list), 0) << "not in the list";
    EXPECT_EQ(KalSCountList(list), 3);
    EXPECT_EQ(KalDeleteLRU(&a) + KalDeleteLRU(block), 0);
    EXPECT_EQ(KalSCountList(list), 1);
    KalFreeVMem(block);
    failHeapAllocation(1);
    EXPECT_EQ(KalAddLRU(&a), -105);
    EXPECT_EQ(KalAddLRU(&a), 0);
    EXPECT_EQ(KalCloseVMem(), 0);
}

// Whatever the blocks' size, the process holds little more than the limit and what is locked.
TEST_F(VMemTest, TheProcessStaysWithinTheLimit) {
    constexpr uint32_t kLimit = 8 << 20;
    constexpr uint32_t kSlack = 4 << 20;
    for (const uint32_t size : {1u << 20, 8948u}) {
        const uint32_t count = (kSanitized ? 32u << 20 : 128u << 20) / size;
        std::vector<void*> blocks(count);
        KalSetVMemTemp("/dev/shm"); // the disk's own speed is not the point
        open(kLimit);
        const int64_t before = residentBytes();
        int64_t most = 0;
        for (int round = 0; round < 2; round++)
            for (uint32_t i = 0; i < count; i++) {
                round == 0 ? void(blocks[i] = make(size, i)) : expect(blocks[i], size, i);
                if (i % 64 == 0)
                    most = std::max(most, residentBytes() - before);
            }
        EXPECT_EQ(uint32_t(KalVMemUsed()), count * size);
        std::shuffle(blocks.begin(), blocks.end(), std::mt19937(size));
        for (void* block : blocks)
            KalFreeVMem(block);
        EXPECT_EQ(KalVMemUsed(), 0);
        if (!kSanitized) {
            EXPECT_LT(most, kLimit + kSlack) << "blocks of " << size;
        }
        // What is kept of freed blocks counts too.
        for (const uint32_t other : {4096u, 50000u, 9000u, 700000u, 30000u}) {
            for (uint32_t made = 0; made + other <= kLimit; made += other)
                blocks.push_back(make(other, made));
            for (; blocks.size() > count; blocks.pop_back())
                KalFreeVMem(blocks.back());
            EXPECT_LE(keptGlobalMemory(), kLimit + kSlack);
        }
        KalCloseVMem();
        EXPECT_EQ(keptGlobalMemory(), 0u);
        KalTempPath(nullptr);
    }
}

TEST_F(VMemTest, TheLimitComesFromTheSettingsOrFromWhatIsFree) {
    HostCallGuard guard;
    hostCalls.open = [](const char* name, int flags, mode_t mode) {
        return ::open(std::strcmp(name, "/proc/meminfo") == 0 ? "meminfo" : name, flags, mode);
    };
    writeFile("meminfo", bytesOf("MemAvailable: 4000 kB"));
    EXPECT_EQ(KalGetFreeSystemMemory(), 4000u * 1024 - 2200000);
    writeFile("meminfo", bytesOf("MemAvailable: 2000 kB"));
    for (const char* place : {"KAL_REGISTRY", "XDG_RUNTIME_DIR"})
        ::setenv(place, path("").c_str(), 1);
    {
        TagSet options;
        ASSERT_EQ(options.SetPath("Options", 1), 0);
        // As many bytes as the limit allows stay in memory, and not one more.
        const auto limitIs = [](uint32_t limit) {
            ASSERT_EQ(KalOpenVMem(0), 0);
            for (const uint32_t more : {0u, 1u}) {
                void* first = make(1000, 1);
                make(limit - 1000 + more, 2);
                EXPECT_EQ(GlobalSize(first), more == 0 ? 1000u : 0u) << limit;
                KalCloseLRUVList();
                KalOpenLRUVList();
            }
            KalCloseVMem();
        };
        KalSetMaxVMem(0);
        limitIs(2000 * 1024);
        KalSetMemManOptions(&options);
        limitIs(2000 * 1024);
        writeFile("meminfo", bytesOf("MemAvailable: 3000 kB"));
        KalSetMemManOptions(&options);
        limitIs(1500000);
        options.SetTag("VMEMMAX", "4000000");
        KalSetMemManOptions(&options);
        limitIs(4000000);
    }
    for (const char* place : {"KAL_REGISTRY", "XDG_RUNTIME_DIR"})
        ::unsetenv(place);
}
