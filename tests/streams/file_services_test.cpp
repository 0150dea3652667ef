// Temporary files, existence, appending, copying.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/path.h>
#include <kal/stream.h>

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class FileServices : public FolderTest {
protected:
    ~FileServices() override { KalTempPath(nullptr); }
};

constexpr uint16_t kTemp = KAL_MODE_NEW_FILE;

} // namespace

TEST_F(FileServices, TemporaryFilesGoOrStayAsAsked) {
    HeapBalance balance;
    for (uint16_t keep : Words{0, 1}) {
        SFILE* s = nullptr;
        ASSERT_EQ(KalOpenTempFile(&s, kTemp, keep), 0);
        EXPECT_STREQ(val(s->name), ".\\ZEP0.TMP");
        struct stat found {};
        EXPECT_EQ(::stat("ZEP0.TMP", &found), 0);
        EXPECT_EQ(found.st_mode & 0777, 0600u) << "its owner's alone";
        EXPECT_EQ(s->write(s, "abc", 3), 3);
        EXPECT_EQ(s->close(s), 0);
        EXPECT_EQ(fileExists("ZEP0.TMP"), keep != 0);
    }
    EXPECT_EQ(readFile("ZEP0.TMP"), bytesOf("abc"));
    fs::create_symlink("target", "ZEP1.TMP"); // dangling: must not be followed
    SFILE* s = nullptr;
    ASSERT_EQ(KalOpenTempFile(&s, kTemp, 0), 0);
    EXPECT_STREQ(val(s->name), ".\\ZEP2.TMP");
    EXPECT_EQ(s->close(s), 0);
    EXPECT_FALSE(fileExists("target"));
    ASSERT_EQ(KalOpenTempFile(&s, KAL_MODE_MEMORY, 0), 0) << "no file, no name to keep";
    EXPECT_EQ(s->close(s), 0);
}

TEST_F(FileServices, TemporaryFilesThatCannotBeMadeLeaveNothing) {
    HeapBalance balance;
    KalTempPath("nowhere\\at\\all");
    SFILE* s = nullptr;
    EXPECT_EQ(KalOpenTempFile(&s, kTemp, 0), -200 - ENOENT);
    EXPECT_EQ(s, nullptr);
    KalTempPath(nullptr);
    EXPECT_EQ(KalOpenTempFile(&s, KAL_MODE_UPDATE, 0), -200 - ENOENT)
        << "without create there is no such file";
    writeFile("ZEP0.TMP", bytesOf("another's"));
    {
        HostCallGuard guard;
        static decltype(HostCalls::open) open;
        open = std::exchange(hostCalls.open, [](const char*, int, mode_t) {
            hostCalls.open = open;
            return errno = EMFILE, -1;
        });
        EXPECT_EQ(KalOpenTempFile(&s, kTemp, 0), -200 - EMFILE) << "no name was had";
    }
    EXPECT_EQ(readFile("ZEP0.TMP"), bytesOf("another's"));
    fs::remove("ZEP0.TMP");
    KalTempPath(std::string(800, 'd').c_str());
    EXPECT_EQ(KalOpenTempFile(&s, kTemp, 0), -250);
    KalTempPath(nullptr);
    withEachAllocationFailing([&](int) {
        const int16_t status = KalOpenTempFile(&s, kTemp, 0);
        EXPECT_TRUE(status == 0 || status == -100) << status;
        if (status == 0)
            s->close(s);
    });
    EXPECT_TRUE(filesIn(".").empty());
}

TEST_F(FileServices, ProcessesNeverShareATemporaryName) {
    const int processes = 4, each = 50;
    for (int p = 0; p < processes; p++)
        if (fork() == 0) {
            for (int i = 0; i < each; i++) {
                SFILE* s = nullptr;
                if (KalOpenTempFile(&s, kTemp, 1) != 0 || s->write(s, "x", 1) != 1 || s->close(s) != 0)
                    _exit(1);
            }
            _exit(0);
        }
    for (int p = 0; p < processes; p++) {
        int status = 1;
        ::wait(&status);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(filesIn(".").size(), size_t(processes * each));
}

TEST_F(FileServices, ExistenceIsBeingReadable) {
    writeFile("f", {});
    fs::create_directory("folder");
    EXPECT_EQ(KalExistsFile("f"), 1);
    EXPECT_EQ(KalExistsFile("F."), 1);
    EXPECT_EQ(KalExistsFile("g"), 0);
    EXPECT_EQ(KalExistsFile("folder"), 0);
    EXPECT_EQ(KalExistsFile(""), 0);
}

TEST_F(FileServices, CatAppendsPiecesWithoutTheirEndMark) {
    Bytes source = randomBytes(1300, 1);
    std::replace(source.begin(), source.end(), uint8_t(0x1A), uint8_t(0));
    source[511] = source[700] = source.back() = 0x1A; // ends a piece, inside one, ends the last
    writeFile("source", source);
    SFILE* s = nullptr;
    ASSERT_EQ(KalOpenFile(&s, "all", KAL_MODE_CREATE | KAL_MODE_WRITE, 0), 0);
    EXPECT_EQ(KalFileCat(s, "source"), 0);
    EXPECT_EQ(KalFileCat(s, "missing"), -200 - ENOENT);
    EXPECT_EQ(KalFileCat(nullptr, "source"), -258);
    failHeapAllocation(4); // record, name and buffer go well
    EXPECT_EQ(KalFileCat(s, "source"), -250);
    failHeapAllocation(3); // no buffer: pieces of 512 bytes all the same
    EXPECT_EQ(KalFileCat(s, "source"), 0);
    failHeapAllocation(0);
    EXPECT_EQ(s->close(s), 0);
    Bytes once = source;
    once.pop_back();
    once.erase(once.begin() + 511);
    Bytes twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(readFile("all"), twice);
}

TEST_F(FileServices, CatOfAFileOntoItselfEnds) {
    const Bytes bytes = randomBytes(5000, 3);
    writeFile("f", bytes);
    SFILE* s = nullptr;
    ASSERT_EQ(KalOpenFile(&s, "f", KAL_MODE_APPEND, 0), 0);
    EXPECT_EQ(KalFileCat(s, "f"), 0);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(readFile("f").size(), 10000u);
}

// Whether the host copies all, none, or a part and then no more.
TEST_F(FileServices, CopiesOfEverySize) {
    HostCallGuard guard;
    static int64_t hostCopies;
    static const auto copyByHost = hostCalls.copy_file_range;
    hostCalls.copy_file_range = [](int from, off64_t*, int to, off64_t*, size_t count, unsigned) -> ssize_t {
        const auto some = std::min<size_t>(count, size_t(hostCopies));
        hostCopies -= int64_t(some);
        return some > 0 ? copyByHost(from, nullptr, to, nullptr, some, 0) : -1;
    };
    for (const int64_t most : {0, 500, 40000, 1 << 30})
        for (size_t size : {0, 1, 511, 32768, 32769, 1000000}) {
            const Bytes bytes = randomBytes(size, uint32_t(size));
            writeFile("from", bytes);
            writeFile("to", randomBytes(50, 1));
            hostCopies = most;
            EXPECT_EQ(KalCopyFile("to", "from"), 0);
            EXPECT_EQ(readFile("to"), bytes) << most;
        }
}

TEST_F(FileServices, CopyRefusesItselfAndReportsWhatItCannotOpen) {
    const Bytes bytes = randomBytes(100, 1);
    writeFile("f", bytes);
    fs::create_hard_link("f", "other");
    fs::create_symlink("f", "link");
    for (const char* name : {"f", "F.", ".\\f", "other", "link"})
        EXPECT_EQ(KalCopyFile(name, "f"), -250) << name;
    EXPECT_EQ(readFile("f"), bytes);
    EXPECT_EQ(KalCopyFile("to", "missing"), -200 - ENOENT);
    EXPECT_FALSE(fileExists("to"));
    EXPECT_EQ(KalCopyFile("no\\where", "f"), -200 - ENOENT);
    withEachAllocationFailing([&](int n) {
        const int16_t status = KalCopyFile("to", "f");
        EXPECT_TRUE(status == 0 || status == -100 || status == -105) << status << " at " << n;
        if (status == 0) {
            EXPECT_EQ(readFile("to"), bytes);
        }
    });
}
