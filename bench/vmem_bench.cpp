// VMem blocks: 60,000 of 4 KiB allocated, locked and touched, then freed in three orders; malloc beside it.
#include "bench/row.h"

#include <kal/vmem.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

namespace {

constexpr uint32_t kBlocks = 60000;
constexpr uint32_t kBlockSize = 4096;

enum Order { kOldestFirst, kNewestFirst, kAtRandom };

std::vector<uint32_t> orderOf(Order order) {
    std::vector<uint32_t> indexes(kBlocks);
    std::iota(indexes.begin(), indexes.end(), 0u);
    if (order == kNewestFirst)
        std::reverse(indexes.begin(), indexes.end());
    else if (order == kAtRandom)
        std::shuffle(indexes.begin(), indexes.end(), std::mt19937(1));
    return indexes;
}

// A first round outside the measurement brings the pages that both may keep.
template <class Round>
void measure(benchmark::State& state, Order freeing, Round round) {
    const std::vector<uint32_t> order = orderOf(freeing);
    std::vector<void*> blocks(kBlocks);
    round(blocks, order);
    for (auto _ : state)
        round(blocks, order);
}

void vmemBlocks(benchmark::State& state, Order freeing) {
    KalSetMaxVMem(0xFFFFFFFF);
    KalOpenVMem(0);
    measure(state, freeing, [](std::vector<void*>& blocks, const std::vector<uint32_t>& order) {
        for (void*& block : blocks) {
            block = KalAllocVMem(2, kBlockSize);
            *static_cast<volatile char*>(KalLockVMem(block)) = 1;
            KalUnLockVMem(block);
        }
        for (const uint32_t index : order)
            KalFreeVMem(blocks[index]);
    });
    KalCloseVMem();
}

void mallocBlocks(benchmark::State& state, Order freeing) {
    measure(state, freeing, [](std::vector<void*>& blocks, const std::vector<uint32_t>& order) {
        for (void*& block : blocks) {
            block = std::malloc(kBlockSize);
            *static_cast<volatile char*>(block) = 1;
        }
        for (const uint32_t index : order)
            std::free(blocks[index]);
    });
}

} // namespace

int main(int argc, char** argv) {
    const char* const names[] = {"oldest first", "newest first", "at random"};
    for (const Order freeing : {kOldestFirst, kNewestFirst, kAtRandom}) {
        const std::string row = std::string("60,000 blocks of 4 KiB, freed ") + names[freeing];
        cell(row, "kal", [=](benchmark::State& state) { vmemBlocks(state, freeing); });
        cell(row, "malloc", [=](benchmark::State& state) { mallocBlocks(state, freeing); });
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
