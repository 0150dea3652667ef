#include "tests/support/faults.h"
#include "tests/support/vmem.h"

#include "memory/vmem_manager.h"

#include <kal/path.h>
#include <kal/tagset.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <random>
#include <set>
#include <thread>

class VMemTest : public VMemFixture {};

TEST_F(VMemTest, OpensOnceATaskAndCloseFreesWhatIsLeft) {
    HeapBalance balance;
    EXPECT_EQ(KalAllocVMem(2, 10), nullptr);
    EXPECT_EQ(KalReAllocVMem(nullptr, 10), nullptr);
    EXPECT_EQ(KalLockVMem(nullptr), nullptr);
    EXPECT_EQ(KalVMemUsed() + KalMaxVMem() + KalGetVMemSize() + KalCloseVMem(), 0);
    EXPECT_EQ(KalAddLRU(&balance) + KalDeleteLRU(&balance) + KalOpenLRUVList() + KalCloseLRUVList(), 0);

    ASSERT_EQ(KalOpenVMem(7), 0);
    EXPECT_EQ(KalOpenVMem(7), -101);
    EXPECT_EQ(KalGetVMemSize(), 1048576);
    EXPECT_EQ(KalMaxVMem(), 2097152);
    EXPECT_EQ(KalVMemUsed(), 0);
    void* first = KalAllocVMem(2, 1000);
    void* second = KalAllocVMem(2, 3000);
    EXPECT_EQ(KalVMemUsed(), 4000);
    std::thread([] { // another task knows nothing of it
        EXPECT_EQ(KalVMemUsed(), 0);
        EXPECT_EQ(KalOpenVMem(0), 0);
        EXPECT_EQ(KalCloseVMem(), 0);
    })
        .join();
    KalFreeVMem(first);
    EXPECT_EQ(KalVMemUsed(), 3000);
    KalFreeVMem(first); // dead handles are nothing
    KalMarkDirtyVMem(first);
    EXPECT_EQ(KalReAllocVMem(first, 50), nullptr);
    EXPECT_EQ(KalLockVMem(first), nullptr);
    EXPECT_EQ(KalVMemUsed(), 3000);
    EXPECT_EQ(KalReAllocVMem(second, 3000000), second);
    EXPECT_EQ(KalVMemUsed(), 3000000);
    EXPECT_EQ(KalMaxVMem(), 3000000);
    EXPECT_EQ(KalCloseVMem(), 0);
    EXPECT_EQ(KalVMemUsed() + KalMaxVMem(), 0);
    EXPECT_EQ(KalLockVMem(second), nullptr);

    HGLOBAL loose = GlobalAlloc(GMEM_MOVEABLE, 10); // freed though no manager is open
    KalFreeVMem(loose);
    EXPECT_EQ(GlobalSize(loose), 0u);
}

TEST_F(VMemTest, ProbesForTheLargestBlockThatCanBeHad) {
    HostCallGuard guard;
    hostCalls.mmap = [](void* at, size_t size, int protection, int flags, int fd, off_t offset) {
        errno = ENOMEM;
        return size > (1 << 20) ? MAP_FAILED : ::mmap(at, size, protection, flags, fd, offset);
    };
    trimGlobalMemory(0);
    ASSERT_EQ(KalOpenVMem(0), 0);
    EXPECT_EQ(KalGetVMemSize(), 524288);
    KalCloseVMem();
    HeapBalance balance;
    failHeapAllocationsFrom(6); // beyond state, swap file and LRU list nothing can be had
    EXPECT_LT(KalOpenVMem(0), 0);
    failHeapAllocation(0);
    EXPECT_EQ(currentManager(), nullptr);
}

namespace {

struct Block {
    void* handle;
    Bytes bytes;
    int locks = 0;
    uint32_t arrived = 0;     // the step in which it came into memory
    bool arrivalKnown = true; // not for a block that had no bytes at first
    bool out() const { return !bytes.empty() && GlobalSize(handle) == 0; }
};

// The manager beside a model of it: every block's bytes, the order of allocation, and what must always hold.
class ManagerModel {
public:
    explicit ManagerModel(uint32_t seed) : random_(seed), seed_(seed) {}

    void step(uint32_t number) {
        SCOPED_TRACE("seed " + std::to_string(seed_) + " step " + std::to_string(number));
        const std::set<void*> outBefore = outNow();
        resized_ = nullptr;
        step_ = number;
        switch (random_() % 8) {
        case 0:
        case 1:
            allocate();
            break;
        case 2:
            if (Block* block = any()) {
                EXPECT_EQ(KalReAllocVMem(block->handle, 0) == nullptr, block->locks > 0);
                if (block->locks == 0)
                    block->bytes.clear();
            }
            break;
        case 3:
            resize(any());
            break;
        case 4:
            lock(any());
            break;
        case 5:
            if (Block* block = any(); block != nullptr && block->locks > 0) {
                KalUnLockVMem(block->handle);
                block->locks--;
            }
            break;
        case 6:
            if (random_() % 2 == 0)
                free(any());
            break;
        default:
            change(any());
        }
        check(outBefore);
    }

    void checkAllBytes() {
        for (Block& block : blocks_) {
            const void* bytes = KalLockVMem(block.handle);
            ASSERT_EQ(bytes == nullptr, block.bytes.empty());
            if (bytes != nullptr) {
                ASSERT_EQ(std::memcmp(bytes, block.bytes.data(), block.bytes.size()), 0);
            }
            KalUnLockVMem(block.handle);
        }
    }

private:
    std::set<void*> outNow() const {
        std::set<void*> out;
        for (const Block& block : blocks_)
            if (block.out())
                out.insert(block.handle);
        return out;
    }
    Block* any() {
        return blocks_.empty() ? nullptr : &*std::next(blocks_.begin(), long(random_() % blocks_.size()));
    }
    uint32_t anySize() { return static_cast<uint32_t>(random_() % 9 == 0 ? 0 : random_() % 30000 + 1); }

    void allocate() {
        const uint32_t size = anySize();
        const Block block{KalAllocVMem(2, size), Bytes(size), 0, step_, size > 0};
        ASSERT_NE(block.handle, nullptr);
        blocks_.push_back(block);
        change(&blocks_.back());
    }
    void change(Block* block) {
        if (block == nullptr || block->bytes.empty())
            return;
        block->bytes = randomBytes(block->bytes.size(), uint32_t(random_()));
        void* bytes = KalLockVMem(block->handle);
        ASSERT_NE(bytes, nullptr);
        std::memcpy(bytes, block->bytes.data(), block->bytes.size());
        KalMarkDirtyVMem(block->handle);
        KalUnLockVMem(block->handle);
    }
    void lock(Block* block) {
        if (block == nullptr || block->bytes.empty())
            return;
        const void* bytes = KalLockVMem(block->handle);
        ASSERT_NE(bytes, nullptr);
        ASSERT_EQ(std::memcmp(bytes, block->bytes.data(), block->bytes.size()), 0);
        block->locks++;
    }
    void resize(Block* block) {
        if (block == nullptr)
            return;
        const uint32_t size = anySize() + 1;
        const auto old = block->bytes.size();
        const bool done = KalReAllocVMem(block->handle, size) == block->handle;
        resized_ = block->handle;
        ASSERT_TRUE(done || (block->locks > 0 && size > old)) << "a locked block has no way to grow";
        if (!done)
            return;
        if (old == 0)
            block->arrivalKnown = false;
        block->bytes.resize(size);
        void* bytes = KalLockVMem(block->handle);
        ASSERT_EQ(std::memcmp(bytes, block->bytes.data(), std::min<size_t>(old, size)), 0);
        std::memcpy(bytes, block->bytes.data(), size);
        KalUnLockVMem(block->handle);
    }
    void free(Block* block) {
        if (block == nullptr)
            return;
        KalFreeVMem(block->handle);
        blocks_.remove_if([=](const Block& other) { return &other == block; });
    }

    void check(const std::set<void*>& outBefore) {
        const vmemstate& state = currentManager()->state;
        uint32_t used = 0, resident = 0, locked = 0;
        uint32_t longest = UINT32_MAX; // when the unlocked block that has been in memory longest arrived
        uint32_t latestGone = 0;       // when the latest of those that went in this step had arrived
        KalNodeHeader* node = state.lruList->last;
        for (Block& block : blocks_) {
            ASSERT_NE(node, nullptr);
            ASSERT_EQ(reinterpret_cast<LruNode*>(node + 1)->handle, block.handle)
                << "the order of allocation";
            node = node->prev;
            const auto size = static_cast<uint32_t>(block.bytes.size());
            used += size;
            if (block.out()) {
                ASSERT_EQ(block.locks, 0);
                vitem* copy =
                    KalFindVItem(state.swapFile, uint16_t(reinterpret_cast<uintptr_t>(block.handle)));
                ASSERT_NE(copy, nullptr);
                ASSERT_EQ(val(copy->size), size);
                if (!outBefore.contains(block.handle) && block.arrivalKnown)
                    latestGone = std::max(latestGone, block.arrived);
                continue;
            }
            resident += size;
            locked += block.locks > 0 ? size : 0;
            // What was resized or came back in this step stayed while the others went.
            if (outBefore.contains(block.handle)) {
                block.arrived = step_;
                block.arrivalKnown = true;
            }
            if (size > 0 && block.locks == 0 && block.handle != resized_ && block.arrivalKnown)
                longest = std::min(longest, block.arrived);
        }
        EXPECT_LE(latestGone, longest) << "a block went before one that had been in memory longer";
        EXPECT_EQ(node, nullptr);
        EXPECT_EQ(val(state.bytesUsed), int32_t(used));
        EXPECT_EQ(val(state.bytesResident), int32_t(resident));
        EXPECT_LE(resident, std::max(vmemLimit(), locked + 2 * 30001)) << "more is in memory than must be";
        peak_ = std::max(peak_, used);
        EXPECT_GE(val(state.bytesPeak), int32_t(peak_));
        EXPECT_EQ(KalIsSListGood(state.lruList), 1);
        uint32_t end = 0;
        for (KalNodeHeader* extent = state.swapFile->items->first; extent != nullptr; extent = extent->next) {
            auto* item = reinterpret_cast<vitem*>(extent + 1);
            ASSERT_EQ(val(item->offset), end) << "the extents leave a gap";
            end += item->size;
        }
    }

    std::mt19937 random_;
    uint32_t seed_;
    uint32_t step_ = 0;
    uint32_t peak_ = 0;
    void* resized_ = nullptr;
    std::list<Block> blocks_;
};

} // namespace

TEST_F(VMemTest, CountersOrderAndBytesHoldThroughAnySequence) {
    HeapBalance balance;
    for (uint32_t seed = 1; seed <= 4; seed++) {
        KalSetMaxVMem(seed * 100000);
        ASSERT_EQ(KalOpenVMem(0), 0);
        ManagerModel model(seed);
        for (uint32_t number = 0; number < 800 && !HasFailure(); number++)
            model.step(number);
        model.checkAllBytes();
        EXPECT_EQ(KalCloseVMem(), 0);
    }
}

TEST_F(VMemTest, AValidCopyIsNotWrittenAgain) {
    open(20000);
    void* first = make(10000, 1);
    void* second = make(10000, 2);
    void* third = make(10000, 3); // first goes out
    EXPECT_EQ(GlobalSize(first), 0u);
    HostCallCounter host;
    expect(first, 10000, 1); // second goes out
    EXPECT_EQ(host.writes(), 1);
    expect(second, 10000, 2); // third goes out: first has just come back
    EXPECT_EQ(host.writes(), 2);
    expect(third, 10000, 3); // first goes again, its copy stands
    EXPECT_EQ(host.writes(), 2);
    KalMarkDirtyVMem(first); // it is out: the copy is all there is
    expect(first, 10000, 1);
    fill(first, 10000, 4); // changed in memory
    expect(second, 10000, 2);
    EXPECT_EQ(host.writes(), 2);
    expect(third, 10000, 3); // first goes
    EXPECT_EQ(host.writes(), 3);
    EXPECT_EQ(KalReAllocVMem(first, 12000), first);
    expect(first, 10000, 4);
    expect(third, 10000, 3);
    void* big = make(50000, 6); // larger than the limit: no refusal
    expect(big, 50000, 6);
}

static int handlerCalls;

TEST_F(VMemTest, AFullDiskCallsTheHandlerOnceAndLosesNothing) {
    // Room for a copy of every block: those in memory keep theirs while they are not changed.
    TinyFileSystem tiny(path("tiny"), 576 << 10);
    if (!tiny.mounted())
        GTEST_SKIP() << "this process may not mount";
    writeFile(path("tiny/filler"), Bytes(384 << 10));
    KalSetVMemTemp(path("tiny").c_str());
    handlerCalls = 0;
    open(100000);
    KalSetVMemErrorHandler([] { handlerCalls++; });
    std::vector<void*> blocks;
    const auto sizeOf = [](size_t number) { return uint32_t(10000 + number % 7); };
    const auto makeSome = [&](int count) {
        for (; count > 0; count--)
            blocks.push_back(make(sizeOf(blocks.size()), uint32_t(blocks.size())));
    };
    const auto expectAll = [&] {
        for (size_t i = 0; i < blocks.size(); i++)
            expect(blocks[i], sizeOf(i), uint32_t(i));
    };
    makeSome(42);
    const vmemstate& state = currentManager()->state;
    EXPECT_EQ(handlerCalls, 1);
    EXPECT_EQ(val(state.swapFailed), 1);
    EXPECT_GT(val(state.bytesResident), 200000) << "what does not fit the disk stays in memory";
    expectAll();
    EXPECT_EQ(handlerCalls, 1);
    ::unlink(path("tiny/filler").c_str()); // room returns
    makeSome(1);
    EXPECT_EQ(val(state.swapFailed), 0);
    EXPECT_LE(val(state.bytesResident), 100000 + 10006);
    expectAll();
    EXPECT_EQ(handlerCalls, 1);
    makeSome(50);
    EXPECT_EQ(handlerCalls, 2) << "full once more";
    expectAll();
    KalCloseVMem();
    KalTempPath(nullptr);
}

static std::vector<void*> handlerBlocks;

TEST_F(VMemTest, TheHandlerMayFreeBlocksAndEvenClose) {
    HeapBalance balance;
    for (const bool closes : {false, true}) {
        HostCallGuard guard;
        open(20000);
        handlerBlocks = {make(9000, 1), make(9000, 2)};
        KalSetVMemErrorHandler(closes ? [] { (void)KalCloseVMem(); } : [] {
            for (void* block : handlerBlocks)
                KalFreeVMem(block);
        });
        hostCalls.write = [](int, const void*, size_t) {
            errno = ENOSPC;
            return ssize_t(-1);
        };
        EXPECT_EQ(KalAllocVMem(2, 9000) == nullptr, closes);
        KalCloseVMem();
    }
}

TEST_F(VMemTest, ABlockThatCannotBeReadBackIsNullAndKeepsItsCopy) {
    open(20000);
    void* first = make(15000, 1);
    make(15000, 2);
    const int32_t resident = currentManager()->state.bytesResident;
    {
        HostCallGuard guard;
        hostCalls.read = [](int, void*, size_t) {
            errno = EIO;
            return ssize_t(-1);
        };
        EXPECT_EQ(KalLockVMem(first), nullptr);
        EXPECT_EQ(KalReAllocVMem(first, 20000), nullptr);
    }
    EXPECT_LE(val(currentManager()->state.bytesResident), resident);
    EXPECT_EQ(KalVMemUsed(), 30000);
    failHeapAllocationsFrom(1);
    EXPECT_EQ(KalLockVMem(first), nullptr) << "the tries are bounded";
    failHeapAllocation(0);
    expect(first, 15000, 1);
}

TEST_F(VMemTest, NothingLeaksWithEachAllocationFailing) {
    KalSetMaxVMem(30000);
    const int met = withEachAllocationFailing([this](int) {
        if (KalOpenVMem(0) != 0)
            return;
        void* blocks[6];
        for (uint32_t i = 0; i < 6; i++)
            if ((blocks[i] = KalAllocVMem(2, 10000)) != nullptr)
                fill(blocks[i], 10000, i);
        KalReAllocVMem(blocks[1], 14000);
        for (uint32_t i = 0; i < 6; i++)
            if (const void* bytes = KalLockVMem(blocks[i]); bytes != nullptr) {
                EXPECT_EQ(std::memcmp(bytes, pattern(10000, i).data(), 10000), 0) << "block " << i;
            }
        for (void* block : blocks)
            KalUnLockVMem(block);
        make(10000, 9);
        EXPECT_EQ(KalIsSListGood(currentManager()->state.lruList), 1);
        EXPECT_EQ(KalCloseVMem(), 0);
    });
    EXPECT_GT(met, 20);
}

TEST_F(VMemTest, TheLruListServesAnyHandle) {
    open(0);
    int a = 0, b = 0; // no blocks: the list holds what it is given
    EXPECT_EQ(KalAddLRU(&a) + KalAddLRU(&b) + KalAddLRU(&a), 0);
    slisthd* list = currentManager()->state.lruList;
    void* wanted = &b;
    void* node = KalSPeekList(list, KalFindLRUNode, &wanted);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(KalDeleteLRU(&a), 0); // the newer of the two
    EXPECT_EQ(reinterpret_cast<void*>(list->first + 1), node);
    EXPECT_EQ(KalDeleteLRU(&list), 0) << "not in the list";
    EXPECT_EQ(KalSCountList(list), 2);
    EXPECT_EQ(KalDeleteLRU(&a), 0);
    EXPECT_EQ(KalLRUNewest(&b) + KalDiscardLRUOldest() + KalOpenLRUVList(), 0);
    EXPECT_EQ(KalSCountList(list), 1);
}

TEST_F(VMemTest, EveryLiveBlockIsFoundWithoutAWalkAmongSixtyThousand) {
    open(0);
    LruList* list = lruListOf(currentManager());
    std::mt19937 random(1);
    for (int order = 0; order < 3; order++) { // freed oldest first, newest first, at random
        std::vector<void*> blocks(60000);
        for (void*& block : blocks)
            ASSERT_NE(block = KalAllocVMem(2, 64), nullptr);
        for (void* block : blocks)
            ASSERT_EQ(list->byId[itemIdOf(block)]->handle, block);
        order == 1 ? std::reverse(blocks.begin(), blocks.end()) : void();
        if (order == 2)
            std::shuffle(blocks.begin(), blocks.end(), random);
        for (void* block : blocks)
            KalFreeVMem(block);
        EXPECT_EQ(KalVMemUsed(), 0);
        EXPECT_EQ(list->list.first, nullptr);
    }
    EXPECT_EQ(list->nodes, 60000u) << "nodes are used again";
}

TEST_F(VMemTest, FreeMemoryKeepsAReserve) {
    HostCallGuard guard;
    hostCalls.open = [](const char* name, int flags, mode_t mode) {
        return ::open(std::strcmp(name, "/proc/meminfo") == 0 ? "meminfo" : name, flags, mode);
    };
    writeFile("meminfo", bytesOf("MemAvailable: 4000 kB"));
    EXPECT_EQ(KalGetFreeSystemMemory(), 4000u * 1024 - 2200000);
    writeFile("meminfo", bytesOf("MemAvailable: 2000 kB"));
    EXPECT_EQ(KalGetFreeSystemMemory(), 2000u * 1024);
    KalSetMaxVMem(0);
    ASSERT_EQ(KalOpenVMem(0), 0);
    EXPECT_EQ(vmemLimit(), 2000u * 1024) << "never set, so it is what is free";

    for (const char* place : {"KAL_REGISTRY", "XDG_RUNTIME_DIR"})
        ::setenv(place, path("").c_str(), 1);
    TagSet options;
    ASSERT_EQ(options.SetPath("Options", 1), 0);
    KalSetMemManOptions(&options);
    EXPECT_EQ(vmemLimit(), 2000u * 1024) << "without the tag what is free";
    writeFile("meminfo", bytesOf("MemAvailable: 3000 kB"));
    KalSetMemManOptions(&options);
    EXPECT_EQ(vmemLimit(), 1500000u) << "but no less than this";
    options.SetTag("VMEMMAX", "4000000");
    KalSetMemManOptions(&options);
    EXPECT_EQ(vmemLimit(), 4000000u);
    for (const char* place : {"KAL_REGISTRY", "XDG_RUNTIME_DIR"})
        ::unsetenv(place);
}
