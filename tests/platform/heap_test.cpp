#include "tests/support/faults.h"

#include <kal/heap.h>

#include <cstring>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <vector>

// Blocks are filled with zeros, as large as asked for, guarded behind, and keep their bytes through any change of size.
TEST(Heap, BlocksHoldTheirBytes) {
    HeapBalance balance;
    std::mt19937 random(7);
    auto* block = static_cast<uint8_t*>(KalAllocSMem(0));
    std::vector<uint8_t> model;
    const auto expectModel = [&] {
        ASSERT_NE(block, nullptr);
        ASSERT_EQ(KalSizeSMem(block), model.size());
        ASSERT_TRUE(std::equal(model.begin(), model.end(), block));
        ASSERT_TRUE(block[model.size()] == 0xAB && block[model.size() + 1] == 0xCD);
    };
    for (int step = 0; step < 300; step++) {
        SCOPED_TRACE(::testing::Message() << "seed 7, step " << step);
        const auto size = static_cast<uint32_t>(step % 4 == 0 ? random() % 40 : random() % 70000);
        if (step % 10 == 0) {
            EXPECT_EQ(KalFreeSMem(block), 0);
            model.clear();
        }
        block = static_cast<uint8_t*>(step % 10 == 0 ? KalAllocSMem(size) : KalReAllocSMem(block, size));
        model.resize(size);
        ASSERT_NO_FATAL_FAILURE(expectModel());
        for (uint32_t i = 0; i < size; i += 97)
            block[i] = model[i] = static_cast<uint8_t>(random());
    }
    failHeapAllocation(1);
    EXPECT_EQ(KalReAllocSMem(block, 100000), nullptr);
    ASSERT_NO_FATAL_FAILURE(expectModel()); // a failed change leaves the block
    EXPECT_EQ(KalFreeSMem(block), 0);
}

TEST(Heap, RefusesWhatIsNotALiveWholeBlock) {
    static int fixed;
    auto* block = static_cast<uint8_t*>(KalAllocSMem(10));
    const auto expectRefused = [](void* pointer) {
        EXPECT_NE(KalFreeSMem(pointer), 0) << pointer;
        EXPECT_EQ(KalReAllocSMem(pointer, 5), nullptr) << pointer;
    };
    for (void* foreign : std::initializer_list<void*>{nullptr, &block, &fixed, block + 1, block + 16,
                                                      reinterpret_cast<void*>(0x10),
                                                      reinterpret_cast<void*>(uintptr_t(-16))}) {
        expectRefused(foreign);
        EXPECT_EQ(KalSizeSMem(foreign), 0u) << foreign;
    }
    block[10] ^= 1; // an overrun by one byte
    expectRefused(block);
    block[10] ^= 1;
    EXPECT_EQ(KalFreeSMem(block), 0);
    expectRefused(block);
}

TEST(Heap, FarPointersAreThoseThatCanBeRead) {
    auto* page = static_cast<char*>(mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(page, MAP_FAILED);
    mprotect(page + 4096, 4096, PROT_NONE);
    EXPECT_EQ(KalIsValidFarPointer(page + 4095), 1);
    EXPECT_EQ(KalIsValidFarPointer(page + 4096), 0);
    munmap(page, 8192);
    EXPECT_EQ(KalIsValidFarPointer(page), 0);
    EXPECT_EQ(KalIsValidFarPointer(nullptr), 0);
}

TEST(Heap, ThreadsShareTheHeapAndKeepTheirOwnTaskData) {
    HeapBalance balance;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&threads] {
            EXPECT_EQ(KalGetTaskData(31), nullptr);
            KalSetTaskData(&threads, 31);
            std::vector<void*> blocks;
            for (uint32_t i = 0; i < 5000; i++)
                blocks.push_back(KalAllocSMem(i % 300));
            for (void* block : blocks)
                EXPECT_EQ(KalFreeSMem(block), 0);
            EXPECT_EQ(KalGetTaskData(31), &threads);
            KalRemoveTaskData(31);
            EXPECT_EQ(KalGetTaskData(31), nullptr);
        });
    for (auto& thread : threads)
        thread.join();
    KalSetTaskData(&threads, 32); // beyond the slots
    EXPECT_EQ(KalGetTaskData(32), nullptr);
}
