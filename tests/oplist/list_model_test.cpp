// Lists in streams and in blocks against a model: the ops in order, and where each was put.
#include "tests/oplist/lists.h"

namespace {

using List = ListTest;

const Op kOps[] = {{1, bytesOf("one")}, {0x15, {}}, {0xFFFE, bytesOf("three")}};

class ListModel : public ListTest {
protected:
    bool restIs(OpList* list, size_t from) const {
        const std::vector<Op> rest = restOf(list);
        return std::equal(rest.begin(), rest.end(), model_.begin() + long(from), model_.end(),
                          [](const Op& op, const auto& put) { return op == put.second; }) &&
               KalGetOpError(list) == KAL_OK;
    }
    void seek(OpList* list) {
        at_ = model_.empty() ? 0 : random_() % model_.size();
        ASSERT_EQ(KalSeekOp(list, model_.empty() ? 0 : int32_t(model_[at_].first)), KAL_OK);
    }
    void step(OpList* list, bool inBlocks, uint32_t most) { // bytes of a payload
        const bool hasEnd = inBlocks || !model_.empty();    // an empty file has no end op to find
        const auto what = random_() % 12;
        if (what < 5) { // a put cuts what followed off, since the end op will go there
            const Op op = randomOp(random_, random_() % 8 == 0 ? most : 60);
            model_.resize(at_++);
            model_.emplace_back(random_() % 2 == 0 ? putOp(list, op) : putOpData(list, op), op);
            ASSERT_NE(model_.back().first, KAL_OP_FAILED);
            ASSERT_TRUE(at_ == 1 || model_[at_ - 2].first < model_.back().first);
        } else if (what == 5) {
            seek(list);
        } else if (what == 6) {
            ASSERT_EQ(KalSeekEndOp(list), KAL_OK);
            at_ = model_.size();
        } else if (what == 7) {
            KalShrinkOpList(list);
        } else if (what == 8 && random_() % 20 == 0 && hasEnd) {
            ASSERT_EQ(KalSeekOp(list, 0), KAL_OK);
            ASSERT_TRUE(restIs(list, 0));
            OpList* clone = nullptr;
            ASSERT_EQ(KalCloneOpList(list, &clone), inBlocks ? KAL_OK : KAL_ERR_POSITION);
            if (clone != nullptr) {
                seek(clone);
                ASSERT_TRUE(restIs(clone, at_));
                close(clone);
            }
            at_ = model_.size();
        } else if (list->putPending == 0 && hasEnd) {
            const std::vector<Op> got = restOf(list, 1);
            ASSERT_EQ(got.size(), at_ < model_.size() ? 1 : 0);
            ASSERT_TRUE(got.empty() || got[0] == model_[at_++].second);
        }
    }

    std::mt19937 random_;
    std::vector<std::pair<uint32_t, Op>> model_; // position and op, in order
    size_t at_ = 0;
};

} // namespace

TEST_F(ListModel, PutsGetsAndSeeksMatch) {
    for (const auto& [mode, blockSize, most] : {std::tuple<uint16_t, uint32_t, uint32_t>{kNew, 0, 65535},
                                                {KAL_OPL_VMEM | KAL_OPL_COMPRESSED, 100, 300},
                                                {KAL_OPL_VMEM, 16384, 65535}})
        for (uint32_t seed = firstSeed(), end = seed + 5; seed != end && !HasFailure(); seed++) {
            SCOPED_TRACE(::testing::Message() << "mode " << mode << ", seed " << seed);
            random_.seed(seed);
            model_.clear();
            at_ = 0;
            OpList* list = open(mode, blockSize);
            EXPECT_EQ(KalIsOpListEmpty(list), 1);
            for (int i = 0; i < 1500 && !HasFailure(); i++)
                step(list, mode != kNew, most);
            ASSERT_EQ(KalSeekOp(list, 0), KAL_OK);
            EXPECT_EQ(KalIsOpListEmpty(list), 0);
            if (mode == kNew) {
                close(list);
                list = open(KAL_MODE_UPDATE);
            }
            ASSERT_TRUE(restIs(list, 0));
            close(list);
        }
}

TEST_F(List, StoresHeadersPayloadsAndTheEndOp) {
    const std::vector<Op> ops(kOps, kOps + 3);
    OpList* list = open(kNew | KAL_OPL_DIB);
    EXPECT_EQ(val(list->flags), kNew) << "no bitmap in a stream";
    EXPECT_EQ(val(list->stream->bufSize), 4096u);
    EXPECT_EQ(putOp(list, kOps[0]) + putOpData(list, kOps[1]) + putOp(list, kOps[2]), 0u + 7 + 11);
    EXPECT_EQ(KalGetOp(list), nullptr) << "a get ends nothing";
    close(list, KAL_ERR_END);
    EXPECT_EQ(readFile("f"), stored(ops)) << "no longer owed after the get";
    list = open(KAL_MODE_UPDATE);
    KalSeekOp(list, 11);
    EXPECT_EQ(putOp(list, kOps[2]) + putOp(list, {KAL_OP_END, {}}), 11u + 20);
    EXPECT_EQ(val(list->endPos), 20u) << "of a caller's own end op";
    list->putPending = 0; // so that there is no other
    close(list);
    EXPECT_EQ(readFile("f"), stored({kOps[0], kOps[1], kOps[2], {0, {}}}));
    writeFile("f", hexExample("docs/formats/operation-list.md"));
    list = open(0);
    EXPECT_EQ(restOf(list), ops);
    close(list);
    writeFile("f", {1, 0, 3, 0, 'o'});
    list = open(0);
    EXPECT_EQ(KalGetOp(list), nullptr);
    close(list, KAL_ERR_END);
}

TEST_F(List, BlocksAreFilledAndFillersLeft) {
    OpList* list = open(KAL_OPL_VMEM | KAL_OPL_COMPRESSED, 100);
    EXPECT_EQ(val(list->flags), KAL_OPL_VMEM);
    EXPECT_EQ(KalSeekOp(list, 0x300000), KAL_OK) << "nothing to stand in yet";
    EXPECT_EQ(putOp(list, {1, Bytes(40, 'a')}), 0u);
    EXPECT_EQ(putOp(list, {2, Bytes(48, 'b')}), 44u) << "ends at 96: room for one more header";
    KalSeekEndOp(list);
    EXPECT_EQ(val(list->endPos), 0x100000u) << "where none is left for the end op";
    KalSeekOp(list, 44);
    list->pos = 0x100000; // whoever moves it by hand stands there
    EXPECT_EQ(putOpData(list, {3, Bytes(10, 'c')}), 0x100000u);
    EXPECT_EQ(putOp(list, {4, Bytes(200, 'd')}), 0x200000u) << "a block of its own";
    EXPECT_EQ(val(list->curBlock->capacity), 208u);
    KalShrinkOpList(list);
    EXPECT_EQ(putOp(list, {5, Bytes(40, 'e')}), 0x300000u);
    KalSeekOp(list, 0x300000);
    KalShrinkOpList(list);
    EXPECT_EQ(val(list->curBlock->capacity), 44u + 4);
    for (uint32_t offset : {3u, 10u, 98u, 101u, 5000u, 0xFFFFFu}) { // where no op starts
        KalSeekOp(list, int32_t(offset));
        restOf(list, 1);
        ASSERT_EQ(KalSeekOp(list, int32_t(offset)), KAL_OK);
        EXPECT_EQ(putOp(list, {2, Bytes(20, 'x')}), offset + 28 <= 100 ? offset : 0x100000) << offset;
        list->putPending = 0;
    }
    KalSeekOp(list, 0x100000);
    putOp(list, {3, Bytes(10)});
    KalShrinkOpList(list);
    EXPECT_EQ(val(list->curBlock->capacity), 24u) << "cut where it stands, to what was ever put there";
    EXPECT_EQ(KalSeekOp(list, 0x400000), KAL_ERR_POSITION);
    EXPECT_EQ(putOp(list, {1, {}}), KAL_OP_FAILED) << "until the list is closed";
    EXPECT_EQ(KalGetOp(list), nullptr);
    close(list, KAL_ERR_POSITION);
}

TEST_F(List, BlocksPastThoseThatPositionsNameAreReadInOrder) {
    OpList* list = open(KAL_OPL_VMEM, 64);
    std::set<uint32_t> places;
    for (uint32_t i = 0; i < 28675; i++)
        places.insert(KalPutOpData(list, 7, &i, sizeof i));
    EXPECT_EQ(places.size(), 28672u) << "4,096 blocks, and one that shares its positions with block 2,048";
    KalSeekOp(list, 0);
    KalShrinkOpList(list);
    EXPECT_EQ(restOf(list).size(), 28675u);
    const Bytes row((1 << 20) + 1);
    EXPECT_NE(KalPutOpData(list, KAL_OP_ROW, row.data(), 1 << 20), KAL_OP_FAILED);
    EXPECT_EQ(KalPutOpData(list, KAL_OP_ROW, row.data(), (1 << 20) + 1), KAL_OP_FAILED) << "past a position";
    EXPECT_EQ(val(list->status), KAL_ERR_BUFFER);
    list->status = KAL_OK;
    EXPECT_EQ(KalSeekOp(list, INT32_MIN), KAL_ERR_POSITION);
    close(list, KAL_ERR_POSITION);
}

TEST_F(List, CompressedListsEndTheirRunWhateverTheBufferHolds) {
    for (size_t size = 0; size < 140; size++) { // at last more than one call on the run takes
        std::vector<Op> ops = {{7, Bytes(size)}, {8, Bytes(size % 9, 'x')}};
        if (size >= 138)
            ops = {{9, Bytes(65535, 'x')}, {9, randomBytes(65535, 1)}};
        OpList* list = open(kNew | KAL_OPL_COMPRESSED);
        for (const Op& op : ops)
            ASSERT_NE(size % 2 == 0 ? putOp(list, op) : putOpData(list, op), KAL_OP_FAILED);
        KalFlushBuf(list->stream);
        for (int round = 0; round < 3; round++) {
            if (round == 1 || size % 2 == 0) {
                close(list);
                list = open(KAL_OPL_COMPRESSED);
            }
            ASSERT_EQ(KalSeekOp(list, 0), KAL_OK);
            ASSERT_EQ(restOf(list), ops) << size << " bytes";
            ASSERT_EQ(KalGetOp(list), nullptr);
            ASSERT_EQ(KalGetOpError(list), KAL_OK) << size << ": the end is found again";
        }
        close(list);
    }
    OpList* list = open(kNew | KAL_OPL_COMPRESSED);
    KalSetBuf(list->stream, 0);
    putOp(list, kOps[0]);
    FileSizeLimit limit(readFile("f").size());
    KalSeekOp(list, 0);
    limit.lift();
    list->stream->status = KAL_OK;
    close(list, KAL_ERR_DISK_FULL); // a run that could not end is told for good
}

TEST_F(List, TemporaryListsGoOrStay) {
    for (const auto& [asked, flags] : {std::pair{KAL_OPL_DIB | KAL_OPL_COMPRESSED, KAL_OPL_COMPRESSED},
                                       {KAL_OPL_VMEM, KAL_OPL_VMEM},
                                       {KAL_OPL_VMEM | KAL_OPL_KEEP, KAL_OPL_KEEP}}) {
        OpList* list = nullptr;
        ASSERT_EQ(KalTempOpList(&list, uint16_t(asked)), KAL_OK);
        EXPECT_EQ(val(list->flags), flags) << "a bitmap list only in VMem, what is kept in a file";
        EXPECT_TRUE(list->compStream == nullptr && list->dib == nullptr) << "never compressed";
        putOp(list, kOps[0]);
        close(list);
        EXPECT_EQ(filesIn(".").size(), flags == KAL_OPL_KEEP ? 1u : 0u);
    }
    EXPECT_EQ(readFile("ZEP0.TMP"), stored({kOps[0], {0, {}}}));
}

TEST_F(List, FilterSeesEveryPutAndSinkTakesIt) {
    struct : FilterOps, OpSink {
        std::vector<uint32_t> told;
        void FilterOp(void*, uint16_t type, uint16_t size) override { told.insert(told.end(), {type, size}); }
        uint32_t PutOp(void*) override { return 77; }
        uint32_t PutOpData(uint32_t type, const void*, uint32_t size) override {
            return told.insert(told.end(), {type, size}), 88;
        }
    } both;
    OpList* list = open(kNew);
    KalSetOpListFilter(list, both);
    putOp(list, kOps[0]);
    KalPutOpData(list, KAL_OP_ROW, "0123456789ab", 12); // a row in a stream: an op of its first bytes
    KalPutOpData(list, KAL_OP_ROW, "01234567", 8);
    KalSeekOp(list, 0);
    list->sink = &both;
    EXPECT_EQ(KalPutOpData(list, 0, nullptr, 0), 88u);
    EXPECT_EQ(val(list->putPending), 0) << "a put of data that the sink takes owes nothing";
    EXPECT_EQ(val(list->endPos), 7u + 8 + 12);
    EXPECT_EQ(putOp(list, kOps[0]), 77u);
    EXPECT_EQ(KalPutOpData(list, KAL_OP_ROW, "0123456789ab", 12), 88u);
    EXPECT_EQ(both.told, (std::vector<uint32_t>{1, 3, 0xFFFE, 4, 0xFFFE, 8, 0, 0, // the filter's alone
                                                0, 0, 0, 0, 1, 3, 0xFFFE, 4, KAL_OP_ROW, 4}));
    EXPECT_EQ(val(list->putPending), 1);
    close(list);
    EXPECT_EQ(readFile("f"),
              stored({kOps[0], {0xFFFE, bytesOf("0123")}, {0xFFFE, bytesOf("01234567")}, {0, {}}}));
}

TEST_F(List, WhatCannotBeIsRefused) {
    void* op = KalCreateOp(0x12345, 65535);
    EXPECT_TRUE(KalOpType(op) == 0x2345 && KalSizeSMem(KalOpBlock(op)) == KalOpSize(op) + 4u);
    KalFreeSMem(KalOpBlock(op));
    EXPECT_EQ(KalCreateOp(1, 0xFFFFFFFF), nullptr);
    KalCloseVMem();
    OpList *missing = nullptr, *packed = nullptr;
    constexpr int16_t none = KAL_ERR_OPEN - ENOENT;
    EXPECT_EQ(KalOpenOpList(&missing, "none\\f", 0), none);
    EXPECT_EQ(KalOpenOpList(&packed, "none\\f", KAL_OPL_COMPRESSED), none);
    const std::pair<OpList*, int16_t> lists[] = {
        {missing, none}, {packed, none}, {open(KAL_OPL_VMEM), KAL_ERR_VMEM}, {nullptr, KAL_OK}};
    for (const auto& [list, error] : lists) {
        EXPECT_EQ(putOp(list, {1, {}}) & KalPutOpData(list, 1, "x", 1), KAL_OP_FAILED);
        EXPECT_EQ(KalGetOp(list), nullptr);
        EXPECT_EQ(KalIsOpListEmpty(list), error != KAL_ERR_VMEM) << "that one has a block";
        EXPECT_EQ(KalGetOpError(list), error);
        KalCloseOpList(list);
    }
    EXPECT_EQ(KalOpenVMem(0), KAL_OK);
    OpList* list = open(kNew);
    EXPECT_EQ(KalPutOpData(list, 1, "x", 65536), KAL_OP_FAILED);
    close(list, KAL_ERR_WRITE);
}
