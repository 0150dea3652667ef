#include "platform/block_map.h"

#include "platform/one_thread.h"

#include <atomic>
#include <bit>
#include <cstdlib>

namespace {

// An address splits, from the top, into: directory index, leaf index, bit in the leaf, 4 zero bits.
constexpr int kGrainBits = 4;
constexpr int kLeafBits = 18;      // a leaf covers 4 MiB
constexpr int kDirectoryBits = 10; // a directory covers 4 GiB
constexpr int kAddressBits = sizeof(void*) == 8 ? 47 : 32;
constexpr int kTopBits = kAddressBits - kDirectoryBits - kLeafBits - kGrainBits;

using Word = std::atomic<uint64_t>;

struct Leaf {
    Word words[(1u << kLeafBits) / 64];
};
struct Directory {
    std::atomic<Leaf*> leaves[1u << kDirectoryBits];
};

std::atomic<Directory*> top[size_t(1) << kTopBits];

// Both kinds of node are all 0 when fresh, and live until the process ends.
template <class Node>
[[gnu::noinline]] Node* makeChild(std::atomic<Node*>& slot) {
    Node* node = nullptr;
    auto* fresh = static_cast<Node*>(std::calloc(1, sizeof(Node)));
    if (fresh == nullptr)
        return nullptr;
    if (slot.compare_exchange_strong(node, fresh, std::memory_order_acq_rel))
        return fresh;
    std::free(fresh); // another thread was first
    return node;
}

template <bool kMakes, class Node>
Node* child(std::atomic<Node*>& slot) {
    Node* node = slot.load(std::memory_order_acquire);
    return node != nullptr || !kMakes ? node : makeChild(slot);
}

struct Bit {
    Word* word = nullptr;
    uint64_t mask = 0;
};

template <bool kMakes>
Bit find(const void* address) {
    const auto number = reinterpret_cast<uintptr_t>(address);
    if (number % (1u << kGrainBits) != 0 || uint64_t(number) >> kAddressBits != 0)
        return {};
    const uint64_t grain = uint64_t(number) >> kGrainBits;
    Directory* directory = child<kMakes>(top[grain >> (kLeafBits + kDirectoryBits)]);
    if (directory == nullptr)
        return {};
    const uint64_t leafIndex = (grain >> kLeafBits) & ((1u << kDirectoryBits) - 1);
    Leaf* leaf = child<kMakes>(directory->leaves[leafIndex]);
    if (leaf == nullptr)
        return {};
    const uint64_t bit = grain & ((1u << kLeafBits) - 1);
    return {&leaf->words[bit / 64], uint64_t(1) << (bit % 64)};
}

// Sets or clears a bit, and tells what it was. One thread alone does without a locked instruction, which would wait
// for all that it has written before.
bool put(const Bit& bit, bool isSet) {
    uint64_t word = bit.word->load(std::memory_order_relaxed);
    if (isOneThread())
        bit.word->store(isSet ? word | bit.mask : word & ~bit.mask, std::memory_order_relaxed);
    else
        word = isSet ? bit.word->fetch_or(bit.mask, std::memory_order_relaxed)
                     : bit.word->fetch_and(~bit.mask, std::memory_order_relaxed);
    return (word & bit.mask) != 0;
}

} // namespace

bool markBlock(const void* address) {
    const Bit bit = find<true>(address);
    if (bit.word == nullptr)
        return false;
    put(bit, true);
    return true;
}

bool unmarkBlock(const void* address) {
    const Bit bit = find<false>(address);
    return bit.word != nullptr && put(bit, false);
}

bool isBlock(const void* address) {
    const Bit bit = find<false>(address);
    return bit.word != nullptr && (bit.word->load(std::memory_order_relaxed) & bit.mask) != 0;
}

uint64_t countBlocks() {
    uint64_t count = 0;
    for (auto& directorySlot : top) {
        Directory* directory = directorySlot.load(std::memory_order_acquire);
        if (directory == nullptr)
            continue;
        for (auto& leafSlot : directory->leaves) {
            const Leaf* leaf = leafSlot.load(std::memory_order_acquire);
            if (leaf == nullptr)
                continue;
            for (const auto& word : leaf->words)
                count += static_cast<uint64_t>(std::popcount(word.load(std::memory_order_relaxed)));
        }
    }
    return count;
}
