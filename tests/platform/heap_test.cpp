#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/heap.h>

#include <cstring>
#include <malloc.h>
#include <random>
#include <sys/mman.h>
#include <thread>

namespace {

// Blocks beside a model of them: filled with zeros, as large as asked for, guarded behind, and keeping their bytes through
// any change of size, also one that fails.
void holdToModel(uint32_t seed, bool fails) {
    std::mt19937 random(seed);
    std::pair<uint8_t*, Bytes> blocks[6];
    for (auto& [block, model] : blocks)
        block = static_cast<uint8_t*>(KalAllocSMem(0));
    KalSetTaskData(blocks, 31);
    for (int step = 0; step < 1000; step++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << step);
        auto& [block, model] = blocks[random() % std::size(blocks)];
        const auto size =
            static_cast<uint32_t>(random() % (random() % 2 == 0 ? 70000 : 1500) >> random() % 8);
        const bool isNew = random() % 4 == 0, isDue = fails && random() % 8 == 0;
        if (isNew) {
            ASSERT_EQ(KalFreeSMem(block), 0);
            model.clear();
        }
        const uint32_t failed = KalFailedSMem();
        failHeapAllocation(isDue ? 1 : 0);
        auto* got = static_cast<uint8_t*>(isNew ? KalAllocSMem(size) : KalReAllocSMem(block, size));
        ASSERT_EQ(got == nullptr, isDue);
        ASSERT_TRUE(!fails || KalFailedSMem() - failed == (isDue ? 1u : 0u));
        block = got != nullptr ? got : isNew ? static_cast<uint8_t*>(KalAllocSMem(0)) : block;
        model.resize(isDue ? model.size() : size);
        ASSERT_EQ(KalSizeSMem(block), model.size());
        ASSERT_TRUE(std::equal(model.begin(), model.end(), block));
        ASSERT_TRUE(block[model.size()] == 0xAB && block[model.size() + 1] == 0xCD);
        std::memset(block, static_cast<int>(random() % 256), model.size());
        model.assign(block, block + model.size());
    }
    EXPECT_EQ(KalGetTaskData(31), blocks);
    KalRemoveTaskData(31);
    EXPECT_EQ(KalGetTaskData(31), nullptr);
    for (auto& [block, model] : blocks)
        EXPECT_EQ(KalFreeSMem(block), 0);
}

} // namespace

TEST(Heap, BlocksHoldTheirBytes) {
    const HeapBalance balance;
    holdToModel(1, true);
    const size_t used = mallinfo2().uordblks;
    holdToModel(2, true);
    EXPECT_LT(mallinfo2().uordblks, used + 200000)
        << "freed blocks go back to the C library, but for one of a size";
    std::vector<std::thread> threads;
    for (uint32_t seed = 3; seed < 7; seed++)
        threads.emplace_back(holdToModel, seed, false);
    for (auto& thread : threads)
        thread.join();
    KalSetTaskData(&threads, 32); // beyond the slots
    EXPECT_EQ(KalGetTaskData(32), nullptr);
}

TEST(Heap, RefusesWhatIsNotALiveWholeBlock) {
    static int fixed;
    auto* block = static_cast<uint8_t*>(KalAllocSMem(10));
    const auto isRefused = [](void* pointer) {
        return KalFreeSMem(pointer) != 0 && KalReAllocSMem(pointer, 5) == nullptr;
    };
    const std::initializer_list<void*> foreigners = {nullptr,
                                                     &block,
                                                     &fixed,
                                                     block + 1,
                                                     block + 16,
                                                     reinterpret_cast<void*>(0x10),
                                                     reinterpret_cast<void*>(uintptr_t(-16))};
    for (void* foreign : foreigners)
        EXPECT_TRUE(isRefused(foreign) && KalSizeSMem(foreign) == 0) << foreign;
    block[10] ^= 1; // an overrun by one byte
    EXPECT_TRUE(isRefused(block));
    block[10] ^= 1;
    EXPECT_EQ(KalFreeSMem(block), 0);
    EXPECT_TRUE(isRefused(block));
}

TEST(Heap, FarPointersAreThoseThatCanBeRead) {
    const HostCallGuard guard;
    auto* page = static_cast<char*>(mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(page + 4096, 4096, PROT_NONE);
    EXPECT_EQ(KalIsValidFarPointer(page + 4095), 1);
    EXPECT_EQ(KalIsValidFarPointer(page + 4096), 0);
    EXPECT_EQ(KalIsValidFarPointer(nullptr), 0);
    for (int twice = 0; twice < 2; twice++) {
        EXPECT_EQ(KalIsValidFarPointer(page + 4095), 1 - twice) << "then it is gone";
        hostCalls.process_vm_readv = [](auto...) {
            errno = EPERM;
            return ssize_t(-1);
        };
        EXPECT_EQ(KalIsValidFarPointer(page + 4095), 1 - twice) << "where the host forbids the call";
        munmap(page, 8192);
    }
}
