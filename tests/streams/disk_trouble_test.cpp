// Disk streams in trouble: full disks, failing calls, failing closes.
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/trouble.h"

#include <kal/storage.h>
#include <kal/stream.h>

#include <cerrno>
#include <fcntl.h>
#include <functional>

namespace {

class DiskTrouble : public FolderTest {
protected:
    SFILE* open(const char* name, uint16_t mode, uint32_t bufSize = 512) {
        SFILE* stream = nullptr;
        EXPECT_EQ(KalOpenFile(&stream, name, mode, 0), 0);
        EXPECT_EQ(KalSetBuf(stream, bufSize), 0);
        return stream;
    }
};

constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_WRITE;

// A full disk: `limit` bytes fit. The blocked state stands until something succeeds.
void fillAndRecover(const char* name, uint32_t limit, const std::function<void()>& makeRoom) {
    SFILE* s = nullptr;
    ASSERT_EQ(KalOpenFile(&s, name, kNew, 0), 0);
    KalSetBuf(s, 0);
    Bytes bytes = randomBytes(limit + 5000, 9);
    const int32_t accepted = s->write(s, bytes.data(), uint32_t(bytes.size()));
    EXPECT_EQ(accepted, int32_t(limit));
    EXPECT_EQ(val(s->status), -254);
    EXPECT_EQ(val(s->pos), uint32_t(accepted));
    EXPECT_EQ(val(s->osPos), uint32_t(accepted));
    EXPECT_EQ(s->write(s, "x", 1), 0) << "blocked";
    EXPECT_EQ(s->seek(s, 0, 0), -254) << "blocked";
    uint8_t byte;
    s->pos = 0; // a caller that reads elsewhere
    EXPECT_EQ(s->read(s, &byte, 1), 1) << "a read that succeeds lifts the block";
    EXPECT_EQ(val(s->status), 0);
    EXPECT_EQ(s->seek(s, accepted, 0), 0);
    makeRoom();
    EXPECT_EQ(s->write(s, bytes.data() + accepted, uint32_t(bytes.size()) - uint32_t(accepted)), 5000);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(readFile(name), bytes);
}

} // namespace

TEST_F(DiskTrouble, AFileSizeLimitIsAFullDiskToo) {
    FileSizeLimit limit(10000);
    fillAndRecover("f", 10000, [&] { limit.lift(); });
}

TEST_F(DiskTrouble, ABufferedWriteBackThatFailsKeepsTheBuffer) {
    FileSizeLimit limit(100);
    SFILE* s = open("f", kNew);
    const Bytes bytes = randomBytes(600, 1);
    EXPECT_EQ(s->write(s, bytes.data(), 400), 400) << "into the buffer";
    EXPECT_EQ(s->write(s, bytes.data() + 400, 200), -254) << "the status itself is the result";
    EXPECT_EQ(val(s->dirty), 1);
    EXPECT_EQ(val(s->osPos), 100u) << "where the host's pointer stands";
    EXPECT_EQ(s->close(s), -254);
    EXPECT_EQ(KalFlushBuf(s), -254) << "open and whole";
    limit.lift();
    EXPECT_EQ(KalFlushBuf(s), 0);
    EXPECT_EQ(s->putChar(s, 'z'), 0);
    EXPECT_EQ(s->close(s), 0);
    Bytes expected(bytes.begin(), bytes.begin() + 512); // what the buffer could hold when it failed
    expected.push_back('z');
    EXPECT_EQ(readFile("f"), expected);
}

TEST_F(DiskTrouble, ACharacterPutIntoTheBufferLiftsTheBlock) {
    SFILE* s = open("f", kNew);
    EXPECT_EQ(s->putChar(s, 'a'), 0);
    s->status = -254;
    EXPECT_EQ(s->write(s, "b", 1), 0);
    EXPECT_EQ(s->putChar(s, 'b'), 0);
    EXPECT_EQ(s->write(s, "c", 1), 1);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(readFile("f"), bytesOf("abc"));
}

TEST_F(DiskTrouble, FailingHostCallsGiveTheirStatuses) {
    const Bytes content = randomBytes(3000, 2);
    const auto failRead = [](int, void*, size_t) -> ssize_t { return errno = EIO, -1; };
    const auto failWrite = [](int, const void*, size_t) -> ssize_t { return errno = EIO, -1; };
    const auto failSeek = [](int, off_t, int) -> off_t { return errno = EIO, -1; };
    for (uint32_t bufSize : {0u, 512u}) {
        SCOPED_TRACE(bufSize);
        writeFile("f", content);
        SFILE* s = open("f", KAL_MODE_UPDATE, bufSize);
        HostCallGuard guard;
        const HostCalls good = hostCalls;
        Bytes bytes(2000);
        EXPECT_EQ(s->read(s, bytes.data(), 100), 100);

        // Reads: straight and, with a buffer, through it.
        hostCalls.read = failRead;
        for (uint32_t count : {1000u, 1u}) {
            s->seek(s, 2000, 0);
            EXPECT_EQ(s->read(s, bytes.data(), count), 0);
            EXPECT_EQ(val(s->status), -252);
            EXPECT_EQ(val(s->pos), 2000u);
            EXPECT_EQ(s->getChar(s), -252);
        }
        hostCalls = good;
        EXPECT_EQ(s->getChar(s), content[2000])
            << "and what the failed read left behind is not taken for data";
        EXPECT_EQ(s->seek(s, 50, 0), 0);
        EXPECT_EQ(s->getChar(s), content[50]);

        // Writes; in update mode a small one reads first.
        hostCalls.write = failWrite;
        s->seek(s, 1000, 0);
        EXPECT_EQ(s->write(s, bytes.data(), 1000), bufSize == 0 ? 0 : -251);
        EXPECT_EQ(val(s->status), -251);
        hostCalls = good;
        if (bufSize > 0) {
            EXPECT_EQ(val(s->dirty), 1) << "what the buffer took is not lost";
            EXPECT_EQ(KalFlushBuf(s), 0);
            hostCalls.read = failRead;
            s->seek(s, 0, 0);
            s->seek(s, 1000, 1); // empty buffer, then away from it
            s->pos = 1200;
            EXPECT_EQ(s->write(s, "ab", 2), 0);
            EXPECT_EQ(val(s->status), -252);
            hostCalls = good;
        }

        // Seeks.
        hostCalls.lseek = failSeek;
        EXPECT_EQ(s->seek(s, 0, 2), -257);
        EXPECT_EQ(val(s->status), -257);
        EXPECT_EQ(val(s->pos), KAL_NO_POSITION);
        EXPECT_EQ(s->read(s, bytes.data(), 10), 0);
        EXPECT_EQ(val(s->status), -257);
        EXPECT_EQ(s->write(s, bytes.data(), 10), 0);
        EXPECT_EQ(val(s->status), -257);
        hostCalls = good;
        EXPECT_EQ(s->seek(s, 10, 0), 0);
        EXPECT_EQ(s->getChar(s), content[10]);
        EXPECT_EQ(s->close(s), 0);
    }
}

TEST_F(DiskTrouble, InterruptedAndShortCallsGoOn) {
    HostCallGuard guard;
    static int calls;
    calls = 0;
    hostCalls.read = [](int fd, void* destination, size_t count) -> ssize_t {
        return ++calls % 2 == 0 ? (errno = EINTR, -1) : ::read(fd, destination, std::min<size_t>(count, 7));
    };
    hostCalls.write = [](int fd, const void* source, size_t count) -> ssize_t {
        return ++calls % 2 == 0 ? (errno = EINTR, -1) : ::write(fd, source, std::min<size_t>(count, 7));
    };
    const Bytes bytes = randomBytes(5000, 3);
    SFILE* s = open("f", kNew | KAL_MODE_UPDATE);
    EXPECT_EQ(s->write(s, bytes.data(), 100), 100);
    EXPECT_EQ(s->write(s, bytes.data() + 100, 4900), 4900);
    s->seek(s, 0, 0);
    Bytes back(5000);
    EXPECT_EQ(s->read(s, back.data(), 5000), 5000);
    EXPECT_EQ(back, bytes);
    EXPECT_EQ(s->close(s), 0);
}

// Makes, writes, reads and changes a stream, and closes it whatever came. The first status that told of trouble.
int16_t useStream(SFILE* s, int16_t opened, uint32_t bufSize) {
    int16_t status = opened;
    if (s == nullptr)
        return status;
    const auto note = [&](int16_t given) { status = status != 0 ? status : given; };
    const Bytes bytes = randomBytes(1500, 3);
    Bytes back(1500);
    note(KalSetBuf(s, bufSize));
    s->write(s, bytes.data(), 100);
    note(s->status);
    s->write(s, bytes.data() + 100, 1400);
    note(s->status);
    note(s->seek(s, 0, KAL_SEEK_START));
    const int32_t got = s->read(s, back.data(), 1500);
    note(s->status);
    EXPECT_TRUE(status != 0 || (got == 1500 && back == bytes));
    note(s->seek(s, 700, KAL_SEEK_START));
    note(s->putChar(s, '!'));
    note(s->seek(s, -3, KAL_SEEK_END));
    note(s->putChar(s, '!'));
    const int16_t closed = s->close(s);
    if (closed != 0 && closed != KAL_ERR_CLOSE) { // open and whole
        s->dirty = 0;
        s->close(s);
    }
    note(closed);
    return status;
}

const std::set<int> kTroubles = {-100, -105,       -251,          -252,          -253, -254,
                                 -257, -200 - EIO, -200 - ENOSPC, -200 - ENOMEM, -202};

TEST_F(DiskTrouble, NoStreamLosesWhatItSaysItKept) {
    for (const bool compound : {false, true})
        for (const uint32_t bufSize : {0u, 512u}) {
            SCOPED_TRACE(::testing::Message() << (compound ? "compound" : "disk") << " buffer " << bufSize);
            walkTrouble({.run =
                             [=] {
                                 SFILE* s = nullptr;
                                 const int16_t opened =
                                     compound ? KalOpenFileAsIStream(&s, "f", "s", KAL_MODE_NEW_FILE)
                                              : KalOpenFile(&s, "f", KAL_MODE_NEW_FILE, 0);
                                 return useStream(s, opened, bufSize);
                             },
                         .statuses = kTroubles,
                         .unfinished = {"f"}});
        }
}
