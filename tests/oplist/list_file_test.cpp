// Operation-list files: many lists in one item file.
#include "tests/oplist/lists.h"
#include "tests/support/trouble.h"

using ListFile = ListTest;

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

TEST_F(ListFile, WholeListsMoveBetweenBlocksAndFilesAndTakeTurns) {
    std::mt19937 random(firstSeed());
    std::vector<Op> ops(200);
    for (Op& op : ops)
        op = randomOp(random, 30000);
    for (uint16_t format : Words{0xC000, 0x8000, 0x4000, 0}) {
        SCOPED_TRACE("seed " + std::to_string(firstSeed()) + ", format " + std::to_string(format));
        const bool packed = (format & KAL_IOP_COMPRESSED) != 0;
        OpList *source = open(KAL_OPL_VMEM), *destination = nullptr, *to = nullptr, *from = nullptr;
        for (const auto& op : ops)
            putOp(source, op);
        KalSeekOp(source, 0);
        ASSERT_EQ(KalTempOpList(&destination, 0), KAL_OK);
        SFILE* stream = nullptr;
        IOPFILE* file = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "f", kNew, 0), KAL_OK);
        ASSERT_EQ(KalMakeIOpFile(&file, stream, format), KAL_OK);
        EXPECT_EQ(KalReserveItems(file->ifile, 30), KAL_OK);
        EXPECT_EQ(KalPutIOpList(file, 9, source), KAL_OK);
        EXPECT_EQ(KalGetIOpList(file, 9, destination), KAL_OK);
        EXPECT_EQ(val(destination->putPending), 1);
        KalSeekOp(destination, 0);
        EXPECT_TRUE(restOf(destination) == ops);
        ASSERT_EQ(KalOpenPutIOpList(file, 10, &to), KAL_OK);
        const uint32_t start = to->pos;
        if (!packed) { // in a compressed file the two may not take turns
            ASSERT_EQ(KalOpenGetIOpList(file, 9, &from), KAL_OK);
        }
        for (const Op& op : ops)
            ASSERT_NE(putOp(to, from != nullptr ? restOf(from, 1)[0] : op), KAL_OP_FAILED);
        ASSERT_EQ(KalSeekOp(to, int32_t(start)), KAL_OK); // read before it is closed, and left anywhere
        EXPECT_EQ(restOf(to, 1)[0], ops[0]);
        EXPECT_EQ(KalFreeIOpFile(file), KAL_OK) << "which ends both lists";
        EXPECT_EQ(stream->close(stream), KAL_OK) << "the caller's to close";
        file = openFile("f", KAL_MODE_UPDATE, format);
        for (uint16_t id = 9; id < 30; id++) { // the first of an id counts
            const std::vector<Op> part(ops.begin() + id, ops.begin() + 2 * id);
            EXPECT_EQ(store(file, id, part), KAL_OK);
            EXPECT_TRUE(load(file, id) == (id < 11 ? ops : part)) << id;
        }
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
        ASSERT_EQ(KalOpenPutIOpList(file, 1, &list), KAL_OK);
        failHeapAllocationsFrom(1);
        EXPECT_TRUE(format != 0xC000 || KalPutOpData(list, 1, "x", 1) == KAL_OP_FAILED);
        failHeapAllocation(0);
        EXPECT_EQ(KalClosePutIOpList(file), KAL_OK) << "an op of which nothing was taken breaks no run";
        file->ifile->count = 0;
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

// What trouble may leave of a file that more lists are stored in: the list that was there, and none that is not whole, but for
// ops refused. Its index goes over an old one.
TEST_F(ListFile, TroubleIsToldAndLosesNoStoredList) {
    for (const uint16_t format : Words{0x8000, 0xC000}) {
        IOPFILE* made = openFile("f", kNew, format);
        EXPECT_EQ(store(made, 1, {{1, bytesOf("kept")}}) | KalReserveItems(made->ifile, 20), KAL_OK);
        EXPECT_EQ(KalCloseIOpFile(made), KAL_OK);
        const auto run = [] {
            IOPFILE* file = nullptr;
            int status = KalOpenIOpFile(&file, "f", KAL_MODE_UPDATE, 0);
            for (uint16_t id = 2; id < 14 && file != nullptr; id++)
                if (const int each = store(file, id, {{id, Bytes(100, 'n')}}); status == KAL_OK)
                    status = each;
            const int closed = KalCloseIOpFile(file);
            return status != KAL_OK ? status : closed;
        };
        const auto check = [](int) {
            IOPFILE* file = openFile("f", 0, 0);
            EXPECT_EQ(load(file, 1), (std::vector<Op>{{1, bytesOf("kept")}}));
            for (uint16_t id = 2; id < 14; id++)
                if (KalFindItem(file->ifile, id) != nullptr) {
                    const std::vector<Op> ops = load(file, id);
                    EXPECT_TRUE(ops.empty() || ops == (std::vector<Op>{{id, Bytes(100, 'n')}}));
                }
            EXPECT_EQ(faultsIn(file->ifile->stream, KalVerifyIOpFile), "");
            KalCloseIOpFile(file);
        };
        walkTrouble(
            {.run = run,
             .statuses = {KAL_ERR_MEMORY, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ, KAL_ERR_CLOSE,
                          KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END, KAL_ERR_RUN, KAL_ERR_OPEN - EIO},
             .check = check,
             .unfinished = {"f"}},
            kAllTrouble & ~kDiskFull);
    }
}
