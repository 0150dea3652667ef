// Temporary files, existence, appending, copying.
#include "tests/streams/streams.h"

#include <sys/stat.h>

using FileServices = FolderTest;

TEST_F(FileServices, TemporaryFilesGoOrStayAsAsked) {
    fs::create_symlink("target", "ZEP1.TMP"); // dangling: must not be followed
    const char* names[] = {".\\ZEP0.TMP", ".\\ZEP0.TMP", ".\\ZEP2.TMP"};
    SFILE* s = nullptr;
    for (const uint16_t keep : Words{0, 1, 2}) {
        ASSERT_EQ(KalOpenTempFile(&s, KAL_MODE_NEW_FILE, keep), KAL_OK);
        EXPECT_STREQ(val(s->name), names[keep]);
        struct stat found {};
        EXPECT_EQ(::stat(s->name + 2, &found), 0);
        EXPECT_EQ(found.st_mode & 0777, 0600u) << "its owner's alone";
        EXPECT_EQ(s->putChar(s, 'x') | s->close(s), KAL_OK);
        EXPECT_EQ(fileExists(names[keep] + 2), keep != 0);
    }
    EXPECT_FALSE(fileExists("target"));
    const std::tuple<std::string, uint16_t, int> rows[] = {
        {"none\\such", KAL_MODE_NEW_FILE, KAL_ERR_OPEN - ENOENT},
        {"", KAL_MODE_UPDATE, KAL_ERR_OPEN - ENOENT},
        {"", KAL_MODE_MEMORY, KAL_OK}, // no file, no name to keep
        {std::string(800, 'd'), KAL_MODE_NEW_FILE, KAL_ERR_SERVICE}};
    for (const auto& [folder, mode, status] : rows) {
        KalTempPath(folder.c_str());
        EXPECT_EQ(KalOpenTempFile(&s, mode, 0), status) << folder;
        EXPECT_EQ(s == nullptr || s->close(s) != KAL_OK, status != KAL_OK);
        KalTempPath(nullptr);
    }
    const HostCallGuard guard;
    hostCalls.open = [](const char*, int, mode_t) { return errno = EMFILE, -1; };
    EXPECT_EQ(KalOpenTempFile(&s, KAL_MODE_NEW_FILE, 0), KAL_ERR_OPEN - EMFILE) << "no name was had";
    EXPECT_EQ(readFile("ZEP0.TMP"), bytesOf("x")) << "another's";
}

TEST_F(FileServices, ExistenceIsBeingReadable) {
    writeFile("f", {});
    fs::create_directory("folder");
    for (const auto& [name, exists] : {std::pair{"f", 1}, {"F.", 1}, {"g", 0}, {"folder", 0}, {"", 0}})
        EXPECT_EQ(KalExistsFile(name), exists) << name;
}

TEST_F(FileServices, CatAppendsPiecesWithoutTheirEndMark) {
    Bytes source = randomBytes(1300, 1);
    std::replace(source.begin(), source.end(), uint8_t(0x1A), uint8_t(0));
    source[511] = source[700] = source.back() = 0x1A; // ends a piece, inside one, ends the last
    writeFile("source", source);
    SFILE* s = openStream("all", KAL_MODE_CREATE | KAL_MODE_WRITE);
    EXPECT_EQ(KalFileCat(s, "missing"), KAL_ERR_OPEN - ENOENT);
    EXPECT_EQ(KalFileCat(nullptr, "source"), KAL_ERR_NULL_STREAM);
    EXPECT_EQ(KalFileCat(s, "source"), KAL_OK);
    failHeapAllocation(3); // no buffer: pieces of 512 bytes all the same
    EXPECT_EQ(KalFileCat(s, "source"), KAL_OK);
    failHeapAllocation(0);
    EXPECT_EQ(s->close(s), KAL_OK);
    Bytes twice = source;
    twice.insert(twice.end(), source.begin(), source.end());
    for (const long mark : {2599, 1811, 1299, 511})
        twice.erase(twice.begin() + mark);
    EXPECT_EQ(readFile("all"), twice);
    s = openStream("all", KAL_MODE_APPEND); // onto itself, and a file that knows no length
    EXPECT_EQ(KalFileCat(s, "all") | KalFileCat(s, "/proc/self/stat") | s->close(s), KAL_OK);
    EXPECT_GT(readFile("all").size(), 2 * twice.size());
}

// Whether the host copies all, none, or a part and then no more.
TEST_F(FileServices, CopiesOfEverySizeButNotOntoItself) {
    const HostCallGuard guard;
    static int64_t hostCopies;
    static const auto copyByHost = hostCalls.copy_file_range;
    hostCalls.copy_file_range = [](int from, off64_t*, int to, off64_t*, size_t count, unsigned) -> ssize_t {
        const auto some = std::min<size_t>(count, size_t(hostCopies));
        hostCopies -= int64_t(some);
        return some > 0 ? copyByHost(from, nullptr, to, nullptr, some, 0) : -1;
    };
    for (const int64_t most : {0, 500, 40'000, 1 << 30})
        for (const size_t size : {0, 1, 32'769, 200'000}) {
            writeFile("from", randomBytes(size, uint32_t(size)));
            writeFile("to", randomBytes(50, 1));
            hostCopies = most;
            EXPECT_EQ(KalCopyFile("to", "from"), KAL_OK);
            EXPECT_EQ(readFile("to"), readFile("from")) << most;
        }
    fs::create_hard_link("from", "other");
    fs::create_symlink("from", "link");
    for (const char* name : {"from", "FROM.", ".\\from", "other", "link"})
        EXPECT_EQ(KalCopyFile(name, "from"), KAL_ERR_SERVICE) << name;
    EXPECT_EQ(readFile("to"), readFile("from"));
    EXPECT_EQ(KalCopyFile("new", "missing"), KAL_ERR_OPEN - ENOENT);
    EXPECT_EQ(KalCopyFile("no\\where", "from"), KAL_ERR_OPEN - ENOENT);
    EXPECT_FALSE(fileExists("new"));
}
