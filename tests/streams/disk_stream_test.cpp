// The disk stream's own ways.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/stream.h>

#include <cstring>
#include <fcntl.h>

namespace {

class DiskStream : public FolderTest {
protected:
    SFILE* open(const char* name, uint16_t mode) {
        SFILE* stream = nullptr;
        EXPECT_EQ(KalOpenFile(&stream, name, mode, 0), 0);
        return stream;
    }
};

} // namespace

TEST_F(DiskStream, RoomInTheBufferCostsNoHostCall) {
    writeFile("f", randomBytes(2000, 4));
    HostCallCounter counter;
    SFILE* s = open("f", 1);
    EXPECT_GE(s->getChar(s), 0);
    EXPECT_EQ(counter.all(), 1) << "one fill";
    for (int i = 0; i < 511; i++)
        s->getChar(s);
    EXPECT_EQ(s->seek(s, 3, 0), 0);
    EXPECT_EQ(s->seek(s, 100, 1), 0);
    for (int i = 0; i < 300; i++)
        EXPECT_EQ(s->putChar(s, 'x'), 0);
    EXPECT_EQ(counter.all(), 1) << "reads, writes and seeks inside the buffer";
    EXPECT_EQ(s->seek(s, 1500, 0), 0);
    EXPECT_EQ(counter.writes(), 1) << "a seek outside writes back first";
    EXPECT_EQ(s->close(s), 0);

    const uint64_t blocks = liveHeapBlocks();
    s = open("f", 1);
    const uint64_t opened = liveHeapBlocks();
    Bytes bytes(10000);
    failHeapAllocationsFrom(1); // reads and writes of any size allocate nothing
    for (uint32_t size : {1u, 100u, 511u, 512u, 513u, 9999u}) {
        s->seek(s, 0, 0);
        s->write(s, bytes.data(), size);
        s->seek(s, 0, 0);
        EXPECT_EQ(s->read(s, bytes.data(), size), int32_t(size));
    }
    EXPECT_FALSE(heapFaultHappened());
    failHeapAllocation(0);
    EXPECT_EQ(liveHeapBlocks(), opened);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(liveHeapBlocks(), blocks);
}

TEST_F(DiskStream, WrappedHandlesTakeNoWritesUntilToldSo) {
    writeFile("f", bytesOf("0123456789"));
    SFILE* s = nullptr;
    ASSERT_EQ(KalMakeSFile(&s, ::open("f", O_RDWR)), 0);
    EXPECT_EQ(val(s->mode), 0);
    EXPECT_EQ(val(s->bufSize), 512u);
    EXPECT_EQ(val(s->bufEnd), 0u);
    EXPECT_EQ(val(s->name), nullptr);
    EXPECT_EQ(s->write(s, "ab", 2), -251);
    EXPECT_EQ(val(s->status), -251);
    EXPECT_EQ(s->putChar(s, 'a'), -251);
    for (uint16_t mode : Words{0x4, 0x8}) { // write bits that open no handle for writing
        s->mode = mode;
        EXPECT_EQ(s->write(s, "ab", 2), -251);
    }
    s->mode = KAL_MODE_WRITE;
    EXPECT_EQ(s->write(s, "ab", 2), 2);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(readFile("f"), bytesOf("ab23456789"));

    EXPECT_EQ(KalSetOffset(nullptr, 1), -258);
    EXPECT_EQ(KalFlushBuf(nullptr), -258);
}

TEST_F(DiskStream, PositionsReachFourGiBAndNoFurther) {
    SFILE* s = open("f", KAL_MODE_CREATE | KAL_MODE_WRITE);
    EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFF0), 0), 0);
    EXPECT_EQ(val(s->pos), 0xFFFFFFF0u);
    EXPECT_EQ(s->write(s, "0123456789abcdefghij", 20), 14) << "positions end at 0xFFFFFFFE";
    EXPECT_EQ(val(s->status), -254);
    EXPECT_EQ(val(s->pos), 0xFFFFFFFEu);
    EXPECT_EQ(s->putChar(s, 'x'), -254);
    EXPECT_EQ(KalFlushBuf(s), 0);
    EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFF0), 0), 0);
    Bytes bytes(40);
    EXPECT_EQ(s->read(s, bytes.data(), 40), 14);
    bytes.resize(14);
    EXPECT_EQ(bytes, bytesOf("0123456789abcd"));
    EXPECT_EQ(s->close(s), 0);

    truncate("f", 0x100000010); // a file that others made longer
    s = open("f", 0);
    KalSetBuf(s, 0);
    EXPECT_EQ(s->seek(s, 0, 2), -257);
    EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFFA), 0), 0);
    EXPECT_EQ(s->read(s, bytes.data(), 10), 4);
    EXPECT_EQ(s->close(s), 0);
}

TEST_F(DiskStream, SetBufReplacesTheBufferAndFallsBack) {
    writeFile("f", randomBytes(100, 5));
    SFILE* s = open("f", 1);
    s->write(s, "lost", 4); // not written back: the caller did not flush
    EXPECT_EQ(KalSetBuf(s, 64), 0);
    EXPECT_EQ(val(s->bufSize), 64u);
    EXPECT_EQ(val(s->dirty), 0);
    EXPECT_EQ(val(s->bufEnd), 0u);
    failHeapAllocation(1); // the new size fails, the old one can be had
    EXPECT_EQ(KalSetBuf(s, 4096), -105);
    EXPECT_EQ(val(s->status), -105);
    EXPECT_EQ(val(s->bufSize), 64u);
    EXPECT_EQ(val(s->bufEnd), 0u);
    failHeapAllocationsFrom(1);
    EXPECT_EQ(KalSetBuf(s, 4096), -105);
    failHeapAllocation(0);
    EXPECT_EQ(val(s->bufSize), 0u);
    EXPECT_EQ(val(s->buf), nullptr);
    EXPECT_EQ(val(s->bufEnd), KAL_NO_POSITION);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(readFile("f"), randomBytes(100, 5));
}
