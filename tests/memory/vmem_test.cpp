#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/vmem.h"

#include <fcntl.h>
#include <thread>

class VMemTest : public VMemFixture {
protected:
    static const vmemstate& state() { return *static_cast<vmemstate*>(KalGetTaskData(6)); }
    static ssize_t full(int, const void*, size_t) { return errno = ENOSPC, -1; }
};

using VMemLimit = RegistryTest;

// Every call, in every state of the manager: with a handle that is nobody's, and with a block of the platform's.
TEST_F(VMemTest, EveryCallServesInEveryState) {
    int local = 0;
    void* dead = GlobalAlloc(GMEM_MOVEABLE, 10);
    GlobalFree(dead);
    using Results = std::vector<intptr_t>;
    const auto walk = [&](const Results& expected) {
        for (void* h : {static_cast<void*>(nullptr), dead, static_cast<void*>(&local)}) {
            if (expected[5] != 0)
                KalCloseLRUVList();
            const Results results = {KalLockVMem(h) != nullptr,
                                     KalReAllocVMem(h, 10) != nullptr,
                                     KalUnLockVMem(h),
                                     (KalMarkDirtyVMem(h), 0),
                                     KalAllocVMem(2, 10) != nullptr,
                                     KalAddLRU(h),
                                     KalDeleteLRU(h) + KalDeleteLRU(h),
                                     KalLRUNewest(h) + KalDiscardLRUOldest(),
                                     KalVMemUsed(),
                                     (KalFreeVMem(h), KalMaxVMem()),
                                     KalGetVMemSize(),
                                     KalCloseLRUVList(),
                                     KalOpenLRUVList() + KalOpenLRUVList()};
            EXPECT_EQ(results, expected);
        }
        void* loose = GlobalAlloc(GMEM_MOVEABLE, 10);
        EXPECT_EQ(KalReAllocVMem(loose, 20), nullptr);
        KalFreeVMem(loose);
        EXPECT_EQ(GlobalFlags(loose), GMEM_INVALID_HANDLE);
    };
    const Results closed(13);
    walk(closed);
    ASSERT_EQ(KalOpenVMem(7), KAL_OK);
    walk({0, 0, 0, 0, 1, 0, 0, 0, 10, 2097152, 1048576, 0, 0});
    EXPECT_EQ(KalOpenVMem(0), KAL_ERR_VMEM);
    std::thread(walk, closed).join();                                     // another task knows nothing of it
    walk({0, 0, 0, 0, 0, KAL_ERR_LIST, 0, 0, 0, 2097152, 1048576, 0, 0}); // without its list
    KalOpenLRUVList();
    void *unlisted = make(1000, 1), *listed = make(3000, 2);
    KalDeleteLRU(unlisted);
    EXPECT_EQ(KalCloseLRUVList(), KAL_OK);
    EXPECT_EQ(GlobalFlags(listed), GMEM_INVALID_HANDLE);
    EXPECT_EQ(KalVMemUsed(), 1000);
    expect(unlisted, 1000, 1);
    EXPECT_EQ(KalReAllocVMem(unlisted, 50), nullptr);
    KalFreeVMem(unlisted);
}

TEST_F(VMemTest, TheLruListServesAnyHandle) {
    open(0);
    int blocks[2]; // no blocks: the list holds what it is given
    void *a = &blocks[0], *b = &blocks[1], *node;
    for (void* handle : {a, b, a})
        EXPECT_EQ(KalAddLRU(handle), KAL_OK);
    slisthd* list = state().lruList;
    ASSERT_EQ(node = KalSPeekList(list, KalFindLRUNode, &b), KalNextNode(list->first + 1));
    EXPECT_EQ(KalDeleteLRU(a) + KalDeleteLRU(&list), KAL_OK) << "the newer of two, and none";
    EXPECT_EQ(reinterpret_cast<void*>(list->first + 1), node);
    EXPECT_EQ(KalDeleteLRU(a), KAL_OK);
    EXPECT_EQ(KalSCountList(list), 1);
}

TEST_F(VMemTest, ProbesForTheLargestBlockThatCanBeHad) {
    HostCallGuard guard;
    hostCalls.mmap = [](void* at, size_t size, int protection, int flags, int fd, off_t offset) {
        return size > (1 << 20) ? MAP_FAILED : ::mmap(at, size, protection, flags, fd, offset);
    };
    ASSERT_EQ(KalOpenVMem(0), KAL_OK);
    EXPECT_EQ(KalGetVMemSize(), 524288);
}

TEST_F(VMemTest, TheHandlerMayFreeBlocksAndEvenClose) {
    static std::vector<void*> blocks;
    HostCallGuard guard;
    hostCalls.write = full;
    for (const bool closes : {false, true})
        for (const bool grows : {false, true}) {
            open(20000);
            blocks = {make(9000, 1), make(9000, 2)};
            void* last = make(2000, 3);
            KalSetVMemErrorHandler(closes ? [] { (void)KalCloseVMem(); }
                                          : [] { std::for_each(blocks.begin(), blocks.end(), KalFreeVMem); });
            EXPECT_EQ((grows ? KalReAllocVMem(last, 9000) : KalAllocVMem(2, 9000)) == nullptr, closes);
            KalCloseVMem();
        }
}

TEST_F(VMemTest, ABlockWhoseMemoryWentComesBackFromItsCopy) {
    open(20000);
    void *first = make(15000, 1), *second = make(15000, 2);
    failHeapAllocationsFrom(1);
    EXPECT_EQ(KalLockVMem(first), nullptr) << "the tries are bounded";
    failHeapAllocation(0);
    expect(first, 15000, 1);
    KalGlobalReAlloc(first, 0, GMEM_MOVEABLE); // its owner gave it up
    expect(first, 15000, 1);
    EXPECT_EQ(val(state().bytesResident), 15000);
    GlobalFree(second); // by another task
    EXPECT_EQ(KalLockVMem(second), nullptr);
    EXPECT_EQ(KalReAllocVMem(second, 10), nullptr);
}

// Where the host has no memory, blocks go out that the limit would let stay.
TEST_F(VMemTest, ShortMemoryIsMadeUpForBySwapping) {
    open(1 << 30);
    HostCallGuard guard;
    void* blocks[5];
    for (uint32_t i = 0; i < 4; i++)
        blocks[i] = make(1 << 20, i);
    hostCalls.mmap = [](void*, size_t, int, int, int, off_t) { return MAP_FAILED; };
    hostCalls.mremap = [](void*, size_t, size_t, int) { return MAP_FAILED; };
    trimGlobalMemory(0);
    blocks[4] = make(1 << 20, 4);
    for (uint32_t i = 0; i < 5; i++)
        expect(blocks[i], 1 << 20, i);
    EXPECT_EQ(val(state().bytesResident), 4 << 20);
    EXPECT_EQ(KalReAllocVMem(blocks[0], 1), blocks[0]);
    EXPECT_EQ(KalReAllocVMem(blocks[0], 1 << 20), blocks[0]);
    EXPECT_EQ(KalReAllocVMem(blocks[0], 1 << 30), nullptr);
    EXPECT_EQ(KalAllocVMem(2, 1 << 30), nullptr);
}

// Whatever the blocks' size, the process holds little more than the limit; what is kept of freed blocks counts too.
TEST_F(VMemTest, TheProcessStaysWithinTheLimit) {
    constexpr uint32_t kLimit = 8 << 20, kSlack = 4 << 20;
    KalSetVMemTemp("/dev/shm"); // the disk's own speed is not the point
    for (const uint32_t size : {1u << 20, 8948u, 700000u, 4096u}) {
        std::vector<void*> blocks((kSanitized ? 16u << 20 : 64u << 20) / size);
        open(kLimit);
        const int64_t before = residentBytes();
        int64_t most = 0;
        for (uint32_t i = 0; i < 2 * blocks.size(); i++) {
            void*& block = blocks[i % blocks.size()];
            block == nullptr ? void(block = make(size, i)) : expect(block, size, uint32_t(i % blocks.size()));
            most = i % 64 == 0 ? std::max(most, residentBytes() - before) : most;
        }
        EXPECT_LT(kSanitized ? 0 : most, kLimit + kSlack) << "blocks of " << size;
        const uint32_t pages = uint32_t(state().bytesResident) / size * ((size + 4095) / 4096 * 4096);
        EXPECT_LE(pages + 128 * blocks.size(), kLimit + (2u << 20)) << "with the manager's records";
        std::shuffle(blocks.begin(), blocks.end(), std::mt19937(size));
        std::for_each(blocks.begin(), blocks.end(), KalFreeVMem);
        KalFreeVMem(KalAllocVMem(2, 50000));
        EXPECT_LE(keptGlobalMemory(), kLimit + kSlack);
        KalCloseVMem();
        EXPECT_EQ(keptGlobalMemory(), 0u);
    }
}

TEST_F(VMemLimit, ComesFromTheSettingsOrFromWhatIsFree) {
    HostCallGuard guard;
    hostCalls.open = [](const char* name, int flags, mode_t mode) {
        return ::open(std::strcmp(name, "/proc/meminfo") == 0 ? "meminfo" : name, flags, mode);
    };
    TagSet options;
    ASSERT_EQ(options.SetPath("Options", 1), KAL_OK);
    // As many bytes as the limit allows stay in memory, and not one more.
    const auto expectLimit = [&](const char* free, TagSet* from, uint32_t limit) {
        writeFile("meminfo", bytesOf(std::string("MemAvailable: ") + free + " kB"));
        if (from != nullptr)
            KalSetMemManOptions(from);
        ASSERT_EQ(KalOpenVMem(0), KAL_OK);
        for (const uint32_t more : {0u, 1u}) {
            void* first = KalAllocVMem(2, 1000);
            KalAllocVMem(2, limit - 1000 + more);
            EXPECT_EQ(GlobalSize(first), more == 0 ? 1000u : 0u) << limit;
            KalCloseLRUVList();
            KalOpenLRUVList();
        }
        KalCloseVMem();
    };
    expectLimit("2000", nullptr, 2000 * 1024);
    expectLimit("2000", &options, 2000 * 1024);
    expectLimit("4000", &options, 4000 * 1024 - 2200000);
    expectLimit("3000", &options, 1500000);
    options.SetTag("VMEMMAX", "4000000");
    expectLimit("3000", &options, 4000000);
}
