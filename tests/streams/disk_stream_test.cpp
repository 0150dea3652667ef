// What only disk streams do: over a handle, past 4 GiB, windows anew, lines under a status that stands.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/stream.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

class DiskStream : public FolderTest {
protected:
    SFILE* open(const Bytes& bytes) {
        writeFile("f", bytes);
        EXPECT_EQ(KalMakeSFile(&s_, ::open("f", O_RDWR)), KAL_OK);
        return s_;
    }
    ~DiskStream() override { EXPECT_EQ(s_->close(s_), KAL_OK); }

    SFILE* s_ = nullptr;
};

} // namespace

TEST_F(DiskStream, AWrappedHandleTakesNoWritesUntilToldSo) {
    SFILE* s = open(bytesOf("0123456789"));
    EXPECT_TRUE(s->name == nullptr && s->bufSize == 512 && s->bufEnd == 0 && s->status == KAL_OK);
    for (const uint16_t mode : Words{0, 0x4, KAL_MODE_APPEND}) { // none of these opens a handle for writing
        s->mode = mode;
        EXPECT_EQ(s->write(s, "ab", 2), KAL_ERR_WRITE);
    }
    s->mode = KAL_MODE_WRITE;
    EXPECT_EQ(s->write(s, "ab", 2), 2);
    EXPECT_EQ(KalFlushBuf(s), KAL_OK);
    EXPECT_EQ(readFile("f"), bytesOf("ab23456789"));
}

TEST_F(DiskStream, NothingIsReadPastTheLastPosition) {
    SFILE* s = open({});
    ASSERT_EQ(::truncate("f", 0x100000010), 0); // by others
    EXPECT_EQ(s->seek(s, 0, KAL_SEEK_END), KAL_ERR_SEEK);
    EXPECT_EQ(::lseek(int(s->handle), 0, SEEK_CUR), val(s->osPos));
    Bytes bytes(10);
    for (const uint32_t bufSize : {0u, 512u}) {
        KalSetBuf(s, bufSize);
        EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFFA), KAL_SEEK_START), KAL_OK);
        EXPECT_EQ(s->read(s, bytes.data(), 10), 4);
    }
}

TEST_F(DiskStream, ConstrainingAgainReplacesTheWindow) {
    const Bytes bytes = randomBytes(1000, 3);
    SFILE* s = open(bytes);
    EXPECT_EQ(KalConstrainFile(s, 100, 900), 0);
    EXPECT_EQ(s->getChar(s), bytes[100]);
    for (const int32_t end : {500, 400, -1}) { // no end: a base offset alone
        EXPECT_EQ(KalConstrainFile(s, 300, 301), 0);
        EXPECT_EQ(s->getChar(s), bytes[300]);
        EXPECT_EQ(s->getChar(s), KAL_ERR_END);
        EXPECT_EQ(KalConstrainFile(s, 500, end), 0);
        EXPECT_EQ(s->seek(s, 10, KAL_SEEK_START), KAL_OK);
        EXPECT_EQ(val(s->pos), 510u);
        Bytes got(600);
        EXPECT_EQ(s->read(s, got.data(), 600), 490);
        EXPECT_EQ(s->seek(s, -10, KAL_SEEK_END), KAL_OK);
        EXPECT_EQ(s->getChar(s), bytes[990]);
    }
    KalUnconstrainFile(s);
    EXPECT_EQ(val(s->pos), 991u) << "position and buffer stay";
    EXPECT_EQ(s->seek(s, 0, KAL_SEEK_START), KAL_OK);
    EXPECT_EQ(s->getChar(s), bytes[0]);
    EXPECT_EQ(KalConstrainFile(nullptr, 1, 5), 1);
}

TEST_F(DiskStream, AStandingStatusEndsTheLineAfterOneCharacter) {
    SFILE* s = open(bytesOf("abc\rdef"));
    EXPECT_EQ(s->getChar(s), 'a');
    s->status = KAL_ERR_SEEK; // as a refused seek leaves it, with bytes still in the buffer
    char line[] = "########";
    EXPECT_EQ(KalGetStr(s, line, 8), KAL_ERR_SEEK);
    EXPECT_STREQ(line, "b#######");
    EXPECT_EQ(s->seek(s, 0, KAL_SEEK_CURRENT), KAL_OK);
    EXPECT_EQ(KalGetStr(s, line, 8), KAL_OK);
    EXPECT_STREQ(line, "c");
}
