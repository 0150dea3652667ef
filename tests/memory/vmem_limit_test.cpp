// What the limit is for: the process's own memory, measured.
#include "tests/support/faults.h"
#include "tests/support/vmem.h"

#include "memory/vmem_manager.h"

#include <kal/path.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <random>
#include <sys/wait.h>

class VMemLimitTest : public VMemFixture, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(VMemLimitTest, HoldsHalfAGigabyteInEightMegabytes) {
    constexpr uint32_t kLimit = 8 << 20;
    const uint32_t size = GetParam();
    const uint32_t count = (kSanitized ? 32u << 20 : 512u << 20) / size;
    std::vector<void*> blocks(count);
    KalSetVMemTemp("/dev/shm"); // the disk's own speed is not the point
    open(kLimit);
    const Bytes bytes = pattern(size + 256, 1); // each block a stretch of it
    const int64_t before = residentBytes();
    int64_t most = 0;
    const auto measure = [&](uint32_t i) {
        if (i % 256 == 0)
            most = std::max(most, residentBytes() - before);
    };
    for (uint32_t i = 0; i < count; i++) {
        ASSERT_NE(blocks[i] = KalAllocVMem(2, size), nullptr);
        std::memcpy(KalLockVMem(blocks[i]), bytes.data() + i % 256, size);
        KalUnLockVMem(blocks[i]);
        measure(i);
    }
    EXPECT_EQ(uint32_t(KalVMemUsed()), count * size);
    const uint32_t lockedCount = std::min(count, (4u << 20) / size);
    std::vector<void*> addresses;
    for (uint32_t i = 0; i < lockedCount; i++) // 4 MiB locked: they come on top
        addresses.push_back(KalLockVMem(blocks[i * 7 % count]));
    for (uint32_t i = 0; i < count; i++) {
        const void* block = KalLockVMem(blocks[i]);
        ASSERT_NE(block, nullptr);
        ASSERT_EQ(std::memcmp(block, bytes.data() + i % 256, size), 0) << "block " << i;
        KalUnLockVMem(blocks[i]);
        measure(i);
    }
    for (uint32_t i = 0; i < lockedCount; i++) {
        EXPECT_EQ(KalLockVMem(blocks[i * 7 % count]), addresses[i]);
        KalUnLockVMem(blocks[i * 7 % count]);
        KalUnLockVMem(blocks[i * 7 % count]);
    }
    std::mt19937 random(1);
    std::shuffle(blocks.begin(), blocks.end(), random);
    for (void* block : blocks)
        KalFreeVMem(block);
    EXPECT_EQ(KalVMemUsed(), 0);
    KalTempPath(nullptr);
    if (!kSanitized) {
        // A locked block holds whole pages. Counted in bytes, the smallest blocks here pass this by a hundredth:
        // the records of 60,000 of them alone are more than the limit.
        const int64_t inPages = (int64_t(size) + 4095) / 4096 * 4096;
        EXPECT_LT(most, kLimit + lockedCount * inPages + (4 << 20));
    }
}

// 60,000 blocks of 8,948 bytes: their records take as much as the limit
INSTANTIATE_TEST_SUITE_P(BlockSizes, VMemLimitTest, ::testing::Values(1u << 20, 60000u, 32768u, 8948u));

class VMemProcessTest : public VMemFixture {};

TEST_F(VMemProcessTest, FreedMemoryCountsToo) {
    constexpr uint32_t kLimit = 8 << 20;
    open(kLimit);
    const int64_t before = residentBytes();
    for (const uint32_t size : {4096u, 50000u, 9000u, 700000u, 30000u}) { // no class's memory serves the next
        std::vector<void*> blocks;
        for (uint32_t made = 0; made + size <= kLimit; made += size)
            blocks.push_back(make(size, made));
        for (void* block : blocks)
            KalFreeVMem(block);
    }
    if (!kSanitized) {
        EXPECT_LT(residentBytes() - before, kLimit + (4 << 20));
    }
    KalCloseVMem();
    EXPECT_EQ(keptGlobalMemory(), 0u);
}

TEST_F(VMemProcessTest, NothingIsLeftOfAKilledProcess) {
    KalSetVMemTemp(path("").c_str());
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        KalSetMaxVMem(100000);
        KalOpenVMem(0);
        for (uint32_t i = 0; i < 50; i++)
            make(10000, i);
        const char swapped = currentManager()->state.swapFile->items->first != nullptr ? 'y' : 'n';
        if (::write(ready[1], &swapped, 1) == 1)
            ::pause();
        ::_exit(1);
    }
    char swapped = 0;
    EXPECT_EQ(::read(ready[0], &swapped, 1), 1);
    EXPECT_EQ(swapped, 'y');
    EXPECT_EQ(filesIn("."), std::vector<std::string>()) << "the swap file has a name";
    ::kill(child, SIGKILL);
    int how = 0;
    ::waitpid(child, &how, 0);
    EXPECT_TRUE(WIFSIGNALED(how));
    EXPECT_EQ(filesIn("."), std::vector<std::string>());
    ::close(ready[0]);
    ::close(ready[1]);
    KalTempPath(nullptr);
}
