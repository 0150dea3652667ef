#include "tests/support/faults.h"
#include "tests/support/vmem.h"

#include <kal/heap.h>
#include <kal/path.h>
#include <kal/stream.h>

class VMemStream : public VMemFixture {
protected:
    static SFILE* openStream() {
        SFILE* stream = nullptr;
        EXPECT_EQ(KalOpenFile(&stream, nullptr, KAL_MODE_VMEM | KAL_MODE_UPDATE, 0), 0);
        return stream;
    }
    static uint32_t* tableOf(const SFILE* stream) { return reinterpret_cast<uint32_t*>(stream->backData); }
    static uint32_t blocksOf(const SFILE* stream) { return KalSizeSMem(tableOf(stream)) / 4; }
};

TEST_F(VMemStream, ATransferTouchesThreeBlocksAtMost) {
    open(0);
    SFILE* stream = openStream();
    const Bytes bytes = randomBytes(65535, 1);
    stream->seek(stream, 32760, 0);
    EXPECT_EQ(stream->write(stream, bytes.data(), 65535), 65535); // 8 + 32768 + 32759
    EXPECT_EQ(blocksOf(stream), 3u);
    EXPECT_EQ(KalSetBuf(stream, 100), 0); // leaves the length alone
    EXPECT_EQ(val(stream->bufEnd), 32760u + 65535);
    EXPECT_EQ(stream->putChar(stream, char(0xFF)), 0);
    EXPECT_EQ(stream->seek(stream, -1, 2), 0);
    EXPECT_EQ(KalNextChar(stream), 0xFF);
    EXPECT_EQ(KalNextChar(stream), -255);
    stream->pos = 0x50000; // two blocks past the table: no seek goes there without making them
    EXPECT_EQ(stream->write(stream, "x", 1), 0);
    EXPECT_EQ(val(stream->status), -254);
    EXPECT_EQ(stream->read(stream, &stream, 1), 0);
    EXPECT_EQ(stream->seek(stream, -1, 0), -105) << "4 GiB is past the last block";
    EXPECT_EQ(stream->close(stream), 0);
    EXPECT_EQ(KalCloseVMemFile(nullptr), 0);
    SFILE* late = openStream(); // outlives its manager
    KalCloseVMem();
    EXPECT_EQ(late->write(late, "x", 1), 0);
    EXPECT_EQ(val(late->status), -101);
    EXPECT_EQ(late->close(late), 0);
    EXPECT_EQ(KalOpenFile(&late, nullptr, KAL_MODE_VMEM, 0), -101) << "no manager";
    EXPECT_EQ(late, nullptr);
}

TEST_F(VMemStream, ASeekMakesWhatOneBeforeCouldNot) {
    for (const uint32_t again : {100'000u, 200'000u}) { // the same place, or further on
        open(0);
        SFILE* stream = openStream();
        failHeapAllocationsFrom(3); // the table and a block can be had
        EXPECT_EQ(stream->seek(stream, 100'000, 0), -101);
        failHeapAllocation(0);
        EXPECT_EQ(val(stream->pos), 0u);
        EXPECT_EQ(val(stream->bufEnd), 100'000u) << "longer at once";
        EXPECT_EQ(stream->seek(stream, int32_t(again), 0), 0);
        EXPECT_EQ(stream->seek(stream, 0, 0), 0);
        Bytes whole(100'000);
        EXPECT_EQ(stream->read(stream, whole.data(), 50'000), 50'000);
        EXPECT_EQ(stream->read(stream, whole.data(), 50'000), 50'000) << "no block is missing";
        EXPECT_EQ(stream->seek(stream, INT32_MIN, 0), -105) << "2 GiB is too far";
        EXPECT_EQ(val(stream->bufEnd), again) << "and makes nothing longer";
        EXPECT_EQ(stream->close(stream), 0);
        KalCloseVMem();
    }
}

TEST_F(VMemStream, FailuresSayWhichMemoryWasShort) {
    std::vector<int16_t> writes, seeks;
    const Bytes bytes = randomBytes(50000, 2);
    const int met = withEachAllocationFailing([&](int) {
        if (KalOpenVMem(0) != 0)
            return;
        SFILE* stream = nullptr;
        const int16_t opened = KalOpenFile(&stream, nullptr, KAL_MODE_VMEM, 0);
        if (opened != 0) {
            EXPECT_TRUE(opened == -100 || opened == -105 || opened == -101) << opened;
            KalCloseVMem();
            return;
        }
        const int32_t moved = stream->write(stream, bytes.data(), 50000);
        writes.push_back(stream->status);
        EXPECT_EQ(moved, stream->status == 0 ? 50000 : 32768);
        EXPECT_EQ(val(stream->pos), uint32_t(moved)) << "by what was moved";
        EXPECT_EQ(val(stream->bufEnd), uint32_t(moved));
        const int16_t sought = stream->seek(stream, 100000, 0);
        seeks.push_back(sought);
        EXPECT_EQ(val(stream->pos), sought == 0 ? 100000 : uint32_t(moved));
        EXPECT_EQ(val(stream->bufEnd), 100000u) << "longer at once";
        // A block that could not be made is missing, and made when it is written to.
        EXPECT_EQ(stream->seek(stream, moved, 0), 0);
        EXPECT_EQ(stream->write(stream, bytes.data() + moved, uint32_t(50000 - moved)), 50000 - moved);
        stream->seek(stream, 0, 0);
        Bytes got(50000);
        EXPECT_EQ(stream->read(stream, got.data(), 50000), 50000);
        EXPECT_EQ(got, bytes);
        EXPECT_EQ(stream->close(stream), 0);
        KalCloseVMem();
    });
    EXPECT_GE(met, 12);
    EXPECT_NE(std::find(writes.begin(), writes.end(), -254), writes.end());
    EXPECT_NE(std::find(seeks.begin(), seeks.end(), -105), seeks.end());
    open(0);
    failHeapAllocationsFrom(3); // record and table can be had, no block
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, nullptr, KAL_MODE_VMEM, 0), -101);
    failHeapAllocation(0);
}
