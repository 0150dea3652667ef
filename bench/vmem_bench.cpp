// VMem blocks: 60,000 of 4 KiB allocated, locked and touched, then freed in three orders; malloc beside it.
#include <kal/vmem.h>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

namespace {

constexpr uint32_t kBlocks = 60000;
constexpr uint32_t kBlockSize = 4096;

enum Order { kOldestFirst, kNewestFirst, kAtRandom };

std::vector<uint32_t> orderOf(int64_t order) {
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
void measure(benchmark::State& state, Round round) {
    const std::vector<uint32_t> order = orderOf(state.range(0));
    std::vector<void*> blocks(kBlocks);
    round(blocks, order);
    for (auto _ : state)
        round(blocks, order);
    state.SetItemsProcessed(state.iterations() * kBlocks);
}

void vmemBlocks(benchmark::State& state) {
    KalSetMaxVMem(0xFFFFFFFF);
    KalOpenVMem(0);
    measure(state, [](std::vector<void*>& blocks, const std::vector<uint32_t>& order) {
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

void mallocBlocks(benchmark::State& state) {
    measure(state, [](std::vector<void*>& blocks, const std::vector<uint32_t>& order) {
        for (void*& block : blocks) {
            block = std::malloc(kBlockSize);
            *static_cast<volatile char*>(block) = 1;
        }
        for (const uint32_t index : order)
            std::free(blocks[index]);
    });
}

BENCHMARK(vmemBlocks)->ArgName("order")->DenseRange(kOldestFirst, kAtRandom)->Unit(benchmark::kMillisecond);
BENCHMARK(mallocBlocks)->ArgName("order")->DenseRange(kOldestFirst, kAtRandom)->Unit(benchmark::kMillisecond);

} // namespace
