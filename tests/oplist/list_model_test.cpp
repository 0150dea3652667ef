// Lists in streams and in blocks against a model: the ops in order, and where each was put.
#include "tests/oplist/lists.h"
#include "tests/support/trouble.h"

#include <cerrno>

namespace {

struct Kind {
    const char* name;
    uint16_t mode;
    uint32_t blockSize;
    uint32_t most; // bytes of a payload
};

class ListModel : public ListTest, public ::testing::WithParamInterface<Kind> {};

const Op kOps[] = {{1, bytesOf("one")}, {0x15, {}}, {0xFFFE, bytesOf("three, a little longer")}};

} // namespace

TEST_P(ListModel, PutsGetsAndSeeksMatch) {
    const Kind kind = GetParam();
    const bool inBlocks = (kind.mode & KAL_OPL_VMEM) != 0;
    for (uint32_t seed = 1; seed <= 5; seed++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 random(seed);
        OpList* list = open(kind.mode, kind.blockSize);
        EXPECT_EQ(KalIsOpListEmpty(list), 1);
        std::vector<std::pair<uint32_t, Op>> model; // position and op, in order
        size_t at = 0;
        const auto restIs = [&](OpList* tested, size_t from) {
            std::vector<Op> rest;
            for (size_t i = from; i < model.size(); i++)
                rest.push_back(model[i].second);
            return restOf(tested) == rest && KalGetOpError(tested) == 0;
        };
        for (int step = 0; step < 1500; step++) {
            SCOPED_TRACE(::testing::Message() << "step " << step);
            const auto what = random() % 12;
            if (what < 5) { // a put cuts what followed off, since the end op will go there
                const Op op = randomOp(random, random() % 8 == 0 ? kind.most : 60);
                model.resize(at++);
                model.emplace_back(random() % 2 == 0 ? putOp(list, op) : putOpData(list, op), op);
                ASSERT_NE(model.back().first, KAL_OP_FAILED);
                ASSERT_TRUE(at == 1 || model[at - 2].first < model.back().first);
            } else if (what == 5) {
                at = model.empty() ? 0 : random() % model.size();
                ASSERT_EQ(KalSeekOp(list, model.empty() ? 0 : int32_t(model[at].first)), 0);
            } else if (what == 6) {
                ASSERT_EQ(KalSeekEndOp(list), 0);
                at = model.size();
            } else if (what == 7) {
                KalShrinkOpList(list);
            } else if (what == 8 && random() % 20 == 0) {
                ASSERT_EQ(KalSeekOp(list, 0), 0);
                ASSERT_TRUE(restIs(list, 0));
                OpList* clone = nullptr;
                ASSERT_EQ(KalCloneOpList(list, &clone), inBlocks ? 0 : -300);
                if (clone != nullptr) {
                    at = model.empty() ? 0 : random() % model.size();
                    KalSeekOp(clone, model.empty() ? 0 : int32_t(model[at].first));
                    ASSERT_TRUE(restIs(clone, at));
                }
                KalCloseOpList(clone);
                at = model.size();
            } else if (list->putPending == 0 &&
                       !(model.empty() && !inBlocks)) { // an empty file has no end op
                void* op = KalGetOp(list);
                ASSERT_EQ(op != nullptr, at < model.size());
                if (op == nullptr)
                    continue;
                const auto* bytes = static_cast<uint8_t*>(op);
                ASSERT_EQ((Op{KalOpType(op), Bytes(bytes, bytes + KalOpSize(op))}), model[at++].second);
                KalFreeSMem(KalOpBlock(op));
            }
        }
        ASSERT_EQ(KalSeekOp(list, 0), 0);
        ASSERT_TRUE(restIs(list, 0));
        KalCloseOpList(list);
        if (!inBlocks) {
            list = open(KAL_MODE_UPDATE);
            EXPECT_EQ(KalIsOpListEmpty(list), 0);
            ASSERT_TRUE(restIs(list, 0)) << "reopened";
            KalCloseOpList(list);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ListModel,
                         ::testing::Values(Kind{"Stream", kNew, 0, 65535},
                                           Kind{"SmallBlocks", KAL_OPL_VMEM | KAL_OPL_COMPRESSED, 100, 300},
                                           Kind{"SwappedBlocks", KAL_OPL_VMEM, 16384, 65535}),
                         [](const auto& tested) { return std::string(tested.param.name); });

class List : public ListTest {};

TEST_F(List, StoresHeadersPayloadsAndTheEndOp) {
    OpList* list = open(kNew);
    EXPECT_EQ(val(list->stream->bufSize), 4096u);
    EXPECT_EQ(KalIsOpListEmpty(list), 1);
    EXPECT_EQ(val(list->stream->status), 0);
    EXPECT_EQ(putOp(list, kOps[0]), 0u);
    EXPECT_EQ(putOpData(list, kOps[1]), 7u);
    EXPECT_EQ(putOp(list, kOps[2]), 11u);
    EXPECT_EQ(KalGetOp(list), nullptr) << "a get ends nothing";
    KalCloseOpList(list);
    EXPECT_EQ(readFile("f"), stored({kOps[0], kOps[1], kOps[2]})) << "no longer owed after the get";
    list = open(KAL_MODE_UPDATE);
    KalSeekOp(list, 11);
    putOp(list, kOps[2]);
    KalCloseOpList(list);
    EXPECT_EQ(readFile("f"), stored({kOps[0], kOps[1], kOps[2], {0, {}}}));
    writeFile("f", hexExample("docs/formats/operation-list.md"));
    list = open(0);
    EXPECT_EQ(restOf(list), (std::vector<Op>{{1, bytesOf("one")}, {0x15, {}}, {0xFFFE, bytesOf("three")}}));
    KalCloseOpList(list);
}

TEST_F(List, BlocksAreFilledAndFillersLeft) {
    OpList* list = open(KAL_OPL_VMEM | KAL_OPL_COMPRESSED, 100);
    EXPECT_EQ(val(list->flags), KAL_OPL_VMEM);
    EXPECT_EQ(KalSeekOp(list, 0x300000), 0) << "nothing to stand in yet";
    EXPECT_EQ(KalGetOp(list), nullptr);
    EXPECT_EQ(putOp(list, {1, Bytes(40, 'a')}), 0u);
    EXPECT_EQ(putOp(list, {2, Bytes(48, 'b')}), 44u) << "ends at 96: room for one more header";
    EXPECT_EQ(putOpData(list, {3, Bytes(10, 'c')}), 0x100000u);
    EXPECT_EQ(putOp(list, {4, Bytes(200, 'd')}), 0x200000u) << "a block of its own";
    EXPECT_EQ(val(list->curBlock->capacity), 208u);
    KalShrinkOpList(list);
    EXPECT_EQ(val(list->curBlock->capacity), 208u) << "room for the end op that is owed";
    EXPECT_EQ(KalSeekEndOp(list), 0);
    EXPECT_EQ(val(list->endPos), 0x300000u) << "where the end op really went";
    EXPECT_EQ(putOp(list, {5, Bytes(40, 'e')}), 0x300000u);
    KalSeekOp(list, 0x300000);
    KalShrinkOpList(list);
    EXPECT_EQ(val(list->curBlock->capacity), 44u + 4);
    for (uint32_t offset : {3u, 10u, 98u, 101u, 5000u, 0xFFFFFu}) { // where no op starts
        ASSERT_EQ(KalSeekOp(list, int32_t(offset)), 0);
        if (void* op = KalGetOp(list))
            KalFreeSMem(KalOpBlock(op));
        ASSERT_EQ(KalSeekOp(list, int32_t(offset)), 0);
        EXPECT_EQ(putOp(list, {2, Bytes(20, 'x')}), offset + 28 <= 100 ? offset : 0x100000) << offset;
        list->putPending = 0;
    }
    EXPECT_EQ(KalSeekOp(list, 0x400000), -300);
    EXPECT_EQ(putOp(list, {1, {}}), KAL_OP_FAILED);
    EXPECT_EQ(KalGetOp(list), nullptr);
    EXPECT_EQ(KalGetOpError(list), -300) << "until the list is closed";
    KalCloseOpList(list);
}

TEST_F(List, BlocksPastThoseThatPositionsNameAreReadInOrder) {
    OpList* list = open(KAL_OPL_VMEM, 64);
    for (uint32_t i = 0; i < 35000; i++) // some 5,000 blocks
        ASSERT_NE(KalPutOpData(list, 7, &i, sizeof i), KAL_OP_FAILED);
    KalSeekOp(list, 0);
    EXPECT_EQ(restOf(list).size(), 35000u);
    EXPECT_EQ(KalGetOpError(list), 0);
    EXPECT_EQ(KalSeekOp(list, int32_t(0x80000000)), -300);
    KalCloseOpList(list);
    KalCloseVMem();
    list = open(KAL_OPL_VMEM);
    EXPECT_EQ(putOp(list, {1, {}}), KAL_OP_FAILED) << "without the manager";
    EXPECT_EQ(KalGetOpError(list), -101);
    KalCloseOpList(list);
    EXPECT_EQ(KalOpenVMem(0), 0);
}

TEST_F(List, CompressedListsEndTheirRunWhateverTheBufferHolds) {
    for (size_t size = 0; size < 140; size++)
        for (bool bySeek : {false, true}) {
            const std::vector<Op> ops = {{7, Bytes(size)}, {8, Bytes(size % 9, 'x')}};
            OpList* list = open(kNew | KAL_OPL_COMPRESSED);
            for (const Op& op : ops)
                putOp(list, op);
            KalFlushBuf(list->stream);
            if (bySeek) {
                ASSERT_EQ(KalSeekOp(list, 0), 0);
                ASSERT_EQ(restOf(list), ops) << size;
            }
            KalCloseOpList(list);
            list = open(KAL_OPL_COMPRESSED);
            ASSERT_EQ(restOf(list), ops) << size << " bytes";
            for (int again = 0; again < 3; again++) {
                ASSERT_EQ(KalGetOp(list), nullptr);
                ASSERT_EQ(KalGetOpError(list), 0) << size << ": the end is found again";
            }
            ASSERT_EQ(KalSeekOp(list, 0), 0);
            ASSERT_EQ(restOf(list), ops) << size << " bytes, once more";
            KalCloseOpList(list);
        }
    std::mt19937 random(1);
    std::vector<Op> ops;
    OpList* list = open(kNew | KAL_OPL_COMPRESSED);
    for (uint32_t most : {60000u, 65535u, 3000u, 65535u}) {
        ops.push_back(randomOp(random, most));
        ASSERT_NE(putOpData(list, ops.back()), KAL_OP_FAILED);
    }
    ops.push_back({9, Bytes(65535, 'x')});
    ASSERT_NE(putOp(list, ops.back()), KAL_OP_FAILED) << "more than one call on the run takes";
    KalCloseOpList(list);
    list = open(KAL_OPL_COMPRESSED);
    EXPECT_TRUE(restOf(list) == ops);
    KalCloseOpList(list);
}

TEST_F(List, TemporaryListsGoOrStay) {
    OpList* list = nullptr;
    ASSERT_EQ(KalTempOpList(&list, KAL_OPL_DIB | KAL_OPL_COMPRESSED), 0);
    EXPECT_EQ(val(list->flags), KAL_OPL_COMPRESSED) << "a bitmap list only in VMem";
    EXPECT_EQ(val(list->compStream), nullptr) << "never compressed";
    EXPECT_EQ(val(list->dib), nullptr);
    putOp(list, kOps[0]);
    KalCloseOpList(list);
    EXPECT_TRUE(filesIn(".").empty());
    ASSERT_EQ(KalTempOpList(&list, KAL_OPL_VMEM | KAL_OPL_KEEP), 0);
    EXPECT_EQ(val(list->flags), KAL_OPL_KEEP);
    putOp(list, kOps[0]);
    KalCloseOpList(list);
    EXPECT_EQ(readFile("ZEP0.TMP"), stored({kOps[0], {0, {}}}));
}

TEST_F(List, FilterSeesEveryPutAndSinkTakesIt) {
    struct Filter : FilterOps {
        std::vector<std::pair<uint16_t, uint16_t>> seen;
        void FilterOp(void*, uint16_t type, uint16_t size) override { seen.emplace_back(type, size); }
    } filter;
    struct Sink : OpSink {
        std::vector<uint32_t> taken;
        uint32_t PutOp(void* op) override { return taken.push_back(KalOpType(op)), 77; }
        uint32_t PutOpData(uint32_t type, const void*, uint32_t size) override {
            taken.insert(taken.end(), {type, size});
            return 88;
        }
    } sink;
    OpList* list = open(kNew);
    KalSetOpListFilter(list, filter);
    putOp(list, kOps[0]);
    KalPutOpData(list, KAL_OP_ROW, "0123456789ab", 12); // a row in a stream: an op of its first bytes
    KalPutOpData(list, KAL_OP_ROW, "01234567", 8);
    KalSeekOp(list, 0);
    EXPECT_EQ(filter.seen,
              (std::vector<std::pair<uint16_t, uint16_t>>{{1, 3}, {0xFFFE, 4}, {0xFFFE, 8}, {0, 0}}));
    list->sink = &sink;
    const uint32_t end = list->endPos;
    EXPECT_EQ(KalPutOpData(list, 0, nullptr, 0), 88u);
    EXPECT_EQ(val(list->putPending), 0) << "a put of data that the sink takes owes nothing";
    EXPECT_EQ(val(list->endPos), end);
    EXPECT_EQ(putOp(list, kOps[0]), 77u);
    EXPECT_EQ(val(list->putPending), 1);
    EXPECT_EQ(KalPutOpData(list, KAL_OP_ROW, "0123456789ab", 12), 88u);
    EXPECT_EQ(sink.taken, (std::vector<uint32_t>{0, 0, 1, KAL_OP_ROW, 4}));
    KalCloseOpList(list);
    EXPECT_EQ(readFile("f"),
              stored({kOps[0], {0xFFFE, bytesOf("0123")}, {0xFFFE, bytesOf("01234567")}, {0, {}}}));
}

TEST_F(List, WhatCannotBeIsRefused) {
    for (uint32_t size : {0u, 65535u}) {
        void* op = KalCreateOp(0x12345, size);
        ASSERT_NE(op, nullptr);
        EXPECT_EQ(KalOpType(op), 0x2345);
        EXPECT_EQ(KalOpSize(op), size);
        EXPECT_EQ(KalSizeSMem(KalOpBlock(op)), size + 4);
        KalFreeSMem(KalOpBlock(op));
    }
    EXPECT_EQ(KalCreateOp(1, 0xFFFFFFFF), nullptr);
    OpList* list = nullptr;
    for (uint16_t mode : Words{0, KAL_OPL_COMPRESSED}) {
        EXPECT_EQ(KalOpenOpList(&list, "none\\f", mode), -200 - ENOENT);
        EXPECT_EQ(KalGetOpError(list), -200 - ENOENT);
        EXPECT_EQ(putOp(list, {1, {}}), KAL_OP_FAILED);
        EXPECT_EQ(KalGetOp(list), nullptr);
        EXPECT_EQ(KalSeekOp(list, 0), -200 - ENOENT);
        EXPECT_EQ(KalIsOpListEmpty(list), 1);
        KalCloseOpList(list);
    }
    KalCloseOpList(nullptr);
    EXPECT_EQ(KalPutOp(nullptr, nullptr), KAL_OP_FAILED);
    EXPECT_EQ(KalGetOp(nullptr), nullptr);
    EXPECT_EQ(KalIsOpListEmpty(nullptr), 1);
    EXPECT_EQ(KalGetOpError(nullptr), 0);
    list = open(kNew);
    EXPECT_EQ(KalPutOpData(list, 1, "x", 65536), KAL_OP_FAILED);
    EXPECT_EQ(KalGetOpError(list), -251);
    KalCloseOpList(list);
    writeFile("f", {1, 0, 3, 0, 'o'});
    list = open(0);
    EXPECT_EQ(KalGetOp(list), nullptr);
    EXPECT_NE(KalGetOpError(list), 0) << "cut short";
    KalCloseOpList(list);
}

TEST_F(List, TroubleIsToldAndLosesNothingThatWasPut) {
    KalCloseVMem();
    for (uint16_t mode : Words{0, KAL_OPL_COMPRESSED, KAL_OPL_VMEM}) {
        const Bytes payload = randomBytes(9000, 1);
        const std::vector<Op> ops = {{1, payload}, {2, bytesOf("b")}};
        walkTrouble({.run =
                         [&] {
                             int status = KalOpenVMem(0);
                             OpList* list = nullptr;
                             if (status == 0)
                                 status = KalOpenOpList(&list, "f", kNew | mode);
                             if (status == 0) {
                                 size_t put = 0;
                                 for (const Op& op : ops)
                                     put += putOp(list, op) != KAL_OP_FAILED ? 1 : 0;
                                 status = KalSeekOp(list, 0);
                                 const size_t got = restOf(list).size();
                                 if (status == 0)
                                     status = KalGetOpError(list);
                                 if (status == 0 && put < 2)
                                     status = KAL_ERR_MEMORY; // putOp found no memory for its own op
                                 EXPECT_TRUE(got == 2 || status != 0) << got;
                             }
                             KalCloseOpList(list);
                             KalCloseVMem();
                             return status;
                         },
                     .statuses = {KAL_ERR_MEMORY, KAL_ERR_VMEM, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ,
                                  KAL_ERR_DISK_FULL, KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END,
                                  KAL_ERR_RUN, KAL_ERR_SERVICE, -200 - EIO, -200 - ENOSPC},
                     .unfinished = {"f"}},
                    kNoMemory | kHostFails | kCutShort | kDiskFull);
    }
    EXPECT_EQ(KalOpenVMem(0), 0);
}
