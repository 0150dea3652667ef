// Operation-list files: many lists in one item file.
#include "tests/oplist/lists.h"
#include "tests/support/trouble.h"

#include <cerrno>
#include <map>

namespace {

class ListFile : public ListTest {
protected:
    static IOPFILE* openFile(uint16_t mode, uint16_t format) {
        IOPFILE* file = nullptr;
        EXPECT_EQ(KalOpenIOpFile(&file, "f", mode, format), 0);
        return file;
    }
    static int store(IOPFILE* file, uint16_t id, const std::vector<Op>& ops) {
        OpList* list = nullptr;
        if (const int status = KalOpenPutIOpList(file, id, &list); status != 0)
            return status;
        bool put = true;
        for (const auto& op : ops)
            put = putOpData(list, op) != KAL_OP_FAILED && put;
        const int status = put ? 0 : KalGetOpError(list);
        const int closed = KalClosePutIOpList(file);
        return status != 0 ? status : closed;
    }
    static std::vector<Op> load(IOPFILE* file, uint16_t id) {
        OpList* list = nullptr;
        EXPECT_EQ(KalOpenGetIOpList(file, id, &list), 0);
        if (list == nullptr)
            return {};
        std::vector<Op> ops = restOf(list);
        EXPECT_EQ(KalGetOpError(list), 0);
        EXPECT_EQ(KalCloseGetIOpList(file), 0);
        return ops;
    }
};

std::vector<Op> randomOps(std::mt19937& random, int count, uint32_t most) {
    std::vector<Op> ops;
    for (int i = 0; i < count; i++)
        ops.push_back(randomOp(random, most));
    return ops;
}

} // namespace

TEST_F(ListFile, AStoredListIsAnItemOfItsOpsAndTheEndOp) {
    IOPFILE* file = openFile(kNew, 0);
    const std::vector<Op> ops = {{1, bytesOf("a")}, {2, {}}, {3, bytesOf("ccc")}};
    EXPECT_EQ(store(file, 5, ops), 0);
    EXPECT_EQ(store(file, 6, {}), 0);
    EXPECT_EQ(KalClosePutIOpList(file), -250) << "no list is being stored";
    EXPECT_EQ(KalCloseGetIOpList(file), -250);
    OpList* list = nullptr;
    EXPECT_EQ(KalOpenGetIOpList(file, 7, &list), 1);
    EXPECT_EQ(KalOpenGetIOpList(file, KAL_ITEM_FREE, &list), 1);
    EXPECT_EQ(KalGetIOpList(file, 7, list), 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    const Bytes bytes = readFile("f");
    EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.begin() + 12), (Bytes{5, 0, 20, 0, 84, 0, 0, 0}));
    EXPECT_EQ(Bytes(bytes.begin() + 84, bytes.begin() + 104), stored({ops[0], ops[1], ops[2], {0, {}}}));
    EXPECT_EQ(Bytes(bytes.begin() + 104, bytes.end()), Bytes(4)) << "a list without ops has its end op";
    EXPECT_EQ(KalOpenIOpFile(&file, "f", 0, 0x4000), -650);
    EXPECT_EQ(file, nullptr);
    file = openFile(kNew, KAL_IOP_COMPRESSED);
    store(file, 1, {{100, {'h', 'e', 'l', 'l', 'o', 0}}, {101, {'w', 'o', 'r', 'l', 'd', 0}}});
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    EXPECT_EQ(readFile("f"), hexExample("docs/formats/operation-list-file.md"));
    EXPECT_EQ(KalCloseIOpFile(nullptr) | KalFreeIOpFile(nullptr), 0);
    ASSERT_EQ(KalOpenTempIOpFile(&file), 0);
    EXPECT_EQ(store(file, 1, ops), 0);
    EXPECT_EQ(load(file, 1), ops);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    EXPECT_EQ(filesIn("."), std::vector<std::string>{"f"});
}

// Lists as users store them, among reads, flushes and reopening; the first of an id counts.
TEST_F(ListFile, RandomListsComeBackInEveryFormat) {
    for (uint16_t format : Words{0x0000, 0x4000, 0x8000, 0xC000})
        for (uint32_t seed = 1; seed <= 3; seed++) {
            SCOPED_TRACE(::testing::Message() << "format " << format << ", seed " << seed);
            std::mt19937 random(seed);
            const bool plain = (format & KAL_IOP_COMPRESSED) == 0;
            IOPFILE* file = openFile(kNew, format);
            EXPECT_EQ(KalReserveItems(file->ifile, 100), 0);
            std::map<uint16_t, std::vector<Op>> model;
            for (int step = 0; step < 60; step++) {
                const auto id = uint16_t(random() % 40);
                const std::vector<Op> ops =
                    randomOps(random, int(random() % 12), random() % 9 == 0 ? 20000 : 300);
                OpList* list = nullptr;
                ASSERT_EQ(KalOpenPutIOpList(file, id, &list), 0);
                const uint32_t start = list->pos;
                for (const auto& op : ops)
                    ASSERT_NE(random() % 2 == 0 ? putOp(list, op) : putOpData(list, op), KAL_OP_FAILED);
                if (random() % 3 == 0)
                    KalFlushBuf(list->stream);
                if (random() % 3 == 0) { // read before it is closed, and left anywhere
                    ASSERT_EQ(KalSeekOp(list, int32_t(start)), 0);
                    if (void* op = KalGetOp(list))
                        KalFreeSMem(KalOpBlock(op));
                }
                ASSERT_EQ(KalClosePutIOpList(file), 0);
                const int32_t size = KalGetItemSize(file->ifile, id);
                if (model.emplace(id, ops).second && plain) {
                    std::vector<Op> ended = model[id];
                    ended.push_back({0, {}});
                    const auto whole = uint32_t(stored(ended).size());
                    ASSERT_EQ(uint32_t(size), format & KAL_ITEMS_WIDE ? whole : uint16_t(whole))
                        << "list " << id;
                }
                if (random() % 4 == 0) {
                    ASSERT_EQ(load(file, id), model[id]) << "list " << id << ", step " << step;
                }
                if (random() % 10 == 0) {
                    ASSERT_EQ(KalCloseIOpFile(file), 0);
                    file = openFile(KAL_MODE_UPDATE, format);
                }
            }
            for (const auto& [id, ops] : model)
                ASSERT_EQ(load(file, id), ops) << "list " << id;
            EXPECT_EQ(KalCloseIOpFile(file), 0);
        }
}

TEST_F(ListFile, WholeListsMoveBetweenBlocksAndFilesAndTakeTurns) {
    std::mt19937 random(1);
    const std::vector<Op> ops = randomOps(random, 200, 30000);
    OpList* source = open(KAL_OPL_VMEM);
    OpList* destination = nullptr;
    ASSERT_EQ(KalTempOpList(&destination, 0), 0);
    for (const auto& op : ops)
        ASSERT_NE(putOp(source, op), KAL_OP_FAILED);
    for (uint16_t format : Words{0xC000, 0x8000}) {
        KalSeekOp(source, 0);
        SFILE* stream = nullptr;
        IOPFILE* file = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "f", kNew, 0), 0);
        ASSERT_EQ(KalMakeIOpFile(&file, stream, format), 0);
        EXPECT_EQ(KalPutIOpList(file, 9, source), 0);
        KalSeekOp(destination, 0);
        EXPECT_EQ(KalGetIOpList(file, 9, destination), 0);
        EXPECT_EQ(val(destination->putPending), 1);
        KalSeekOp(destination, 0);
        EXPECT_TRUE(restOf(destination) == ops);
        OpList* to = nullptr;
        ASSERT_EQ(KalOpenPutIOpList(file, 10, &to), 0);
        if (format == 0x8000) {
            OpList* from = nullptr;
            ASSERT_EQ(KalOpenGetIOpList(file, 9, &from), 0);
            while (void* op = KalGetOp(from)) {
                ASSERT_NE(KalPutOp(to, op), KAL_OP_FAILED);
                KalFreeSMem(KalOpBlock(op));
            }
        } else {
            putOp(to, ops[0]);
        }
        EXPECT_EQ(KalFreeIOpFile(file), 0) << "which ends both lists";
        EXPECT_EQ(stream->close(stream), 0) << "the caller's to close";
        file = openFile(0, format);
        const std::vector<Op> last = load(file, 10);
        EXPECT_TRUE(format == 0x8000 ? last == ops : last == std::vector<Op>{ops[0]});
        EXPECT_EQ(KalCloseIOpFile(file), 0);
    }
    KalCloseOpList(source);
    KalCloseOpList(destination);
}

TEST_F(ListFile, WhatCannotBeStoredIsToldAndLeavesNoEntry) {
    IOPFILE* file = openFile(kNew, 0x8000);
    for (uint16_t id = 0; id < 12; id++)
        EXPECT_EQ(store(file, id, {{1, Bytes(65000, 'x')}, {2, Bytes(65000, 'y')}}), 0);
    EXPECT_EQ(KalCloseIOpFile(file), -100) << "lists this large stand in the index's way";

    file = openFile(kNew, 0);
    for (uint32_t id = 0; id < KAL_ITEMS_MAX_NARROW; id++)
        ASSERT_EQ(store(file, uint16_t(id), {}), 0) << id;
    EXPECT_EQ(store(file, 5000, {}), -105);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    file = openFile(0, 0);
    EXPECT_EQ(store(file, 1, {}), -105);
    EXPECT_EQ(load(file, 4084), std::vector<Op>{});
    EXPECT_EQ(KalCloseIOpFile(file), 0);

    for (uint16_t format : Words{0x8000, 0xC000}) {
        SCOPED_TRACE(format);
        file = openFile(kNew, format);
        const std::vector<Op> first = {{1, bytesOf("first")}}, later = {{3, bytesOf("later")}};
        EXPECT_EQ(store(file, 1, first), 0);
        KalFlushBuf(file->ifile->stream);
        OpList* source = open(KAL_OPL_VMEM);
        for (uint32_t i = 0; i < 20; i++)
            putOp(source, {2, randomBytes(1000, i)});
        KalSeekOp(source, 0);
        {
            FileSizeLimit limit(10000);
            EXPECT_EQ(KalPutIOpList(file, 2, source), -254);
            EXPECT_EQ(val(source->status), 0);
        }
        EXPECT_EQ(KalFindItem(file->ifile, 2), nullptr) << "it would run on into the next list";
        KalCloseOpList(source);
        file->ifile->stream->status = 0;
        EXPECT_EQ(store(file, 3, later), 0);
        EXPECT_EQ(load(file, 1), first);
        EXPECT_EQ(load(file, 3), later);
        EXPECT_EQ(KalCloseIOpFile(file), 0);
    }
}

TEST_F(ListFile, TroubleIsToldAndLosesNoStoredList) {
    for (uint16_t format : Words{0x8000, 0xC000}) {
        IOPFILE* made = openFile(kNew, format);
        EXPECT_EQ(store(made, 1, {{1, bytesOf("kept")}}), 0);
        EXPECT_EQ(KalReserveItems(made->ifile, 20), 0);
        KalCloseIOpFile(made);
        walkTrouble(
            {.run =
                 [&] {
                     IOPFILE* file = nullptr;
                     int status = KalOpenIOpFile(&file, "f", KAL_MODE_UPDATE, format);
                     for (uint16_t id = 2; id < 14 && file != nullptr; id++)
                         if (const int each = store(file, id, {{id, Bytes(100, 'n')}}); status == 0)
                             status = each;
                     const int closed = KalCloseIOpFile(file);
                     return status != 0 ? status : closed;
                 },
             .statuses = {KAL_ERR_MEMORY, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ, KAL_ERR_CLOSE,
                          KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END, -200 - EIO},
             .check =
                 [&](int) {
                     IOPFILE* file = openFile(0, format);
                     EXPECT_EQ(load(file, 1), (std::vector<Op>{{1, bytesOf("kept")}}));
                     for (uint16_t id = 2; id < 14; id++)
                         if (KalFindItem(file->ifile, id) != nullptr) { // an op that was refused is missing
                             const std::vector<Op> ops = load(file, id);
                             EXPECT_TRUE(ops.empty() || ops == (std::vector<Op>{{id, Bytes(100, 'n')}}));
                         }
                     KalCloseIOpFile(file);
                 },
             .unfinished = {"f"}},
            kAllTrouble & ~kDiskFull);
    }
}
