// Opening by name: modes, search, names, paths, and what is left when it fails.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/path.h>
#include <kal/stream.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace {

class Open : public FolderTest {
protected:
    ~Open() override {
        KalSetHome(nullptr);
        KalSetHomeStr(nullptr);
    }
    static int16_t tryOpen(const std::string& name, uint16_t mode) {
        HeapBalance balance;
        SFILE* stream = reinterpret_cast<SFILE*>(1);
        const int16_t status = KalOpenFile(&stream, name.c_str(), mode, 0);
        EXPECT_EQ(stream != nullptr, status == 0);
        if (stream != nullptr)
            stream->close(stream);
        return status;
    }
};

int openHandles() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count++;
    return count;
}

} // namespace

TEST_F(Open, AFreshDiskStreamHasItsStatedRecord) {
    writeFile("f.dat", Bytes(100, 'a'));
    SFILE* s = nullptr;
    ASSERT_EQ(KalOpenFile(&s, "f.dat", KAL_MODE_APPEND, 0), 0);
    EXPECT_EQ(val(s->mode), KAL_MODE_APPEND | KAL_MODE_WRITE) << "append alone writes";
    EXPECT_EQ(val(s->pos), 100u);
    EXPECT_EQ(val(s->osPos), 100u);
    EXPECT_EQ(val(s->bufStart), 100u);
    EXPECT_EQ(val(s->bufEnd), 0u);
    EXPECT_EQ(val(s->bufSize), 512u);
    EXPECT_EQ(val(s->bufPtr), val(s->buf));
    EXPECT_EQ(val(s->dirty) | s->status, 0);
    EXPECT_EQ(val(s->offset), 0u);
    EXPECT_STREQ(val(s->name), "f.dat");
    EXPECT_EQ(val(s->tempName), nullptr);
    EXPECT_EQ(s->getChar(s), -256) << "there is nothing behind the end, in the fresh buffer either";
    EXPECT_EQ(s->write(s, "12345", 5), 5);
    EXPECT_EQ(s->close(s), 0);
    Bytes expected(100, 'a');
    for (char c = '1'; c <= '5'; c++)
        expected.push_back(uint8_t(c));
    EXPECT_EQ(readFile("f.dat"), expected);
}

TEST_F(Open, ModesMakeEmptyAndRefuse) {
    EXPECT_EQ(tryOpen("none", 0), -200 - ENOENT);
    EXPECT_EQ(tryOpen("none", KAL_MODE_UPDATE), -200 - ENOENT);
    EXPECT_FALSE(fileExists("none"));
    EXPECT_EQ(tryOpen("made", KAL_MODE_APPEND), 0);
    EXPECT_TRUE(fileExists("made"));
    writeFile("full", Bytes(10));
    EXPECT_EQ(tryOpen("full", KAL_MODE_CREATE), 0);
    EXPECT_EQ(readFile("full").size(), 0u);
    std::filesystem::create_directory("folder");
    EXPECT_EQ(tryOpen("folder", 0), -200 - EACCES);
    EXPECT_EQ(tryOpen("folder", KAL_MODE_WRITE), -200 - EACCES);
    EXPECT_EQ(tryOpen("nowhere\\f", KAL_MODE_CREATE | KAL_MODE_WRITE), -200 - ENOENT);
    writeFile("file", {});
    EXPECT_EQ(tryOpen("file\\f", 0), -200 - ENOTDIR);
    SFILE* s = nullptr;
    ASSERT_EQ(KalOpenFile(&s, "full", 0x4, 0), 0);
    EXPECT_EQ(s->write(s, "x", 1), -251) << "its handle is for reading";
    EXPECT_EQ(s->close(s), 0);
}

TEST_F(Open, NamesOfAnyLength) {
    EXPECT_EQ(tryOpen("", 0), -200 - ENOENT);
    EXPECT_EQ(tryOpen("", KAL_MODE_CREATE), -200 - ENOENT);
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, nullptr, 0, 0), -200 - ENOENT);
    EXPECT_EQ(tryOpen(std::string(255, 'n'), KAL_MODE_CREATE), 0);
    for (size_t length : {256, 259, 260, 5000})
        for (int mode : {0x101, 0x88, 0}) {
            EXPECT_EQ(tryOpen(std::string(length, 'n'), uint16_t(mode)), -200 - ENAMETOOLONG) << length;
        }
    std::string deep; // 260 characters and more in a path of short names
    for (int i = 0; i < 30; i++) {
        deep += (i > 0 ? "\\" : "") + std::string("component");
        std::string host = deep;
        std::replace(host.begin(), host.end(), '\\', '/');
        std::filesystem::create_directory(host);
    }
    EXPECT_EQ(tryOpen(deep + "\\f", KAL_MODE_CREATE), 0);
}

TEST_F(Open, PathsOfThePlatformFindHostFiles) {
    std::filesystem::create_directories("Some/Folder");
    writeFile("Some/Folder/File.Txt", bytesOf("a"));
    writeFile("Some/Folder/file.txt", bytesOf("b"));
    writeFile("plain", bytesOf("c"));
    auto content = [](const std::string& name) -> int {
        SFILE* s = nullptr;
        if (KalOpenFile(&s, name.c_str(), 0, 0) != 0)
            return -1;
        const int c = s->getChar(s);
        s->close(s);
        return c;
    };
    EXPECT_EQ(content("Some\\Folder\\file.txt"), 'b') << "the exact name first";
    EXPECT_EQ(content("SOME\\folder\\FILE.TXT"), 'a') << "else the first match in byte order";
    EXPECT_EQ(content("PLAIN."), 'c') << "a trailing dot says: no extension";
    EXPECT_EQ(content(".\\plain"), 'c');
    EXPECT_EQ(content("C:plain"), 'c') << "counts from the current directory";
    EXPECT_EQ(content("C:" + path("plain")), 'c');
    EXPECT_EQ(content(path("plain")), 'c') << "a host path";
    setenv("KAL_DRIVE_Q", path("Some").c_str(), 1);
    EXPECT_EQ(content("q:\\folder\\file.txt"), 'b');
    EXPECT_EQ(content("Q:FOLDER\\FILE.TXT"), 'a');
    unsetenv("KAL_DRIVE_Q");

    EXPECT_EQ(tryOpen("some\\NEW.dat", KAL_MODE_CREATE), 0);
    EXPECT_TRUE(fileExists("Some/NEW.dat")) << "made where the folder is, spelt as given";
    EXPECT_EQ(tryOpen("PLAIN", KAL_MODE_CREATE), 0);
    EXPECT_EQ(readFile("plain").size(), 0u) << "one file, whatever the case";
    EXPECT_FALSE(fileExists("PLAIN"));
}

TEST_F(Open, SearchGoesThroughTheWholeText) {
    for (const char* folder : {"home", "two", "last"})
        std::filesystem::create_directory(folder);
    writeFile("last/DEEP.DAT", bytesOf("x"));
    setenv("KAL_DRIVE_W", path("").c_str(), 1);
    char text[] = "W:\\home\\;W:\\two;;W:\\last";
    KalSetHomeStr(text);
    SFILE* s = nullptr;
    ASSERT_EQ(KalOpenFile(&s, "elsewhere\\deep.dat", KAL_MODE_SEARCH, 0), 0);
    EXPECT_STREQ(val(s->name), "elsewhere\\deep.dat") << "as the caller gave it";
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(tryOpen("deep.dat", 0), -200 - ENOENT);
    EXPECT_EQ(tryOpen("absent.dat", KAL_MODE_SEARCH), -200 - ENOENT);
    EXPECT_EQ(tryOpen("absent.dat", KAL_MODE_SEARCH | KAL_MODE_APPEND), 0);
    EXPECT_TRUE(fileExists("absent.dat")) << "made under the name as given";
    KalSetHomeStr(nullptr);
    unsetenv("KAL_DRIVE_W");
}

TEST_F(Open, ReadOnlyFilesAndFileSystemsRefuseWriters) {
    TinyFileSystem tiny(path("tiny"), 65536);
    if (!tiny.mounted())
        GTEST_SKIP() << "this process may not mount";
    writeFile("tiny/f", bytesOf("x"));
    ASSERT_EQ(std::system("mount -o remount,ro tiny"), 0);
    EXPECT_EQ(tryOpen("tiny\\f", 0), 0);
    EXPECT_EQ(tryOpen("tiny\\f", KAL_MODE_WRITE), -200 - EROFS);
    EXPECT_EQ(tryOpen("tiny\\f", KAL_MODE_CREATE), -200 - EROFS);
    EXPECT_EQ(tryOpen("tiny\\g", KAL_MODE_APPEND), -200 - EROFS);
    EXPECT_EQ(readFile("tiny/f"), bytesOf("x"));
}

TEST_F(Open, ModeBitsChooseTheBackEndAndTheNameIsNotTouched) {
    EXPECT_EQ(tryOpen("f", 0x7103), 0) << "memory comes before VMem and mapping";
    EXPECT_EQ(tryOpen("f", 0x5103), -101) << "VMem, whose manager is not open, comes before mapping";
    EXPECT_FALSE(fileExists("f"));
}

TEST_F(Open, EachAllocationFailingLeavesNothingOpen) {
    writeFile("f", bytesOf("x"));
    setenv("KAL_DRIVE_W", path("").c_str(), 1);
    char text[] = "W:\\none;W:\\";
    KalSetHomeStr(text);
    const int handles = openHandles();
    for (const char* name : {"f", "none\\f"}) { // the second is found by the search only
        withEachAllocationFailing([&](int n) {
            SFILE* s = nullptr;
            const int16_t status = KalOpenFile(&s, name, KAL_MODE_SEARCH, 0);
            if (status != 0) {
                EXPECT_TRUE(status == -100 || status == -200 - ENOMEM) << status << " at " << n;
                EXPECT_EQ(s, nullptr);
                return;
            }
            if (heapFaultHappened()) { // only the buffer can be done without
                EXPECT_EQ(val(s->bufSize), 0u);
                EXPECT_EQ(val(s->bufEnd), KAL_NO_POSITION);
            }
            EXPECT_EQ(s->getChar(s), 'x');
            EXPECT_EQ(s->close(s), 0);
        });
        EXPECT_EQ(openHandles(), handles);
    }
    KalSetHomeStr(nullptr);
    unsetenv("KAL_DRIVE_W");
}
