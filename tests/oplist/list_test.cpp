// Lists in streams: order, positions, end ops, what filter and sink see.
#include "tests/support/faults.h"
#include "tests/support/ops.h"

namespace {

class List : public FolderTest {
protected:
    static OpList* open(const char* name, uint16_t mode) {
        OpList* list = nullptr;
        EXPECT_EQ(KalOpenOpList(&list, name, mode), 0);
        return list;
    }
};

constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

const Op kOps[] = {{1, bytesOf("one")}, {0x15, {}}, {0xFFFE, bytesOf("three, a little longer")}};

} // namespace

TEST_F(List, StoresHeadersPayloadsAndTheEndOp) {
    HeapBalance balance;
    OpList* list = open("f", kNew);
    EXPECT_EQ(val(list->stream->bufSize), 4096u);
    EXPECT_EQ(KalIsOpListEmpty(list), 1);
    EXPECT_EQ(val(list->stream->status), 0);
    EXPECT_EQ(putOp(list, kOps[0]), 0u);
    EXPECT_EQ(putOpData(list, kOps[1]), 7u);
    EXPECT_EQ(putOp(list, kOps[2]), 11u);
    EXPECT_EQ(val(list->putPending), 1);
    KalCloseOpList(list);
    Bytes expected = stored({kOps[0], kOps[1], kOps[2], {0, {}}});
    EXPECT_EQ(readFile("f"), expected);

    list = open("f", KAL_MODE_UPDATE);
    EXPECT_EQ(KalIsOpListEmpty(list), 0);
    EXPECT_EQ(restOf(list), std::vector<Op>(kOps, kOps + 3));
    EXPECT_EQ(KalGetOp(list), nullptr) << "the end is found again";
    EXPECT_EQ(KalGetOpError(list), 0);
    EXPECT_EQ(KalIsOpListEmpty(list), 1) << "as any list that is not at its start";
    putOp(list, {5, bytesOf("five")}); // in place of the end op
    EXPECT_EQ(KalSeekOp(list, 7), 0);
    EXPECT_EQ(val(list->endPos), uint32_t(expected.size() - 4 + 8));
    EXPECT_EQ(restOf(list), (std::vector<Op>{kOps[1], kOps[2], {5, bytesOf("five")}}));
    KalCloseOpList(list);
}

TEST_F(List, TheDocumentedExampleReadsAsItSays) {
    writeFile("f", hexExample("docs/formats/operation-list.md"));
    OpList* list = open("f", 0);
    EXPECT_EQ(restOf(list), (std::vector<Op>{{1, bytesOf("one")}, {0x15, {}}, {0xFFFE, bytesOf("three")}}));
    EXPECT_EQ(val(list->stream->pos), readFile("f").size()) << "to its last byte";
    KalCloseOpList(list);
}

TEST_F(List, AGetRightAfterPutsSeesNoEndOp) {
    OpList* list = open("f", kNew);
    putOp(list, {1, bytesOf("first")});
    const uint32_t second = putOp(list, {2, bytesOf("second")});
    KalSeekOp(list, 0);
    putOp(list, {3, bytesOf("other")}); // overwrites the first
    EXPECT_EQ(restOf(list), (std::vector<Op>{{2, bytesOf("second")}})) << "what the stream holds there";
    EXPECT_EQ(KalSeekOp(list, int32_t(second)), 0);
    EXPECT_EQ(restOf(list).size(), 1u);
    KalCloseOpList(list);
}

TEST_F(List, SeekEndOpPutsAnEndOpStillOwedFirst) {
    OpList* list = open("f", kNew);
    putOp(list, kOps[0]);
    EXPECT_EQ(KalSeekEndOp(list), 0);
    EXPECT_EQ(val(list->endPos), 7u);
    putOp(list, kOps[1]);
    EXPECT_EQ(KalSeekEndOp(list), 0);
    EXPECT_EQ(val(list->endPos), 11u);
    putOp(list, kOps[2]);
    KalSeekOp(list, 0);
    EXPECT_EQ(restOf(list), std::vector<Op>(kOps, kOps + 3));
    KalCloseOpList(list);
}

TEST_F(List, RandomListsComeBackPlainAndCompressed) {
    HeapBalance balance;
    std::mt19937 random(1);
    for (uint16_t mode : Words{kNew, kNew | KAL_OPL_COMPRESSED})
        for (uint32_t most : {0u, 5u, 3000u, 65535u}) {
            std::vector<Op> ops;
            for (int i = 0; i < 60; i++)
                ops.push_back(randomOp(random, most));
            ops.push_back({9, Bytes(65535, 'x')});
            OpList* list = open("f", mode);
            for (const auto& op : ops)
                ASSERT_NE(random() % 2 == 0 ? putOp(list, op) : putOpData(list, op), KAL_OP_FAILED);
            ASSERT_EQ(KalSeekOp(list, 0), 0);
            ASSERT_EQ(restOf(list), ops) << "at once";
            EXPECT_EQ(KalGetOp(list), nullptr);
            EXPECT_EQ(KalGetOpError(list), 0);
            KalCloseOpList(list);
            if ((mode & KAL_OPL_COMPRESSED) == 0) {
                ops.push_back({0, {}});
                EXPECT_EQ(readFile("f"), stored(ops));
                ops.pop_back();
            }
            list = open("f", mode & KAL_OPL_COMPRESSED);
            ASSERT_EQ(restOf(list), ops) << "reopened";
            KalCloseOpList(list);
        }
}

TEST_F(List, AListMatchesAModelUnderPutsGetsAndSeeks) {
    std::mt19937 random(2);
    OpList* list = open("f", kNew);
    std::vector<std::pair<uint32_t, Op>> model; // position and op, in order
    size_t at = 0;
    for (int step = 0; step < 3000; step++) {
        switch (random() % 4) {
        case 0: { // a put cuts what followed off, since its end op will go there
            const Op op = randomOp(random, 50);
            model.resize(at);
            model.emplace_back(putOp(list, op), op);
            at++;
            if (random() % 3 != 0)
                break;
            [[fallthrough]];
        }
        case 1: // a seek ends the puts
            at = model.empty() ? 0 : random() % model.size();
            ASSERT_EQ(KalSeekOp(list, model.empty() ? 0 : int32_t(model[at].first)), 0);
            break;
        case 2:
            ASSERT_EQ(KalSeekEndOp(list), 0);
            at = model.size();
            break;
        default:
            if (list->putPending != 0)
                break;
            if (void* op = KalGetOp(list)) {
                ASSERT_LT(at, model.size());
                ASSERT_EQ(KalOpType(op), model[at].second.type);
                ASSERT_EQ(KalOpSize(op), model[at].second.payload.size());
                KalFreeSMem(KalOpBlock(op));
                at++;
            } else {
                ASSERT_EQ(at, model.size());
            }
        }
    }
    KalCloseOpList(list);
}

TEST_F(List, TemporaryListsGoOrStay) {
    HeapBalance balance;
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
    OpList* list = open("f", kNew);
    KalSetOpListFilter(list, filter);
    putOp(list, kOps[0]);
    KalPutOpData(list, KAL_OP_ROW, "0123456789ab", 12); // a row in a stream: an op of its first bytes
    KalSeekOp(list, 0);
    EXPECT_EQ(filter.seen, (std::vector<std::pair<uint16_t, uint16_t>>{{1, 3}, {0xFFFE, 4}, {0, 0}}));
    EXPECT_EQ(restOf(list), (std::vector<Op>{kOps[0], {0xFFFE, bytesOf("0123")}}));
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
    EXPECT_EQ(readFile("f"), stored({kOps[0], {0xFFFE, bytesOf("0123")}, {0, {}}})) << "nothing was stored";
}
