// The manager beside a model of it: every block's bytes, which blocks are in memory, what is written, the counters.
#include "tests/support/faults.h"
#include "tests/support/vmem.h"

#include "memory/vmem_used.h"

#include <kal/heap.h>

#include <list>
#include <random>

namespace {

struct Block {
    void* handle;
    Bytes bytes;
    size_t used; // the first bytes, which matter
    int locks = 0;
    bool isIn = false;
    bool hasCopy = false;
    bool isListed = true;
    uint32_t arrival = 0;
};

class Model {
public:
    explicit Model(uint32_t seed) : random_(seed) {}
    ~Model() {
        for (const Block& block : blocks_)
            if (!block.isListed)
                KalFreeVMem(block.handle);
    }

    void step() {
        Block* block = any();
        const uint32_t size = random_() % 9 == 0 ? 0 : uint32_t(random_() % 30000 + 1);
        if (block == nullptr || random_() % 4 == 0)
            return allocate(size);
        switch (random_() % 12) {
        case 0:
            return resize(*block, size);
        case 1:
        case 2:
            return lock(*block);
        case 3:
        case 4:
            KalUnLockVMem(block->handle); // one too many is nothing
            block->locks = std::max(0, block->locks - 1);
            return;
        case 5:
            return free(*block);
        case 6:
            return markDirty(*block);
        case 7:
            return relist(*block);
        case 8:
            limit_ = uint32_t(random_() % 200000 + 1);
            return KalSetMaxVMem(limit_);
        default:
            change(*block);
        }
    }

    // With `writes` copies written so far.
    void check(int64_t writes) {
        const auto* state = static_cast<const vmemstate*>(KalGetTaskData(6));
        ASSERT_EQ(writes, writes_) << "copies written";
        ASSERT_EQ(val(state->bytesResident), int32_t(resident()));
        ASSERT_EQ(KalVMemUsed(), int32_t(used_));
        ASSERT_EQ(KalMaxVMem(), int32_t(std::max(peak_, 2097152u)));
        ASSERT_EQ(KalIsSListGood(state->lruList), 1);
        KalNodeHeader* node = state->lruList->last;
        for (const Block& block : blocks_) {
            ASSERT_EQ(GlobalSize(block.handle), block.isIn ? block.bytes.size() : 0) << "in memory or not";
            const vitem* copy =
                KalFindVItem(state->swapFile, uint16_t(reinterpret_cast<uintptr_t>(block.handle)));
            ASSERT_EQ(copy != nullptr, block.hasCopy);
            if (copy != nullptr) {
                ASSERT_EQ(val(copy->size), std::max<size_t>(block.used, 1)) << "no more than what matters";
            }
            if (!block.isListed)
                continue;
            ASSERT_NE(node, nullptr);
            ASSERT_EQ(*reinterpret_cast<void**>(node + 1), block.handle) << "the order of allocation";
            node = node->prev;
        }
        ASSERT_EQ(node, nullptr);
    }

    void checkAllBytes() {
        for (Block& block : blocks_)
            lock(block);
    }

private:
    Block* any() {
        return blocks_.empty() ? nullptr : &*std::next(blocks_.begin(), long(random_() % blocks_.size()));
    }
    uint32_t resident() const {
        size_t bytes = 0;
        for (const Block& block : blocks_)
            bytes += block.isIn ? block.bytes.size() : 0;
        return uint32_t(bytes);
    }
    void countUsed(size_t gone, size_t come) {
        used_ += uint32_t(come - gone);
        peak_ = std::max(peak_, used_);
    }
    // The block that has been in memory longest goes, unless it is locked; a copy that is there is not written again.
    void makeRoom(size_t bytes, const Block* stays = nullptr) {
        while (resident() + bytes > limit_) {
            Block* oldest = nullptr;
            for (Block& block : blocks_)
                if (block.isIn && block.locks == 0 && block.isListed && &block != stays &&
                    (oldest == nullptr || block.arrival < oldest->arrival))
                    oldest = &block;
            if (oldest == nullptr)
                return;
            writes_ += oldest->hasCopy ? 0 : 1;
            oldest->hasCopy = true;
            oldest->isIn = false;
        }
    }
    void bringIn(Block& block) {
        if (block.isIn || block.bytes.empty())
            return;
        makeRoom(block.bytes.size());
        block.isIn = true;
        block.arrival = ++clock_;
    }
    void allocate(uint32_t size) {
        const bool isFilledBitByBit = random_() % 2 == 0;
        makeRoom(size);
        blocks_.push_back(
            {isFilledBitByBit ? allocateUnusedVMem(size) : KalAllocVMem(2, size), Bytes(size), 0});
        Block& block = blocks_.back();
        ASSERT_NE(block.handle, nullptr);
        block.isIn = size > 0;
        block.arrival = ++clock_;
        countUsed(0, size);
        write(block, isFilledBitByBit ? 0 : size);
        block.used = isFilledBitByBit ? 0 : size;
        KalUnLockVMem(block.handle);
    }
    void write(Block& block, size_t end) {
        if (block.bytes.empty())
            return;
        bringIn(block);
        auto* bytes = static_cast<uint8_t*>(KalLockVMem(block.handle));
        ASSERT_NE(bytes, nullptr);
        ASSERT_EQ(std::memcmp(bytes, block.bytes.data(), block.used), 0) << "what came back";
        const Bytes fresh = randomBytes(end, uint32_t(random_()));
        std::copy(fresh.begin(), fresh.end(), bytes);
        std::copy(fresh.begin(), fresh.end(), block.bytes.begin());
        block.hasCopy = false;
    }
    void change(Block& block) {
        if (block.bytes.empty())
            return;
        const bool isWhole = random_() % 2 == 0;
        const size_t end =
            isWhole ? block.bytes.size() : std::min(block.bytes.size(), block.used + random_() % 5000);
        write(block, end);
        isWhole ? KalMarkDirtyVMem(block.handle) : markUsedVMem(block.handle, uint32_t(end));
        block.used = std::max(block.used, end);
        KalUnLockVMem(block.handle);
    }
    // All bytes matter now, whatever they are. What is out is not changed by it.
    void markDirty(Block& block) {
        KalMarkDirtyVMem(block.handle);
        if (!block.isIn)
            return;
        const auto* bytes = static_cast<const uint8_t*>(KalLockVMem(block.handle));
        block.bytes.assign(bytes, bytes + block.bytes.size());
        block.used = block.bytes.size();
        block.hasCopy = false;
        KalUnLockVMem(block.handle);
    }
    void lock(Block& block) {
        bringIn(block);
        const void* bytes = KalLockVMem(block.handle);
        ASSERT_EQ(bytes == nullptr, block.bytes.empty());
        if (bytes == nullptr)
            return;
        block.locks++;
        ASSERT_EQ(std::memcmp(bytes, block.bytes.data(), block.used), 0);
    }
    void resize(Block& block, uint32_t size) {
        const size_t old = block.bytes.size();
        bringIn(block);
        if (block.locks > 0 && size > old)
            size += 1 << 20; // no place has room for so much
        const bool isRefused = block.locks > 0 && (size > old || size == 0);
        if (!isRefused && size > old)
            makeRoom(size - old, &block);
        ASSERT_EQ(KalReAllocVMem(block.handle, size), isRefused ? nullptr : block.handle);
        if (isRefused)
            return;
        countUsed(old, size);
        block.bytes.resize(size);
        block.used = std::min<size_t>(block.used, size);
        block.isIn = size > 0;
        block.arrival = old == 0 ? ++clock_ : block.arrival;
        block.hasCopy = false;
        write(block, size);
        block.used = size;
        KalUnLockVMem(block.handle);
    }
    void free(Block& block) {
        KalFreeVMem(block.handle);
        EXPECT_EQ(KalLockVMem(block.handle), nullptr);
        countUsed(block.bytes.size(), 0);
        blocks_.remove_if([&](const Block& other) { return &other == &block; });
    }
    // A caller takes a block out of the list: it stays in memory, and nobody swaps it out; or puts it back as the newest.
    void relist(Block& block) {
        EXPECT_EQ(block.isListed ? KalDeleteLRU(block.handle) : KalAddLRU(block.handle), 0);
        block.isListed = !block.isListed;
        if (!block.isListed)
            return;
        block.arrival = ++clock_;
        blocks_.splice(
            blocks_.end(), blocks_,
            std::find_if(blocks_.begin(), blocks_.end(), [&](const Block& b) { return &b == &block; }));
    }

    std::mt19937 random_;
    uint32_t limit_ = 100000;
    uint32_t used_ = 0;
    uint32_t peak_ = 0;
    uint32_t clock_ = 0;
    int64_t writes_ = 0;
    std::list<Block> blocks_;
};

} // namespace

class VMemModelTest : public VMemFixture {};

TEST_F(VMemModelTest, CountersOrderAndBytesHoldThroughAnySequence) {
    HeapBalance balance;
    for (uint32_t seed = firstSeed(), end = seed + 6; seed != end; seed++) {
        open(100000);
        for (int i = 0; i < 130700; i++) // the row of arrivals comes to its end in the midst of the sequence
            KalFreeVMem(KalAllocVMem(2, 1));
        {
            Model model(seed);
            const HostCallCounter host;
            for (int step = 0; step < 700 && !HasFailure(); step++) {
                SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
                model.step();
                model.check(host.writes());
            }
            model.checkAllBytes();
        }
        EXPECT_EQ(KalCloseVMem(), 0);
    }
}
