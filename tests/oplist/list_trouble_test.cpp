// Lists in trouble: short memory, full disks, damaged files.
#include "tests/support/faults.h"
#include "tests/support/ops.h"

#include <cerrno>

namespace {

class ListTrouble : public FolderTest {};

constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

} // namespace

TEST_F(ListTrouble, OpsOfEverySize) {
    HeapBalance balance;
    for (uint32_t size : {0u, 1u, 65535u}) {
        void* op = KalCreateOp(0x12345, size);
        ASSERT_NE(op, nullptr);
        EXPECT_EQ(KalOpType(op), 0x2345);
        EXPECT_EQ(KalOpSize(op), size);
        EXPECT_EQ(KalSizeSMem(KalOpBlock(op)), size + 4);
        KalFreeSMem(KalOpBlock(op));
    }
    EXPECT_EQ(KalCreateOp(1, 0xFFFFFFFF), nullptr);
    OpList* list = nullptr;
    ASSERT_EQ(KalTempOpList(&list, 0), 0);
    EXPECT_EQ(KalPutOpData(list, 1, "x", 65536), KAL_OP_FAILED);
    EXPECT_EQ(KalGetOpError(list), -251);
    KalCloseOpList(list);
}

TEST_F(ListTrouble, AFailedOpenLeavesARecordThatClosesCleanly) {
    HeapBalance balance;
    for (uint16_t mode : Words{0x0000, 0x8000, 0x4000, 0xC000}) {
        OpList* list = nullptr;
        const int16_t status = KalOpenOpList(&list, "none\\f", mode);
        EXPECT_EQ(status, (mode & 0x4000) != 0 ? 0 : -200 - ENOENT) << "a list in blocks needs no file";
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(val(list->stream), nullptr);
        EXPECT_EQ(KalGetOpError(list), status);
        if (status != 0) {
            EXPECT_EQ(putOp(list, {1, {}}), KAL_OP_FAILED);
            EXPECT_EQ(KalGetOp(list), nullptr);
            EXPECT_EQ(KalSeekOp(list, 0), status);
            EXPECT_EQ(KalIsOpListEmpty(list), 1);
        }
        KalCloseOpList(list);
    }
    KalCloseOpList(nullptr);
    EXPECT_EQ(KalPutOp(nullptr, nullptr), KAL_OP_FAILED);
    EXPECT_EQ(KalGetOp(nullptr), nullptr);
    EXPECT_EQ(KalIsOpListEmpty(nullptr), 1);
    EXPECT_EQ(KalGetOpError(nullptr), 0);
}

TEST_F(ListTrouble, EachAllocationFailingGivesItsStatusAndLeavesNothing) {
    const Op ops[] = {{1, Bytes(5000, 'a')}, {2, bytesOf("b")}};
    for (uint16_t mode : Words{kNew, kNew | KAL_OPL_COMPRESSED})
        withEachAllocationFailing([&](int n) {
            OpList* list = nullptr;
            const int16_t status = KalOpenOpList(&list, "f", mode);
            if (list == nullptr) {
                EXPECT_EQ(status, -100);
                EXPECT_EQ(n, 1);
                return;
            }
            bool whole = status == 0;
            EXPECT_TRUE(whole || status == -100 || status == -105) << status << " at " << n;
            for (const auto& op : ops)
                whole = putOp(list, op) != KAL_OP_FAILED && whole;
            whole = KalSeekOp(list, 0) == 0 && KalGetOpError(list) == 0 && whole;
            size_t got = restOf(list).size();
            if (whole && got < 2) {
                EXPECT_EQ(KalGetOpError(list), -105) << n;
            }
            KalCloseOpList(list);
            if (!whole)
                return;
            failHeapAllocation(0);
            ASSERT_EQ(KalOpenOpList(&list, "f", mode & KAL_OPL_COMPRESSED), 0);
            EXPECT_EQ(restOf(list), std::vector<Op>(ops, ops + 2)) << "what was stored is whole";
            KalCloseOpList(list);
        });
}

TEST_F(ListTrouble, EachAllocationFailingInAListFileLosesNoStoredList) {
    for (uint16_t format : Words{0x8000, 0xC000}) {
        IOPFILE* file = nullptr;
        ASSERT_EQ(KalOpenIOpFile(&file, "base", kNew, format), 0);
        OpList* list = nullptr;
        KalOpenPutIOpList(file, 1, &list);
        putOp(list, {1, bytesOf("kept")});
        KalCloseIOpFile(file);
        const Bytes base = readFile("base");
        withEachAllocationFailing([&](int n) {
            writeFile("f", base);
            int16_t status = KalOpenIOpFile(&file, "f", KAL_MODE_UPDATE, format);
            if (status == 0) {
                for (uint16_t id = 2; id < 15; id++) {
                    status = KalOpenPutIOpList(file, id, &list);
                    EXPECT_TRUE(status == 0 || status == -100 || status == -105) << status << " at " << n;
                    if (status != 0)
                        continue;
                    putOp(list, {id, bytesOf("new")});
                    EXPECT_EQ(KalClosePutIOpList(file), 0);
                }
                KalCloseIOpFile(file);
            } else {
                EXPECT_TRUE(status == -100 || status == -105) << status << " at " << n;
                EXPECT_EQ(file, nullptr);
            }
            failHeapAllocation(0);
            ASSERT_EQ(KalOpenIOpFile(&file, "f", 0, format), 0);
            ASSERT_EQ(KalOpenGetIOpList(file, 1, &list), 0);
            EXPECT_EQ(restOf(list), (std::vector<Op>{{1, bytesOf("kept")}})) << n;
            KalCloseIOpFile(file);
        });
    }
}

TEST_F(ListTrouble, AFullDiskFailsThePutAndKeepsWhatWasThere) {
    for (uint16_t mode : Words{kNew, kNew | KAL_OPL_COMPRESSED}) {
        OpList* list = nullptr;
        ASSERT_EQ(KalOpenOpList(&list, "f", mode), 0);
        FileSizeLimit limit(20000);
        std::vector<Op> ops;
        Op op = {1, {}};
        do {
            ops.push_back(op);
            op = {1, randomBytes(1000, uint32_t(ops.size()))};
            ASSERT_LT(ops.size(), 100u);
        } while (putOp(list, op) != KAL_OP_FAILED);
        EXPECT_EQ(KalGetOpError(list), -254);
        KalCloseOpList(list);
        limit.lift();
        ASSERT_EQ(KalOpenOpList(&list, "f", mode & KAL_OPL_COMPRESSED), 0);
        const std::vector<Op> back = restOf(list);
        EXPECT_GE(back.size(), 10u);
        EXPECT_EQ(back, std::vector<Op>(ops.begin() + 1, ops.begin() + 1 + long(back.size())));
        KalCloseOpList(list);
    }
}

TEST_F(ListTrouble, CutAndDamagedFilesEndWithAStatusOrTheEnd) {
    std::mt19937 random(5);
    for (uint16_t format : Words{0x8000, 0xC000}) {
        IOPFILE* file = nullptr;
        ASSERT_EQ(KalOpenIOpFile(&file, "whole", kNew, format), 0);
        for (uint16_t id = 0; id < 3; id++) {
            OpList* list = nullptr;
            KalOpenPutIOpList(file, id, &list);
            for (int i = 0; i < 10; i++)
                putOp(list, randomOp(random, 100));
            KalClosePutIOpList(file);
        }
        KalCloseIOpFile(file);
        const Bytes whole = readFile("whole");
        for (int round = 0; round < 200; round++) {
            Bytes bytes = whole;
            if (round % 2 == 0)
                bytes.resize(random() % whole.size());
            else
                for (int flips = 0; flips < 4; flips++)
                    bytes[random() % (flips == 0 ? 40 : bytes.size())] = uint8_t(random());
            writeFile("f", bytes);
            HeapBalance balance;
            if (KalOpenIOpFile(&file, "f", round % 4 < 2 ? 0 : KAL_MODE_UPDATE, 0) != 0)
                continue;
            for (uint16_t id = 0; id < 3; id++) {
                OpList* list = nullptr;
                if (KalOpenGetIOpList(file, id, &list) != 0)
                    continue;
                EXPECT_LE(restOf(list).size(), 100000u);
                KalCloseGetIOpList(file);
            }
            KalCloseIOpFile(file);
        }
    }
}
