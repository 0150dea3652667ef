// The manager beside a model of it: every block's bytes, which blocks are in memory, what is written, the counters.
#include "tests/support/faults.h"
#include "tests/support/vmem.h"

#include "memory/vmem_used.h"

#include <list>

namespace {

struct Block {
    void* handle;
    Bytes bytes = {};
    size_t used = 0; // the first bytes, which matter
    int locks = 0;
    bool isIn = false;
    bool hasCopy = false;
    bool isListed = true;
    uint32_t arrival = 0;
};

class Model {
public:
    explicit Model(uint32_t seed) : random_(seed) {
        isFull = isUnreadable = false;
        written = told = 0;
        KalSetVMemErrorHandler([] { told++; });
        hostCalls.write = [](int fd, const void* bytes, size_t count) {
            written += isFull ? 0 : 1;
            return isFull ? (errno = ENOSPC, ssize_t(-1)) : ::write(fd, bytes, count);
        };
        hostCalls.read = [](int fd, void* bytes, size_t count) {
            return isUnreadable ? (errno = EIO, ssize_t(-1)) : ::read(fd, bytes, count);
        };
    }

    void step() {
        const auto chosen = std::next(blocks_.begin(), long(random_() % (blocks_.size() + 1)));
        const auto size = static_cast<uint32_t>(random_() % 9 == 0 ? 0 : random_() % 30000 + 1);
        if (chosen == blocks_.end() || random_() % 4 == 0)
            return allocate(size);
        Block& block = *chosen;
        switch (random_() % 12) {
        case 0:
            return resize(block, size);
        case 1:
        case 2:
            block.locks += lock(block, 0) ? 1 : 0;
            return;
        case 3:
        case 4:
            KalUnLockVMem(block.handle); // one too many is nothing
            block.locks = std::max(0, block.locks - 1);
            return;
        case 5:
            countUsed(block.bytes.size(), 0);
            KalFreeVMem(block.handle);
            EXPECT_EQ(KalLockVMem(block.handle), nullptr);
            blocks_.erase(chosen);
            return;
        case 6: // a caller takes it out of the list: nobody swaps it out; or puts it back as the newest
            EXPECT_EQ(block.isListed ? KalDeleteLRU(block.handle) + KalDeleteLRU(block.handle)
                                     : KalAddLRU(block.handle),
                      KAL_OK);
            block.isListed = !block.isListed;
            block.arrival = ++clock_;
            return blocks_.splice(blocks_.end(), blocks_, chosen);
        case 7:
            limit_ = uint32_t(random_() % 200000 + 1);
            isFull = random_() % 3 == 0;
            isUnreadable = random_() % 5 == 0;
            return KalSetMaxVMem(limit_);
        case 8: // whatever they are, all bytes matter; a block that is out does not change
            KalMarkDirtyVMem(block.handle);
            return block.isIn ? matter(block, block.bytes.size()) : void();
        default:
            const size_t most = random_() % 2 == 0 ? block.bytes.size() : block.used + random_() % 5000;
            const size_t end = std::min(block.bytes.size(), most);
            if (!lock(block, end))
                return;
            end == block.bytes.size() ? KalMarkDirtyVMem(block.handle)
                                      : markUsedVMem(block.handle, uint32_t(end));
            matter(block, end);
            KalUnLockVMem(block.handle);
        }
    }

    void check() {
        const auto* state = static_cast<const vmemstate*>(KalGetTaskData(6));
        ASSERT_EQ(written, writes_) << "copies written";
        ASSERT_EQ(told, told_) << "the handler";
        ASSERT_EQ(state->swapFailed != 0, swapFailed_);
        ASSERT_EQ(val(state->bytesResident), int32_t(resident()));
        ASSERT_EQ(KalVMemUsed(), int32_t(used_));
        ASSERT_EQ(KalMaxVMem(), int32_t(std::max(peak_, 2097152u)));
        ASSERT_EQ(KalIsSListGood(state->lruList), 1);
        KalNodeHeader* node = state->lruList->last;
        for (const Block& block : blocks_) {
            ASSERT_EQ(GlobalSize(block.handle), block.isIn ? block.bytes.size() : 0) << "in memory or not";
            const auto id = static_cast<uint16_t>(reinterpret_cast<uintptr_t>(block.handle));
            const vitem* copy = KalFindVItem(state->swapFile, id);
            ASSERT_EQ(copy != nullptr ? copy->size : 0, block.hasCopy ? std::max<size_t>(block.used, 1) : 0);
            if (block.isListed) {
                ASSERT_TRUE(node != nullptr && *reinterpret_cast<void**>(node + 1) == block.handle);
                node = node->prev;
            }
        }
        ASSERT_EQ(node, nullptr);
    }

    // With what has left memory while the oldest block stayed.
    void fillQueue() {
        KalSetMaxVMem(UINT32_MAX);
        countUsed(0, 1);
        countUsed(1, 0);
        for (int i = 0; i < 140000; i++)
            KalFreeVMem(KalAllocVMem(2, 1));
        KalSetMaxVMem(limit_);
    }

    void finish() {
        isUnreadable = false;
        for (Block& block : blocks_) {
            lock(block, 0);
            if (!block.isListed)
                KalFreeVMem(block.handle);
        }
    }

private:
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
            const bool fails = isFull && !oldest->hasCopy;
            told_ += fails && !swapFailed_ ? 1 : 0; // once, and again only after one has gone out
            swapFailed_ = fails;
            if (fails)
                return;
            writes_ += oldest->hasCopy ? 0 : 1;
            oldest->hasCopy = true;
            oldest->isIn = false;
        }
    }
    // Locks a block, compares it, and fills it up to `end`. Whether it has bytes.
    bool lock(Block& block, size_t end) {
        if (!block.isIn && !block.bytes.empty()) {
            makeRoom(block.bytes.size());
            block.isIn = !isUnreadable;
            block.arrival = ++clock_;
        }
        auto* bytes = static_cast<uint8_t*>(KalLockVMem(block.handle));
        EXPECT_EQ(bytes == nullptr, !block.isIn);
        if (bytes == nullptr)
            return false;
        EXPECT_EQ(std::memcmp(bytes, block.bytes.data(), block.used), 0) << "what came back";
        const Bytes fresh = randomBytes(end, uint32_t(random_()));
        std::copy(fresh.begin(), fresh.end(), bytes);
        return true;
    }
    // The bytes up to `end` matter now, and the copy no longer counts.
    void matter(Block& block, size_t end) {
        block.used = std::max(block.used, end);
        block.hasCopy = false;
        const auto* bytes = static_cast<const uint8_t*>(GlobalLock(block.handle));
        block.bytes.assign(bytes, bytes + block.bytes.size());
        GlobalUnlock(block.handle);
    }
    void allocate(uint32_t size) {
        const bool isFilledBitByBit = random_() % 2 == 0;
        makeRoom(size);
        blocks_.push_back({isFilledBitByBit ? allocateUnusedVMem(size) : KalAllocVMem(2, size)});
        Block& block = blocks_.back();
        settle(block, size, isFilledBitByBit ? 0 : size);
        block.arrival = ++clock_;
    }
    void resize(Block& block, uint32_t size) {
        const size_t old = block.bytes.size();
        if (lock(block, 0))
            KalUnLockVMem(block.handle);
        size += block.locks > 0 && size > old ? 1 << 20 : 0; // no place has room for so much
        const bool isOut = !block.isIn && old > 0;
        const bool isRefused = isOut || (block.locks > 0 && (size > old || size == 0));
        if (!isRefused && size > old)
            makeRoom(size - old, &block);
        ASSERT_EQ(KalReAllocVMem(block.handle, size), isRefused ? nullptr : block.handle);
        if (isRefused)
            return;
        block.arrival = old == 0 ? ++clock_ : block.arrival;
        settle(block, size, size);
    }
    void settle(Block& block, uint32_t size, size_t used) {
        countUsed(block.bytes.size(), size);
        block.bytes.resize(size);
        block.isIn = size > 0;
        block.hasCopy = false;
        block.used = std::min(block.used, used);
        if (block.isIn)
            matter(block, used);
    }

    std::mt19937 random_;
    uint32_t limit_ = 100000, used_ = 0, peak_ = 0, clock_ = 0;
    int writes_ = 0, told_ = 0;
    bool swapFailed_ = false;
    static inline int written, told; // what the host was asked for, and the handler
    // The disk: what cannot be written stays in memory, what cannot be read keeps its copy.
    static inline bool isFull, isUnreadable;
    const HostCallGuard guard_;
    std::list<Block> blocks_;
};

} // namespace

using VMemModelTest = VMemFixture;

TEST_F(VMemModelTest, CountersOrderAndBytesHoldThroughAnySequence) {
    for (uint32_t seed = firstSeed(), end = seed + 6; seed != end; seed++) {
        open(100000);
        Model model(seed);
        for (int step = 0; step < 700 && !HasFailure(); step++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            step == 300 ? model.fillQueue() : model.step();
            model.check();
        }
        model.finish();
        EXPECT_EQ(KalCloseVMem(), KAL_OK);
    }
}
