#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/vmem.h"

#include <kal/stream.h>

namespace {

SFILE* openMemory() {
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, "not used", KAL_MODE_MEMORY | KAL_MODE_UPDATE, 0), 0);
    return stream;
}

void* blockOf(const SFILE* stream) {
    return reinterpret_cast<void*>(uintptr_t(stream->handle));
}

} // namespace

TEST(MemoryStream, TheLengthCatchesUpAtASeek) {
    HeapBalance balance;
    SFILE* stream = openMemory();
    uint8_t bytes[10];
    EXPECT_EQ(stream->read(stream, bytes, 10), 0);
    EXPECT_EQ(val(stream->status), -255);
    EXPECT_EQ(stream->getChar(stream), -255);
    EXPECT_EQ(stream->write(stream, "abc\xFF", 4), 4); // grows the block from nothing
    EXPECT_EQ(val(stream->osPos), 4u);
    EXPECT_EQ(stream->putChar(stream, 'e'), 0); // does not
    EXPECT_EQ(val(stream->osPos), 4u);
    EXPECT_EQ(stream->seek(stream, -2, 2), 0);
    EXPECT_EQ(val(stream->osPos), 5u);
    EXPECT_EQ(stream->getChar(stream), 0xFF);
    EXPECT_EQ(KalSetBuf(stream, 100), 0); // a buffer that is not used, and does not leak
    EXPECT_EQ(KalNextChar(stream), 'e');
    EXPECT_EQ(KalCloseMemFile(nullptr), 0);
    EXPECT_EQ(stream->close(stream), 0);
}

TEST(MemoryStream, FailuresLeaveItWhole) {
    HeapBalance balance;
    const int met = withEachAllocationFailing([](int) {
        SFILE* stream = nullptr;
        const int16_t status = KalOpenFile(&stream, "", KAL_MODE_MEMORY, 0);
        if (status != 0) {
            EXPECT_TRUE(status == -100 || status == -259) << status;
            EXPECT_EQ(stream, nullptr);
            return;
        }
        const Bytes bytes = randomBytes(5000, 1);
        stream->write(stream, bytes.data(), 1000);
        if (stream->write(stream, bytes.data(), 5000) == -259) {
            EXPECT_EQ(val(stream->status), -259);
            EXPECT_EQ(val(stream->osPos), 1000u);
            EXPECT_EQ(GlobalSize(blockOf(stream)), 1024u);
        }
        stream->close(stream);
    });
    EXPECT_EQ(met, 3); // record, block, growth
    SFILE* stream = openMemory();
    stream->seek(stream, -10, 0); // just below 4 GiB
    EXPECT_EQ(stream->write(stream, "0123456789abcdef", 16), -259);
    GlobalReAlloc(blockOf(stream), 0, GMEM_MOVEABLE); // a discarded block cannot be locked
    char byte;
    EXPECT_EQ(stream->read(stream, &byte, 1), -259);
    stream->close(stream);
}
