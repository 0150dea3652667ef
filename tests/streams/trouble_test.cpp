// Streams in trouble: full disks, failing host calls, no memory.
#include "tests/streams/streams.h"
#include "tests/support/storage.h"
#include "tests/support/vmem.h"

using StreamTrouble = VMemFixture;

TEST_F(StreamTrouble, AFullDiskKeepsWhatFitsAndTheBuffer) {
    const Bytes bytes = randomBytes(150'000, 9);
    for (const bool inFile : {true, false})
        for (const uint32_t bufSize : {0u, 512u, 9000u}) {
            SCOPED_TRACE(::testing::Message() << (inFile ? "disk" : "compound") << " buffer " << bufSize);
            SFILE* s = openStream("f", KAL_MODE_NEW_FILE, KAL_OK, inFile ? nullptr : "s");
            KalSetBuf(s, bufSize);
            FileSizeLimit limit(90'000); // more than a new compound file sets aside
            int32_t got = 700;
            while (got == 700)
                got = s->write(s, &bytes[s->pos], 700);
            const uint32_t accepted = s->pos;
            EXPECT_TRUE(!inFile || (s->osPos == 90'000 && accepted == std::max(s->bufEnd + 1, 90'001u) - 1));
            EXPECT_TRUE(s->status == KAL_ERR_DISK_FULL && s->write(s, "x", 1) == 0) << "blocked";
            EXPECT_EQ(s->seek(s, 0, KAL_SEEK_START), KAL_ERR_DISK_FULL) << "blocked";
            if (s->dirty != 0) {
                EXPECT_EQ(got, KAL_ERR_DISK_FULL) << "the status itself is the result";
                EXPECT_EQ(s->close(s), KAL_ERR_DISK_FULL) << "open and whole";
            }
            limit.lift();
            EXPECT_EQ(KalFlushBuf(s), KAL_OK);
            uint8_t byte;
            s->pos = 0; // a caller that reads elsewhere
            EXPECT_EQ(s->read(s, &byte, 1), 1) << "what succeeds lifts the block";
            EXPECT_EQ(s->seek(s, int32_t(accepted), KAL_SEEK_START), KAL_OK);
            EXPECT_EQ(s->write(s, &bytes[accepted], 150'000 - accepted), int32_t(150'000 - accepted));
            EXPECT_EQ(s->close(s), KAL_OK);
            Streams streams;
            EXPECT_EQ(readStreams("f", streams), !inFile);
            EXPECT_TRUE((inFile ? readFile("f") : streams[L"s"]) == bytes);
        }
}

// On a file of 3,000 bytes the stream stands at 2000, with its buffer at the start, where a byte may be to be written back.
TEST_F(StreamTrouble, FailingHostCallsGiveTheirStatuses) {
    static uint8_t bytes[1000];
    using Work = int32_t (*)(SFILE*);
    const Work readMuch = [](SFILE*s) { return s->read(s, bytes, 1000); },
               readFew = [](SFILE*s) { return s->read(s, bytes, 9); },
               getChar = [](SFILE*s) { return s->getChar(s); },
               writeMuch = [](SFILE*s) { return s->write(s, bytes, 1000); },
               writeFew = [](SFILE*s) { return s->write(s, bytes, 9); },
               close = [](SFILE*s) { return +s->close(s); }, flush = [](SFILE*s) { return +KalFlushBuf(s); },
               toEnd = [](SFILE*s) { return +s->seek(s, 0, KAL_SEEK_END); };
    // What fails, in what, whether the result tells of it, and whether a byte is to be written back.
    const std::tuple<int, Work, bool, bool> rows[] = {
        {KAL_ERR_READ, readMuch, false, false},   {KAL_ERR_READ, readFew, false, false},
        {KAL_ERR_READ, getChar, true, false},     {KAL_ERR_READ, writeFew, false, true},
        {KAL_ERR_WRITE, writeMuch, false, false}, {KAL_ERR_WRITE, writeFew, true, true},
        {KAL_ERR_WRITE, readFew, true, true},     {KAL_ERR_WRITE, close, true, true},
        {KAL_ERR_SEEK, flush, true, true},        {KAL_ERR_SEEK, readFew, false, false},
        {KAL_ERR_SEEK, readMuch, false, false},   {KAL_ERR_SEEK, writeFew, false, false},
        {KAL_ERR_SEEK, writeMuch, false, false},  {KAL_ERR_SEEK, toEnd, true, false}};
    const Bytes content = randomBytes(3000, 2);
    SFILE* s = nullptr;
    for (const auto& [status, work, isTold, isDirty] : rows)
        for (const uint32_t bufSize : {isDirty ? 1024u : 0u, 512u}) {
            SCOPED_TRACE(::testing::Message() << KalStatusName(int16_t(status)) << " buffer " << bufSize);
            writeFile("f", content);
            s = openStream("f", KAL_MODE_UPDATE);
            EXPECT_EQ(KalSetBuf(s, bufSize), KAL_OK);
            EXPECT_EQ(s->getChar(s), content[0]);
            EXPECT_EQ(isDirty ? s->putChar(s, 'x') : 0, KAL_OK);
            s->pos = 2000;
            {
                const HostCallGuard guard;
                errno = EIO;
                if (status == KAL_ERR_READ)
                    hostCalls.read = [](int, void*, size_t) { return ssize_t(-1); };
                else if (status == KAL_ERR_WRITE)
                    hostCalls.write = [](int, const void*, size_t) { return ssize_t(-1); };
                else
                    hostCalls.lseek = [](int, off_t, int) { return off_t(-1); };
                EXPECT_EQ(work(s), isTold ? status : 0);
            }
            EXPECT_EQ(val(s->status), status);
            EXPECT_EQ(val(s->pos), work == toEnd ? KAL_NO_POSITION : 2000);
            EXPECT_EQ(s->seek(s, 2000, KAL_SEEK_START), KAL_OK);
            EXPECT_EQ(s->getChar(s), content[2000]) << "what a failed read left is no data";
            EXPECT_EQ(s->close(s), KAL_OK);
        }
    s = openStream("f", 0);
    const HostCallGuard guard;
    hostCalls.close = [](int fd) { return ::close(fd), -1; };
    EXPECT_EQ(s->close(s), KAL_ERR_CLOSE);
    hostCalls.lseek = [](int, off_t, int) { return off_t(-1); };
    openStream("f", KAL_MODE_APPEND, KAL_ERR_SEEK);
    s = openStream("ole", KAL_MODE_CREATE | KAL_MODE_WRITE, KAL_OK, "s");
    EXPECT_EQ(s->write(s, "few bytes", 9), 9);
    hostCalls.pwrite = [](int, const void*, size_t, off_t) { return errno = EIO, ssize_t(-1); };
    EXPECT_EQ(s->close(s), KAL_ERR_CLOSE) << "they never reached the file";
}

TEST_F(StreamTrouble, NoMemoryForMoreLeavesAMemoryStreamWhole) {
    SFILE* s = openStream(nullptr, KAL_MODE_MEMORY);
    const Bytes bytes = randomBytes(1000, 1);
    Bytes got(5000);
    EXPECT_EQ(s->write(s, bytes.data(), 1000), 1000);
    failHeapAllocationsFrom(1);
    EXPECT_EQ(s->write(s, got.data(), 5000), KAL_ERR_GLOBAL);
    failHeapAllocation(0);
    EXPECT_TRUE(s->status == KAL_ERR_GLOBAL && s->pos == 1000 && s->osPos == 1000);
    s->seek(s, -10, KAL_SEEK_START); // just below 4 GiB
    EXPECT_EQ(s->write(s, bytes.data(), 16), KAL_ERR_GLOBAL);
    s->seek(s, 0, KAL_SEEK_START);
    got.resize(size_t(s->read(s, got.data(), 1000)));
    EXPECT_EQ(got, bytes);
    GlobalReAlloc(reinterpret_cast<void*>(uintptr_t(s->handle)), 0,
                  GMEM_MOVEABLE); // it cannot be locked then
    EXPECT_EQ(s->read(s, got.data(), 1), KAL_ERR_GLOBAL);
    EXPECT_EQ(s->close(s), KAL_OK);
}

TEST_F(StreamTrouble, VMemStreamsSayWhichMemoryWasShort) {
    open(0);
    std::set<int> writes, seeks;
    const Bytes bytes = randomBytes(50'000, 2);
    Bytes got(50'000);
    for (int64_t n = 1; n < 12; n++) {
        SFILE* s = openStream(nullptr, KAL_MODE_VMEM);
        failHeapAllocationsFrom(n);
        const int32_t moved = s->write(s, bytes.data(), 50'000);
        writes.insert(s->status);
        EXPECT_EQ(moved, s->status == KAL_OK ? 50'000 : 32'768) << n;
        EXPECT_TRUE(s->pos == uint32_t(moved) && s->bufEnd == uint32_t(moved)) << "by what was moved";
        const int16_t sought = s->seek(s, 100'000, KAL_SEEK_START);
        seeks.insert(sought);
        EXPECT_EQ(val(s->pos), sought == KAL_OK ? 100'000 : uint32_t(moved));
        EXPECT_EQ(val(s->bufEnd), 100'000u) << "longer at once";
        failHeapAllocation(0);
        // Blocks that could not be made are made by the next seek, here or further on.
        EXPECT_EQ(s->seek(s, n % 2 == 0 ? 100'000 : 200'000, KAL_SEEK_START), KAL_OK);
        EXPECT_EQ(s->seek(s, 0, KAL_SEEK_START), KAL_OK);
        for (const int32_t wanted : {moved, 100'000 - moved - 50'000, 50'000})
            EXPECT_EQ(s->read(s, got.data(), uint32_t(wanted)), wanted) << "no block is missing";
        s->pos = 0x50000; // two blocks past the table: no seek goes there without making them
        EXPECT_TRUE(s->write(s, "x", 1) == 0 && s->status == KAL_ERR_DISK_FULL);
        EXPECT_EQ(s->close(s) | KalVMemUsed(), 0) << "no block stays";
    }
    EXPECT_EQ(writes, (std::set<int>{KAL_OK, KAL_ERR_DISK_FULL, KAL_ERR_GLOBAL}));
    EXPECT_EQ(seeks, (std::set<int>{KAL_OK, KAL_ERR_BUFFER, KAL_ERR_VMEM}));
    SFILE* late = openStream(nullptr, KAL_MODE_VMEM); // outlives its manager
    KalCloseVMem();
    EXPECT_TRUE(late->write(late, "x", 1) == 0 && late->status == KAL_ERR_VMEM);
    EXPECT_EQ(late->close(late), KAL_OK);
    EXPECT_EQ(KalCloseVMemFile(nullptr) | KalCloseMemFile(nullptr), KAL_OK);
    EXPECT_EQ(KalSetBuf(nullptr, 9) + KalFlushBuf(nullptr) + KalSetOffset(nullptr, 9),
              3 * KAL_ERR_NULL_STREAM);
}
