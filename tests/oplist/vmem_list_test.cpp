// Lists in VMem blocks.
#include "tests/support/faults.h"
#include "tests/support/ops.h"

#include <kal/vmem.h>

namespace {

// The manager open, with a limit.
class VMemList : public FolderTest {
protected:
    VMemList() {
        KalSetMaxVMem(64 << 20);
        EXPECT_EQ(KalOpenVMem(0), 0);
    }
    ~VMemList() override {
        EXPECT_EQ(KalVMemUsed(), 0) << "blocks were left";
        EXPECT_EQ(KalCloseVMem(), 0);
    }
    HeapBalance balance_; // from before the manager to behind it
    static OpList* open(uint32_t blockSize = 0) {
        OpList* list = nullptr;
        EXPECT_EQ(KalOpenOpList(&list, nullptr, KAL_OPL_VMEM | KAL_OPL_COMPRESSED), 0);
        EXPECT_EQ(val(list->flags), KAL_OPL_VMEM);
        if (blockSize != 0)
            list->blockSize = blockSize;
        return list;
    }
};

} // namespace

TEST_F(VMemList, FillsBlocksAndLeavesFillers) {
    OpList* list = open(100);
    EXPECT_EQ(KalIsOpListEmpty(list), 1);
    EXPECT_EQ(KalSeekOp(list, 0x300000), 0) << "nothing to stand in yet";
    EXPECT_EQ(KalGetOp(list), nullptr);
    const Op first = {1, Bytes(40, 'a')}, second = {2, Bytes(48, 'b')}, third = {3, Bytes(10, 'c')};
    EXPECT_EQ(putOp(list, first), 0u);
    EXPECT_EQ(putOp(list, second), 44u) << "ends at 96: room for one more header";
    EXPECT_EQ(putOpData(list, third), 0x100000u);
    const Op large = {4, Bytes(200, 'd')};
    EXPECT_EQ(putOp(list, large), 0x200000u) << "a block of its own";
    EXPECT_EQ(val(list->curBlock->capacity), 208u);
    EXPECT_EQ(KalSeekOp(list, 0), 0);
    EXPECT_EQ(val(list->endPos), 0x300000u) << "where the end op really went";
    EXPECT_EQ(restOf(list), (std::vector<Op>{first, second, third, large}));
    EXPECT_EQ(KalGetOpError(list), 0);
    EXPECT_EQ(KalSeekOp(list, 0x100000), 0);
    EXPECT_EQ(restOf(list), (std::vector<Op>{third, large}));
    EXPECT_EQ(KalSeekEndOp(list), 0);
    EXPECT_EQ(putOp(list, first), 0x300000u);
    KalSeekOp(list, 0x100000);
    EXPECT_EQ(restOf(list), (std::vector<Op>{third, large, first}));
    KalShrinkOpList(list);
    EXPECT_EQ(val(list->curBlock->capacity), 44u + 4);
    KalSeekOp(list, 0);
    EXPECT_EQ(restOf(list).size(), 5u);
    EXPECT_EQ(KalSeekOp(list, 0x400000), -300);
    EXPECT_EQ(putOp(list, first), KAL_OP_FAILED);
    EXPECT_EQ(KalGetOp(list), nullptr);
    EXPECT_EQ(KalGetOpError(list), -300) << "until the list is closed";
    KalCloseOpList(list);
}

TEST_F(VMemList, RandomPutsGetsAndSeeksMatchAModelWhileBlocksAreSwapped) {
    KalSetMaxVMem(2 << 20);
    std::mt19937 random(3);
    OpList* list = open(64 << 10);
    std::vector<std::pair<uint32_t, Op>> model;
    for (int round = 0; round < 60; round++) {
        for (int i = 0; i < 40; i++) {
            const Op op = randomOp(random, i % 10 == 0 ? 65535 : 5000);
            const uint32_t position = random() % 2 == 0 ? putOp(list, op) : putOpData(list, op);
            ASSERT_NE(position, KAL_OP_FAILED);
            model.emplace_back(position, op);
        }
        // Read on from some place, then go back to the end, at times dropping what follows that place.
        size_t at = random() % model.size();
        ASSERT_EQ(KalSeekOp(list, int32_t(model[at].first)), 0);
        for (int i = 0; i < 30 && at < model.size(); i++, at++) {
            void* op = KalGetOp(list);
            ASSERT_NE(op, nullptr);
            const auto* bytes = static_cast<uint8_t*>(op);
            ASSERT_EQ((Op{KalOpType(op), Bytes(bytes, bytes + KalOpSize(op))}), model[at].second);
            KalFreeSMem(KalOpBlock(op));
        }
        if (round % 5 == 4)
            model.resize(at);
        else
            EXPECT_EQ(KalSeekEndOp(list), 0);
    }
    ASSERT_EQ(KalSeekOp(list, 0), 0);
    std::vector<Op> expected;
    for (const auto& [position, op] : model)
        expected.push_back(op);
    const std::vector<Op> back = restOf(list);
    EXPECT_EQ(back.size(), expected.size());
    EXPECT_TRUE(back == expected);
    KalCloseOpList(list);
}

TEST_F(VMemList, NeitherGetsNorPutsLeaveABlockWhateverStandsThere) {
    OpList* list = open(1000);
    putOp(list, {1, Bytes(100, 0xFE)});
    for (uint32_t offset : {0u, 3u, 10u, 96u, 101u, 996u, 999u, 1000u, 5000u, 0xFFFFFu}) {
        ASSERT_EQ(KalSeekOp(list, int32_t(offset)), 0);
        if (void* op = KalGetOp(list))
            KalFreeSMem(KalOpBlock(op));
        ASSERT_EQ(KalSeekOp(list, int32_t(offset)), 0);
        const uint32_t position = putOp(list, {2, Bytes(20, 'x')});
        EXPECT_EQ(position, offset + 28 <= 1000 ? offset : 0x100000) << offset;
        list->putPending = 0;
    }
    EXPECT_EQ(KalGetOpError(list), 0);
    KalCloseOpList(list);
}

TEST_F(VMemList, ManyBlocksAreSoughtAndThoseWithoutANameAreRefused) {
    OpList* list = open(64);
    std::vector<uint32_t> positions;
    for (uint32_t i = 0; i < 5000; i++)
        positions.push_back(KalPutOpData(list, 7, &i, sizeof i) == KAL_OP_FAILED ? 0
                                                                                 : uint32_t(list->pos) - 8);
    std::mt19937 random(4);
    for (int i = 0; i < 20000; i++) {
        const auto n = uint32_t(random() % positions.size());
        ASSERT_EQ(KalSeekOp(list, int32_t(positions[n])), 0);
        void* op = KalGetOp(list);
        ASSERT_NE(op, nullptr);
        uint32_t value;
        std::memcpy(&value, op, sizeof value);
        ASSERT_EQ(value, n);
        KalFreeSMem(KalOpBlock(op));
    }
    KalSeekEndOp(list);
    for (uint32_t i = 5000; i < 40000; i++) // past the 2,048 blocks that positions name
        ASSERT_NE(KalPutOpData(list, 7, &i, sizeof i), KAL_OP_FAILED);
    EXPECT_GT(val(list->blockCount), 4096);
    KalSeekOp(list, 0);
    EXPECT_EQ(restOf(list).size(), 40000u) << "read in order they are all there";
    EXPECT_EQ(KalSeekOp(list, int32_t(0x80000000)), -300);
    KalCloseOpList(list);
}

TEST_F(VMemList, ClonesHaveEveryPosition) {
    OpList* list = open(3000);
    std::mt19937 random(5);
    std::vector<Op> ops;
    for (int i = 0; i < 60; i++)
        putOp(list, ops.emplace_back(randomOp(random, 400)));
    KalSeekOp(list, 0);
    OpList* clone = nullptr;
    ASSERT_EQ(KalCloneOpList(list, &clone), 0);
    EXPECT_EQ(KalGetOp(clone), nullptr) << "it stands nowhere yet";
    for (int32_t position : {0x200000, 0x100000, 0}) {
        ASSERT_EQ(KalSeekOp(clone, position), 0);
        ASSERT_EQ(KalSeekOp(list, position), 0);
        EXPECT_EQ(restOf(clone), restOf(list));
    }
    KalCloseOpList(list);
    KalSeekOp(clone, 0);
    EXPECT_EQ(restOf(clone), ops);
    KalCloseOpList(clone);
    ASSERT_EQ(KalTempOpList(&list, 0), 0);
    EXPECT_EQ(KalCloneOpList(list, &clone), -300) << "a list in a stream has no blocks";
    EXPECT_EQ(clone, nullptr);
    KalCloseOpList(list);
}

TEST(VMemListTrouble, EachAllocationFailingGivesItsStatus) {
    withEachAllocationFailing([](int n) {
        if (KalOpenVMem(0) != 0)
            return;
        OpList* list = nullptr;
        int16_t status = KalTempOpList(&list, KAL_OPL_VMEM);
        EXPECT_TRUE(status == 0 || status == -100 || status == -105) << status << " at " << n;
        if (list == nullptr) {
            KalCloseVMem();
            return;
        }
        size_t put = 0;
        for (int i = 0; i < 3; i++)
            put += putOp(list, {1, Bytes(600000 % 65000, 'x')}) != KAL_OP_FAILED ? 1 : 0;
        KalSeekOp(list, 0);
        const size_t got = restOf(list).size();
        status = KalGetOpError(list);
        EXPECT_TRUE(status == 0 || status == -100 || status == -101 || status == -105) << status;
        if (status == 0) {
            EXPECT_EQ(got, put);
        }
        OpList* clone = nullptr;
        if (KalCloneOpList(list, &clone) == 0 && status == 0) {
            KalSeekOp(clone, 0);
            EXPECT_LE(restOf(clone).size(), put);
        }
        KalCloseOpList(clone);
        KalCloseOpList(list);
        KalCloseVMem();
    });
}

TEST(VMemListClosed, WithoutTheManagerPutsFail) {
    OpList* list = nullptr;
    ASSERT_EQ(KalOpenOpList(&list, nullptr, KAL_OPL_VMEM), 0);
    EXPECT_EQ(val(list->blockSize), 0u);
    EXPECT_EQ(putOp(list, {1, {}}), KAL_OP_FAILED);
    EXPECT_EQ(KalGetOpError(list), -101);
    KalCloseOpList(list);
}

TEST_F(VMemList, AListGoesThroughACompressedFileAndBack) {
    KalSetMaxVMem(1 << 20);
    std::mt19937 random(6);
    OpList* list = nullptr;
    ASSERT_EQ(KalTempOpList(&list, KAL_OPL_VMEM), 0);
    std::vector<Op> ops;
    for (int i = 0; i < 400; i++)
        ASSERT_NE(putOp(list, ops.emplace_back(randomOp(random, 20000))), KAL_OP_FAILED);
    KalSeekOp(list, 0);
    IOPFILE* file = nullptr;
    ASSERT_EQ(
        KalOpenIOpFile(&file, "f", KAL_MODE_CREATE | KAL_MODE_UPDATE, KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED),
        0);
    EXPECT_EQ(KalPutIOpList(file, 1, list), 0);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    KalCloseOpList(list);
    ASSERT_EQ(KalOpenIOpFile(&file, "f", 0, 0), 0);
    ASSERT_EQ(KalTempOpList(&list, KAL_OPL_VMEM), 0);
    EXPECT_EQ(KalGetIOpList(file, 1, list), 0);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    KalSeekOp(list, 0);
    EXPECT_TRUE(restOf(list) == ops);
    KalCloseOpList(list);
}
