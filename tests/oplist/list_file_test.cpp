// Operation-list files: many lists in one item file.
#include "tests/oplist/lists.h"

namespace {

class ListFile : public ListTest {};

std::vector<Op> randomOps(std::mt19937& random, size_t count, uint32_t most) {
    std::vector<Op> ops(count);
    for (Op& op : ops)
        op = randomOp(random, most);
    return ops;
}

} // namespace

TEST_F(ListFile, AStoredListIsAnItemOfItsOpsAndTheEndOp) {
    IOPFILE* file = openFile("f", kNew, 0);
    const std::vector<Op> ops = {{1, bytesOf("a")}, {2, {}}, {3, bytesOf("ccc")}};
    EXPECT_EQ(store(file, 5, ops) | store(file, 6, {}), KAL_OK);
    EXPECT_EQ(KalClosePutIOpList(file), KAL_ERR_SERVICE) << "no list is being stored";
    EXPECT_EQ(KalCloseGetIOpList(file), KAL_ERR_SERVICE);
    OpList* list = nullptr;
    for (const uint16_t none : Words{7, KAL_ITEM_FREE})
        EXPECT_EQ(KalOpenGetIOpList(file, none, &list) + KalGetIOpList(file, none, list), 2);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(KalCloseIOpFile(file), KAL_OK);
    EXPECT_EQ(itemsIn(readFile("f")),
              (std::map<uint16_t, Bytes>{{5, stored({ops[0], ops[1], ops[2], {0, {}}})}, {6, Bytes(4)}}));
    EXPECT_EQ(KalOpenIOpFile(&file, "f", 0, KAL_IOP_COMPRESSED), KAL_ERR_FORMAT);
    EXPECT_EQ(file, nullptr);
    file = openFile("f", kNew, KAL_IOP_COMPRESSED);
    store(file, 1, {{100, bytesOf({"hello", 6})}, {101, bytesOf({"world", 6})}});
    EXPECT_EQ(KalCloseIOpFile(file), KAL_OK);
    EXPECT_EQ(readFile("f"), hexExample("docs/formats/operation-list-file.md"));
    ASSERT_EQ(KalOpenTempIOpFile(&file), KAL_OK);
    EXPECT_EQ(store(file, 1, ops), KAL_OK);
    EXPECT_EQ(load(file, 1), ops);
    EXPECT_EQ(KalCloseIOpFile(file) | KalCloseIOpFile(nullptr) | KalFreeIOpFile(nullptr), KAL_OK);
    EXPECT_EQ(filesIn("."), std::vector<std::string>{"f"});
    IFILE* items = openItems(kNew, 0);
    OpList* made = KalMakeOpList(items);
    ASSERT_TRUE(made != nullptr && KalMakeOpList(nullptr) == nullptr);
    EXPECT_TRUE(made->stream == items->stream && made->flags == items->mode && made->putPending == 1);
    KalFreeIFile(items);
    close(made);
}

// Lists as users store them, among reads, flushes and reopening; the first of an id counts.
TEST_F(ListFile, RandomListsComeBackInEveryFormat) {
    for (uint32_t seed = firstSeed(), end = seed + 12; seed != end && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const auto format = uint16_t(seed % 4 << 14);
        std::mt19937 random(seed);
        IOPFILE* file = openFile("f", kNew, format);
        EXPECT_EQ(KalReserveItems(file->ifile, 100), KAL_OK);
        std::map<uint16_t, std::vector<Op>> model;
        for (int step = 0; step < 60; step++) {
            const auto id = uint16_t(random() % 40);
            std::vector<Op> ops = randomOps(random, random() % 12, random() % 9 == 0 ? 20000 : 300);
            OpList* list = nullptr;
            ASSERT_EQ(KalOpenPutIOpList(file, id, &list), KAL_OK);
            const uint32_t start = list->pos;
            for (const auto& op : ops)
                ASSERT_NE(random() % 2 == 0 ? putOp(list, op) : putOpData(list, op), KAL_OP_FAILED);
            if (random() % 3 == 0)
                KalFlushBuf(list->stream);
            if (random() % 3 == 0) { // read before it is closed, and left anywhere
                ASSERT_EQ(KalSeekOp(list, int32_t(start)), KAL_OK);
                if (void* op = KalGetOp(list))
                    KalFreeSMem(KalOpBlock(op));
            }
            ASSERT_EQ(KalClosePutIOpList(file), KAL_OK);
            model.emplace(id, ops);
            ASSERT_TRUE(random() % 4 != 0 || load(file, id) == model[id]) << id << " in step " << step;
            if (random() % 10 == 0) {
                ASSERT_EQ(KalCloseIOpFile(file), KAL_OK);
                file = openFile("f", KAL_MODE_UPDATE, format);
            }
        }
        for (auto& [id, ops] : model) {
            ASSERT_EQ(load(file, id), ops) << "list " << id;
            ops.push_back({0, {}});
            const auto size = uint32_t(format == 0 ? uint16_t(stored(ops).size()) : stored(ops).size());
            EXPECT_TRUE(format & KAL_IOP_COMPRESSED || uint32_t(KalGetItemSize(file->ifile, id)) == size);
        }
        EXPECT_EQ(KalCloseIOpFile(file), KAL_OK);
    }
}

TEST_F(ListFile, WholeListsMoveBetweenBlocksAndFilesAndTakeTurns) {
    std::mt19937 random(1);
    const std::vector<Op> ops = randomOps(random, 200, 30000);
    for (uint16_t format : Words{0xC000, 0x8000, 0}) {
        OpList *source = open(KAL_OPL_VMEM), *destination = nullptr, *to = nullptr, *from = nullptr;
        for (const auto& op : ops)
            putOp(source, op);
        KalSeekOp(source, 0);
        ASSERT_EQ(KalTempOpList(&destination, 0), KAL_OK);
        SFILE* stream = nullptr;
        IOPFILE* file = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "f", kNew, 0), KAL_OK);
        ASSERT_EQ(KalMakeIOpFile(&file, stream, format), KAL_OK);
        EXPECT_EQ(KalPutIOpList(file, 9, source), KAL_OK);
        EXPECT_EQ(KalGetIOpList(file, 9, destination), KAL_OK);
        EXPECT_EQ(val(destination->putPending), 1);
        KalSeekOp(destination, 0);
        EXPECT_TRUE(restOf(destination) == ops);
        ASSERT_EQ(KalOpenPutIOpList(file, 10, &to), KAL_OK);
        if (format != 0xC000) { // in a compressed file the two may not take turns
            ASSERT_EQ(KalOpenGetIOpList(file, 9, &from), KAL_OK);
        }
        for (const Op& op : ops) {
            void* got = from != nullptr ? KalGetOp(from) : nullptr;
            ASSERT_NE(got != nullptr ? KalPutOp(to, got) : putOp(to, op), KAL_OP_FAILED);
            KalFreeSMem(got != nullptr ? KalOpBlock(got) : nullptr);
        }
        EXPECT_EQ(KalFreeIOpFile(file), KAL_OK) << "which ends both lists";
        EXPECT_EQ(stream->close(stream), KAL_OK) << "the caller's to close";
        file = openFile("f", 0, format);
        EXPECT_TRUE(load(file, 10) == ops);
        EXPECT_EQ(faultsIn(file->ifile->stream, KalVerifyIOpFile), "");
        EXPECT_EQ(KalCloseIOpFile(file), KAL_OK);
        close(source);
        close(destination);
    }
}

TEST_F(ListFile, WhatCannotBeStoredIsToldAndLeavesNoEntry) {
    IOPFILE* file = openFile("f", kNew, 0);
    file->ifile->count = KAL_ITEMS_MAX_NARROW;
    EXPECT_EQ(store(file, 1, {}), KAL_ERR_BUFFER);
    file->ifile->count = 0;
    EXPECT_EQ(KalCloseIOpFile(file), KAL_OK);
    for (uint16_t format : Words{0x8000, 0xC000}) {
        SCOPED_TRACE(format);
        file = openFile("f", kNew, format);
        OpList *source = open(KAL_OPL_VMEM), *list = nullptr;
        if (format == 0xC000) {
            ASSERT_EQ(KalOpenPutIOpList(file, 1, &list), KAL_OK);
            failHeapAllocationsFrom(1);
            EXPECT_EQ(KalPutOpData(list, 1, "x", 1), KAL_OP_FAILED);
            failHeapAllocation(0);
            EXPECT_EQ(KalClosePutIOpList(file), KAL_OK) << "an op of which nothing was taken breaks no run";
            EXPECT_EQ(file->ifile->count--, 1);
        }
        const std::vector<Op> first = {{1, bytesOf("first")}}, later = {{3, bytesOf("later")}};
        EXPECT_EQ(store(file, 1, first), KAL_OK);
        KalFlushBuf(file->ifile->stream);
        for (uint32_t i = 0; i < 20; i++)
            putOp(source, {2, randomBytes(1000, i)});
        KalSeekOp(source, 0);
        FileSizeLimit limit(10000);
        EXPECT_EQ(KalPutIOpList(file, 2, source), KAL_ERR_DISK_FULL);
        limit.lift();
        EXPECT_EQ(val(source->status), KAL_OK);
        EXPECT_EQ(file->ifile->count, 1) << "it would run on into the next list";
        close(source);
        file->ifile->stream->status = KAL_OK;
        EXPECT_EQ(store(file, 3, later), KAL_OK);
        KalSetBuf(file->ifile->stream, 0);
        ASSERT_EQ(KalOpenPutIOpList(file, 4, &list), KAL_OK);
        putOp(list, first[0]);
        FileSizeLimit full(readFile("f").size());
        EXPECT_EQ(KalClosePutIOpList(file), KAL_ERR_DISK_FULL) << "no room for its end";
        full.lift();
        EXPECT_EQ(file->ifile->count, 2);
        file->ifile->stream->status = KAL_OK;
        EXPECT_EQ(load(file, 1), first);
        EXPECT_EQ(load(file, 3), later);
        EXPECT_EQ(KalCloseIOpFile(file), KAL_OK);
    }
}
