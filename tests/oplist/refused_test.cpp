// What lists refuse: no list at all, positions that lead nowhere, blocks that cannot be brought back.
#include "tests/oplist/lists.h"
#include "tests/support/trouble.h"
#include "tests/support/vector_stream.h"

#include <sys/mman.h>

namespace {

using Refused = ListTest;

struct RowFilter : FilterOps {
    void FilterOp(void* op, uint16_t, uint16_t) override {
        if (op != nullptr) // an end op has no bytes
            seen.push_back(*static_cast<uint8_t*>(op));
    }
    Bytes seen;
};

struct RowSink : OpSink {
    uint32_t PutOp(void*) override { return 1; }
    uint32_t PutOpData(uint32_t, const void* data, uint32_t) override {
        seen.push_back(*static_cast<const uint8_t*>(data));
        return 1;
    }
    Bytes seen;
};

// What reads or puts at the list's position; whether it could.
using Step = bool (*)(OpList*);
bool getsOp(OpList* list) {
    return !restOf(list, 1).empty();
}
bool putsOp(OpList* list) {
    return putOp(list, {3, Bytes(8)}) != KAL_OP_FAILED;
}
bool getsRow(OpList* list) {
    uint8_t row[8];
    return KalGetDIBOpData(list, row, sizeof row) == KAL_OK;
}
bool putsRow(OpList* list) {
    return KalPutDIBOpData(list, "a row..", 8) != KAL_OP_FAILED;
}
bool putsLongOp(OpList* list) {
    return putOp(list, {3, Bytes(60'000)}) != KAL_OP_FAILED;
}
bool copies(OpList* list) {
    OpList* clone = nullptr;
    const int status = KalCloneOpList(list, &clone);
    if (clone != nullptr && clone->dib != nullptr)
        KalFreeSMem(clone->dib->attachment); // its owner's
    KalCloseOpList(clone);
    return status == KAL_OK;
}

} // namespace

TEST_F(Refused, NoListIsNoCrash) {
    OpList* clone = nullptr;
    RowFilter filter;
    for (const int status :
         {KalGetDIBOpData(nullptr, nullptr, 0), KalSeekDIBOp(nullptr, 0), KalCloneOpList(nullptr, &clone),
          KalSeekDIBScanLineOffset(nullptr, 0, 0), KalCloneDIBOpList(nullptr, &clone)})
        EXPECT_EQ(status, KAL_ERR_POSITION);
    for (const int status :
         {KalSetupOpList(nullptr, 0, 0, 1, 1, 8, 0, 0), KalSeekOp(nullptr, 0), KalSeekEndOp(nullptr)})
        EXPECT_EQ(status, KAL_ERR_NULL_STREAM);
    for (void* op :
         {KalGetOp(nullptr), KalGetDIBOp(nullptr), KalGet24DIBOp(nullptr), static_cast<void*>(clone)})
        EXPECT_EQ(op, nullptr);
    KalShrinkDIBOpList(nullptr), KalShrinkOpList(nullptr), KalSetOpListFilter(nullptr, filter);
    EXPECT_EQ(KalDIBPosToLineNumber(nullptr) | uint32_t(KalGetOpError(nullptr)), 0u);
    EXPECT_EQ(KalIsOpListEmpty(nullptr), 1);
    OpList *list = open(KAL_OPL_VMEM), *bitmap = openBitmap(8, 2, 8), *file = open(kNew);
    for (OpList* each : {list, bitmap, file}) {
        EXPECT_EQ(KalPutOp(each, nullptr) & KalPutOp(nullptr, nullptr) & KalPutDIBOp(each, nullptr),
                  KAL_OP_FAILED);
        KalShrinkDIBOpList(each), KalShrinkOpList(each);
        close(each);
    }
}

TEST_F(Refused, APositionThatNoBlockHasIsTold) {
    for (const Step step : {getsOp, putsOp, getsRow, putsRow})
        for (const uint32_t position : {7u << 20, 0x80000000u})
            for (const bool isBitmap : {false, true}) {
                OpList* list = isBitmap ? openBitmap(8, 2, 8) : open(KAL_OPL_VMEM);
                EXPECT_TRUE(isBitmap || putsOp(list));
                list->pos = position;
                EXPECT_FALSE(step(list));
                close(list, KAL_ERR_POSITION);
            }
    for (const uint16_t depth : {uint16_t{8}, uint16_t{24}}) { // a band of more rows than follow
        OpList* list = openBitmap(8, 40, depth);
        EXPECT_EQ(KalSeekOp(list, 39 * depth), KAL_OK);
        list->dib->curLine = 0;
        EXPECT_FALSE(getsOp(list));
        close(list, KAL_ERR_POSITION);
    }
    OpList *list = openBitmap(8, 3000, 8, 8), *clone = nullptr; // more blocks than positions can name
    EXPECT_EQ(KalSeekDIBOp(list, INT32_MAX), KAL_OK);
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 2048, 0), KAL_ERR_POSITION);
    EXPECT_EQ(KalDIBPosToLineNumber(list), 0u);
    list->status = KAL_OK;
    EXPECT_EQ(KalCloneDIBOpList(list, &clone), KAL_ERR_POSITION);
    close(clone), close(list, KAL_ERR_POSITION);
    list = openBitmap(8, 4, 8, 16);
    EXPECT_EQ(KalSeekDIBOp(list, 900 << 20), KAL_ERR_POSITION);
    list->status = KAL_OK;
    EXPECT_FALSE(putsRow(list));
    list->status = KAL_OK;
    list->dib->width = 0;
    EXPECT_EQ(KalGetDIBOp(list), nullptr) << "lines of no bytes";
    close(list, KAL_ERR_POSITION);
    KalOpenOpList(&list, "missing", 0);
    EXPECT_TRUE(list->status != KAL_OK && KalSeekOp(list, 0) == list->status);
    KalCloseOpList(list);
}

TEST_F(Refused, RowsBeforeTheSetUpHaveNoNumber) {
    OpList* list = openBitmap(0, 0, 0, 20);
    EXPECT_TRUE(putsRow(list) && putsRow(list));
    EXPECT_EQ(KalSeekOp(list, 0) & KalSeekDIBScanLineOffset(list, 0, 0), KAL_ERR_POSITION);
    EXPECT_EQ(KalDIBPosToLineNumber(list), 0u);
    close(list);
}

// A swapped block whose bytes cannot be read is told, and nothing of the list is lost by it.
TEST_F(Refused, ABlockThatCannotBeBroughtBackIsTold) {
    const std::pair<Step, uint16_t> cases[] = {{getsOp, 0},  {putsOp, 0},  {putsLongOp, 0}, {copies, 0},
                                               {getsOp, 8},  {getsOp, 24}, {putsOp, 8},     {copies, 8},
                                               {getsRow, 8}, {putsRow, 8}};
    EXPECT_EQ(KalCloseVMem(), KAL_OK); // each run has a manager of its own
    for (const auto& [step, depth] : cases) {
        SCOPED_TRACE(::testing::Message() << "case " << &step - &cases[0].first);
        OpList* list = nullptr;
        const auto makeSwapped = [&, depth = depth] {
            EXPECT_EQ(KalOpenVMem(0), KAL_OK);
            list = depth != 0 ? openBitmap(8, 20, depth) : open(KAL_OPL_VMEM, 1000);
            for (int i = 0; i < 8; i++)
                EXPECT_TRUE(depth != 0 ? putsRow(list) : putsOp(list));
            EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
            void* large = nullptr;
            for (uint32_t bytes = 2 << 20; large == nullptr; bytes -= 64) // all there is
                large = KalAllocVMem(2, bytes);
            KalFreeVMem(large);
        };
        const auto goOn = [&, step = step](int status) {
            EXPECT_TRUE(step == copies || KalGetOpError(list) == status); // a copy tells itself
            list->status = KAL_OK;
            EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
            EXPECT_TRUE(step(list));
            close(list);
            EXPECT_EQ(KalCloseVMem(), KAL_OK);
        };
        const auto run = [&, step = step] { return step(list) ? int(KAL_OK) : int(KAL_ERR_VMEM); };
        EXPECT_GT(walkTrouble({.prepare = makeSwapped, .run = run, .statuses = {KAL_ERR_VMEM}, .check = goOn},
                              kHostFails),
                  1)
            << "nothing was swapped";
    }
    EXPECT_EQ(KalOpenVMem(0), KAL_OK);
}

// Memory that runs out behind a filler leaves a list that reads to there, and goes on where memory is there again.
TEST_F(Refused, APutWithoutMemoryLeavesNothing) {
    for (const int fault : {1, 2}) {
        OpList *list = open(KAL_OPL_VMEM, 100), *clone = nullptr;
        const Op op{5, Bytes(60)};
        EXPECT_EQ(putOpData(list, op), 0u);
        failHeapAllocationsFrom(fault);
        for (const Op& each : {op, Op{5, Bytes(200)}}) {
            list->status = KAL_OK;
            EXPECT_EQ(putOpData(list, each), KAL_OP_FAILED);
        }
        failHeapAllocation(0);
        list->status = KAL_OK;
        list->putPending = 0;
        EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
        EXPECT_EQ(restOf(list).size(), 1u);
        EXPECT_EQ(KalCloneOpList(list, &clone), KAL_OK);
        EXPECT_NE(putOpData(list, op), KAL_OP_FAILED);
        close(clone), close(list);
    }
    OpList* bitmap = openBitmap(8, 400, 8);
    bitmap->dib->attachment = KalAllocSMem(6);
    EXPECT_TRUE(putsRow(bitmap));
    for (int n = 1; n < 20; n++) {
        failHeapAllocation(n);
        EXPECT_TRUE(copies(bitmap) || heapFaultHappened());
        failHeapAllocation(0);
    }
    EXPECT_EQ(KalSeekOp(bitmap, 8), KAL_OK);
    KalShrinkDIBOpList(bitmap);
    {
        const HostCallGuard guard;
        hostCalls.mmap = [](auto...) { return MAP_FAILED; };
        failHeapAllocationsFrom(1);
        EXPECT_FALSE(putsRow(bitmap)) << "the block cannot grow back";
        failHeapAllocation(0);
    }
    EXPECT_EQ(std::exchange(bitmap->status, KAL_OK), KAL_ERR_VMEM);
    EXPECT_TRUE(putsRow(bitmap));
    KalFreeSMem(bitmap->dib->attachment); // its owner's
    close(bitmap);
    OpList* list = open(KAL_OPL_VMEM, 1);
    list->blockCount = UINT16_MAX;
    EXPECT_FALSE(putsOp(list)) << "no block can be numbered any more";
    close(list, KAL_ERR_MEMORY);
}

TEST_F(Refused, BandsShowAFilterEachRowAndOddOnesPutWhatTheyHold) {
    for (const uint16_t depth : {uint16_t{8}, uint16_t{24}}) {
        OpList* list = openBitmap(2, 3, depth);
        RowFilter filter;
        KalSetOpListFilter(list, filter);
        Op band = bandOf(0, 2, 3, depth, Bytes(3 * (depth == 8 ? 2 : 8)));
        for (int line = 0; line < 3; line++)
            band.payload[KAL_DIB_OP_HEADER + line * (depth == 8 ? 2 : 8)] = uint8_t('a' + line);
        EXPECT_NE(putOp(list, band), KAL_OP_FAILED);
        EXPECT_EQ(filter.seen, (Bytes{0, 'a', 'b', 'c'})) << "the band, then its rows";
        band.payload.resize(KAL_DIB_OP_HEADER), band.payload[4] = band.payload[8] = 0;
        EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
        EXPECT_NE(putOp(list, band), KAL_OP_FAILED) << "three rows of no pixels";
        EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
        EXPECT_EQ(restOf(list)[0].payload[KAL_DIB_OP_HEADER], 0) << "which are black";
        RowSink sink;
        list->filter = nullptr, list->sink = &sink;
        band.payload.resize(KAL_DIB_OP_HEADER + 8), band.payload[4] = 1, band.payload[6] = 1;
        putOp(list, band, KalPutDIBOp);
        EXPECT_EQ(sink.seen.size(), 1u);
        list->sink = nullptr;
        close(list);
    }
    OpList* list = openBitmap(8, 4, 8);
    EXPECT_TRUE(putsRow(list));
    EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
    EXPECT_NE(KalPutOpData(list, KAL_OP_END, nullptr, 0), KAL_OP_FAILED) << "takes no row's place";
    EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
    EXPECT_EQ(restOf(list)[0].payload[KAL_DIB_OP_HEADER], 'a');
    EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
    for (const uint32_t type : {uint32_t{KAL_OP_ROW}, 7u, uint32_t{KAL_OP_DIB1}})
        EXPECT_NE(KalPutOpData(list, type, nullptr, 0), KAL_OP_FAILED) << type;
    EXPECT_NE(putOp(list, {KAL_OP_DIB1, Bytes(20)}), KAL_OP_FAILED) << "an op like others here";
    close(list);
    list = open(KAL_OPL_VMEM);
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 8, 4, 8, 0, 100), KAL_OK) << "nothing to set up";
    list->flags |= KAL_OPL_DIB;
    EXPECT_NE(putOp(list, {KAL_OP_DIB1, Bytes(20)}), KAL_OP_FAILED) << "nor is anything described";
    EXPECT_EQ(KalGetDIBOp(list), nullptr);
    list->status = KAL_OK;
    close(list);
}

// A list that could not be stored whole, behind whose entry others came, is told by whoever closes the file.
TEST_F(Refused, AListThatDidNotGoInIsToldByTheFilesEnd) {
    for (const bool closes : {false, true})
        for (const bool compressed : {false, true}) {
            VectorStream stream;
            stream.file()->mode |= KAL_MODE_CREATE;
            IOPFILE* file = nullptr;
            OpList* list = nullptr;
            ASSERT_EQ(
                KalMakeIOpFile(&file, stream.file(), KAL_ITEMS_WIDE | (compressed ? KAL_IOP_COMPRESSED : 0)),
                KAL_OK);
            ASSERT_EQ(KalOpenPutIOpList(file, 1, &list), KAL_OK);
            EXPECT_TRUE(compressed || putOpData(list, {5, Bytes(50)}) != KAL_OP_FAILED);
            EXPECT_EQ(KalWriteIFile(file->ifile, "another", 7, 2), 7u);
            stream.file()->pos = list->pos;
            stream.capacity = list->pos + (compressed ? 1 : 0); // the clear code begins
            EXPECT_EQ(putOpData(list, {5, Bytes(50)}), KAL_OP_FAILED);
            EXPECT_NE(closes ? KalCloseIOpFile(file) : KalFreeIOpFile(file), KAL_OK);
        }
}

// Longer than any buffer, so that each read and seek asks the host.
TEST_F(Refused, WhatTheHostDoesNotGiveIsTold) {
    IOPFILE* file = openFile("f", kNew, KAL_ITEMS_WIDE);
    for (const uint16_t id : {uint16_t{1}, uint16_t{2}})
        EXPECT_EQ(store(file, id, std::vector<Op>(30, Op{5, Bytes(1000)})), KAL_OK);
    EXPECT_EQ(KalCloseIOpFile(file), KAL_OK);
    walkTrouble({.run =
                     [] {
                         SFILE* stream = nullptr;
                         if (const int16_t status = KalOpenFile(&stream, "f", 0, 0); status != KAL_OK)
                             return int(status);
                         const std::string told = faultsIn(stream, KalVerifyIOpFile);
                         stream->close(stream);
                         return int(told.empty() ? KAL_OK : KAL_ERR_READ);
                     },
                 .statuses = {KAL_ERR_READ, KAL_ERR_OPEN - EIO}},
                kHostFails);
}
