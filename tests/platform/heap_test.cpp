#include "tests/support/faults.h"

#include <kal/heap.h>

#include <cstring>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <vector>

TEST(Heap, BlocksAreZeroFilledSizedAndGuarded) {
    HeapBalance balance;
    for (uint32_t size : {0u, 1u, 15u, 16u, 17u, 4096u, 1000001u}) {
        auto* block = static_cast<uint8_t*>(KalAllocSMem(size));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(KalSizeSMem(block), size);
        for (uint32_t i = 0; i < size; i++)
            ASSERT_EQ(block[i], 0) << "byte " << i << " of " << size;
        uint16_t guard;
        std::memcpy(&guard, block + size, sizeof guard);
        EXPECT_EQ(guard, 0xCDAB);
        std::memset(block, 0xEE, size);
        EXPECT_EQ(KalFreeSMem(block), 0);
    }
}

TEST(Heap, RefusesWhatIsNotALiveWholeBlock) {
    int onStack = 0;
    static int fixed;
    auto* block = static_cast<uint8_t*>(KalAllocSMem(10));
    void* foreign[] = {nullptr,
                       &onStack,
                       &fixed,
                       block + 1,
                       block + 16,
                       reinterpret_cast<void*>(0x10),
                       reinterpret_cast<void*>(uintptr_t(-16))};
    for (void* pointer : foreign) {
        EXPECT_NE(KalFreeSMem(pointer), 0) << pointer;
        EXPECT_EQ(KalReAllocSMem(pointer, 5), nullptr) << pointer;
        EXPECT_EQ(KalSizeSMem(pointer), 0u) << pointer;
    }
    block[10] ^= 1; // an overrun by one byte
    EXPECT_NE(KalFreeSMem(block), 0);
    EXPECT_EQ(KalReAllocSMem(block, 20), nullptr);
    block[10] ^= 1;
    EXPECT_EQ(KalFreeSMem(block), 0);
    EXPECT_NE(KalFreeSMem(block), 0) << "a second free";
}

TEST(Heap, ResizingKeepsBytesAndZeroFillsTheRest) {
    HeapBalance balance;
    std::mt19937 random(7);
    auto* block = static_cast<uint8_t*>(KalAllocSMem(0));
    std::vector<uint8_t> model;
    for (int step = 0; step < 300; step++) {
        const auto size = static_cast<uint32_t>(random() % 70000);
        block = static_cast<uint8_t*>(KalReAllocSMem(block, size));
        ASSERT_NE(block, nullptr);
        model.resize(size);
        ASSERT_EQ(std::memcmp(block, model.data(), size), 0) << "step " << step;
        for (uint32_t i = 0; i < size; i += 97)
            block[i] = model[i] = static_cast<uint8_t>(random());
    }
    failHeapAllocation(1);
    EXPECT_EQ(KalReAllocSMem(block, 100000), nullptr);
    EXPECT_EQ(KalSizeSMem(block), model.size()) << "a failed resize leaves the block";
    EXPECT_EQ(std::memcmp(block, model.data(), model.size()), 0);
    EXPECT_EQ(KalFreeSMem(block), 0);
}

TEST(Heap, FarPointersAreThoseThatCanBeRead) {
    auto* page = static_cast<char*>(mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(page, MAP_FAILED);
    EXPECT_EQ(KalIsValidFarPointer(page + 8191), 1);
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
            EXPECT_EQ(KalGetTaskData(5), nullptr);
            KalSetTaskData(&threads, 5);
            std::vector<void*> blocks;
            for (uint32_t i = 0; i < 5000; i++)
                blocks.push_back(KalAllocSMem(i % 300));
            for (void* block : blocks)
                EXPECT_EQ(KalFreeSMem(block), 0);
            EXPECT_EQ(KalGetTaskData(5), &threads);
            KalRemoveTaskData(5);
            EXPECT_EQ(KalGetTaskData(5), nullptr);
        });
    for (auto& thread : threads)
        thread.join();
    int data = 0;
    KalSetTaskData(&data, 32); // beyond the slots
    EXPECT_EQ(KalGetTaskData(32), nullptr);
}
