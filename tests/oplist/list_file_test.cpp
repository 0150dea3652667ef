// Operation-list files: many lists in one item file.
#include "tests/support/faults.h"
#include "tests/support/ops.h"

#include <cerrno>

namespace {

class ListFile : public FolderTest {
protected:
    static IOPFILE* open(const char* name, uint16_t mode, uint16_t format) {
        IOPFILE* file = nullptr;
        EXPECT_EQ(KalOpenIOpFile(&file, name, mode, format), 0);
        return file;
    }
    static void store(IOPFILE* file, uint16_t id, const std::vector<Op>& ops) {
        OpList* list = nullptr;
        ASSERT_EQ(KalOpenPutIOpList(file, id, &list), 0);
        for (const auto& op : ops)
            ASSERT_NE(putOp(list, op), KAL_OP_FAILED);
        ASSERT_EQ(KalClosePutIOpList(file), 0);
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

constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

std::vector<Op> randomOps(uint32_t seed, int count, uint32_t most) {
    std::mt19937 random(seed);
    std::vector<Op> ops;
    for (int i = 0; i < count; i++)
        ops.push_back(randomOp(random, most));
    return ops;
}

} // namespace

TEST_F(ListFile, AStoredListIsAnItemOfItsOpsAndTheEndOp) {
    HeapBalance balance;
    IOPFILE* file = open("f", kNew, 0);
    const std::vector<Op> ops = {{1, bytesOf("a")}, {2, {}}, {3, bytesOf("ccc")}};
    store(file, 5, ops);
    store(file, 6, {});
    EXPECT_EQ(KalClosePutIOpList(file), -250) << "no list is being stored";
    EXPECT_EQ(KalCloseGetIOpList(file), -250);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    const Bytes bytes = readFile("f");
    const Bytes item = stored({ops[0], ops[1], ops[2], {0, {}}});
    EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.begin() + 12), (Bytes{5, 0, 20, 0, 84, 0, 0, 0}));
    EXPECT_EQ(Bytes(bytes.begin() + 84, bytes.begin() + 104), item);
    EXPECT_EQ(Bytes(bytes.begin() + 104, bytes.end()), Bytes(4)) << "a list without ops has its end op";

    file = open("f", 0, 0);
    EXPECT_EQ(load(file, 5), ops);
    EXPECT_EQ(load(file, 6), std::vector<Op>{});
    OpList* list = nullptr;
    EXPECT_EQ(KalOpenGetIOpList(file, 7, &list), 1);
    EXPECT_EQ(KalOpenGetIOpList(file, KAL_ITEM_FREE, &list), 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(KalCloseIOpFile(file), 0);

    file = open("g", kNew, KAL_IOP_COMPRESSED);
    store(file, 1, {{100, {'h', 'e', 'l', 'l', 'o', 0}}, {101, {'w', 'o', 'r', 'l', 'd', 0}}});
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    EXPECT_EQ(readFile("g"), hexExample("docs/formats/operation-list-file.md"));
}

TEST_F(ListFile, ManyListsComeBackInEveryFormat) {
    HeapBalance balance;
    for (uint16_t format : Words{0x0000, 0x4000, 0x8000, 0xC000}) {
        SCOPED_TRACE(format);
        IOPFILE* file = open("f", kNew, format);
        // The first is large in its narrow file; small ones follow, so that the index can grow past them.
        std::vector<std::vector<Op>> lists;
        for (uint16_t id = 0; id < 40; id++) {
            lists.push_back(randomOps(id, id % 7 * 5, id % 2 == 0 ? 40 : 900));
            store(file, id, lists.back());
            if (id % 10 == 9) {
                ASSERT_EQ(load(file, id / 2), lists[id / 2]) << "while the file grows";
            }
        }
        EXPECT_EQ(KalCloseIOpFile(file), 0);
        file = open("f", KAL_MODE_UPDATE, format);
        for (uint16_t id = 40; id-- > 0;)
            ASSERT_EQ(load(file, id), lists[id]) << "list " << id;
        store(file, 3, lists[4]); // a second entry under the id: the first is found
        EXPECT_EQ(load(file, 3), lists[3]);
        EXPECT_EQ(KalCloseIOpFile(file), 0);
        EXPECT_EQ(KalOpenIOpFile(&file, "f", 0, format ^ 0x0001), -650);
        EXPECT_EQ(file, nullptr);
    }
}

TEST_F(ListFile, ALongListInANarrowFileReadsBackWhole) {
    const std::vector<Op> ops = randomOps(1, 50, 10000);
    IOPFILE* file = open("f", kNew, 0);
    store(file, 1, ops);
    ASSERT_GT(file->ifile->stream->pos, 70000u);
    EXPECT_EQ(KalFindItem(file->ifile, 1)->narrow.size, uint16_t(file->ifile->stream->pos - 84));
    EXPECT_EQ(load(file, 1), ops);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
}

TEST_F(ListFile, WholeListsMoveBetweenListsAndFiles) {
    HeapBalance balance;
    const std::vector<Op> ops = randomOps(2, 30, 2000);
    OpList* source = nullptr;
    OpList* destination = nullptr;
    ASSERT_EQ(KalOpenOpList(&source, "source", kNew), 0);
    ASSERT_EQ(KalTempOpList(&destination, 0), 0);
    for (const auto& op : ops)
        putOp(source, op);
    KalSeekOp(source, 0);
    IOPFILE* file = nullptr;
    SFILE* stream = nullptr;
    ASSERT_EQ(KalOpenFile(&stream, "f", kNew, 0), 0);
    ASSERT_EQ(KalMakeIOpFile(&file, stream, 0xC000), 0);
    EXPECT_EQ(KalPutIOpList(file, 9, source), 0);
    EXPECT_EQ(KalGetIOpList(file, 8, destination), 1);
    EXPECT_EQ(KalGetIOpList(file, 9, destination), 0);
    EXPECT_EQ(KalFreeIOpFile(file), 0);
    EXPECT_EQ(stream->close(stream), 0) << "the caller's to close";
    KalSeekOp(destination, 0);
    EXPECT_EQ(restOf(destination), ops);
    KalCloseOpList(source);
    KalCloseOpList(destination);

    ASSERT_EQ(KalOpenTempIOpFile(&file), 0);
    store(file, 1, ops);
    EXPECT_EQ(load(file, 1), ops);
    EXPECT_EQ(KalCloseIOpFile(file), 0);
    EXPECT_EQ(filesIn("."), (std::vector<std::string>{"f", "source"}));
}

TEST_F(ListFile, ClosingTheFileEndsTheListsThatStillStand) {
    HeapBalance balance;
    for (uint16_t format : Words{0x8000, 0xC000}) {
        IOPFILE* file = open("f", kNew, format);
        store(file, 1, {{1, bytesOf("first")}});
        OpList* get = nullptr;
        OpList* put = nullptr;
        ASSERT_EQ(KalOpenGetIOpList(file, 1, &get), 0);
        ASSERT_EQ(KalOpenPutIOpList(file, 2, &put), 0);
        putOp(put, {2, bytesOf("second")});
        EXPECT_EQ(KalCloseIOpFile(file), 0);
        file = open("f", 0, format);
        EXPECT_EQ(load(file, 2), (std::vector<Op>{{2, bytesOf("second")}}));
        KalCloseIOpFile(file);
    }
}

TEST_F(ListFile, TwoListsOfAPlainFileTakeTurns) {
    IOPFILE* file = open("f", kNew, 0x8000);
    const std::vector<Op> ops = randomOps(3, 40, 300);
    store(file, 1, ops);
    OpList* from = nullptr;
    OpList* to = nullptr;
    ASSERT_EQ(KalOpenGetIOpList(file, 1, &from), 0);
    ASSERT_EQ(KalOpenPutIOpList(file, 2, &to), 0);
    while (void* op = KalGetOp(from)) {
        EXPECT_NE(KalPutOp(to, op), KAL_OP_FAILED);
        KalFreeSMem(KalOpBlock(op));
    }
    EXPECT_EQ(KalClosePutIOpList(file), 0);
    EXPECT_EQ(KalCloseGetIOpList(file), 0);
    EXPECT_EQ(load(file, 2), ops);
    KalCloseIOpFile(file);
}
