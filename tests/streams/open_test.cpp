// Opening by name: modes, names of every kind, paths of the platform, the search text, sharing.
#include "tests/streams/streams.h"
#include "tests/support/storage.h"

namespace {

class Open : public FolderTest {
protected:
    static int firstByte(const char* name, uint16_t mode = 0, const char* stream = nullptr) {
        SFILE* s = openStream(name, mode, KAL_OK, stream);
        const int byte = s != nullptr ? s->getChar(s) : -1;
        EXPECT_TRUE(s != nullptr && s->close(s) == KAL_OK);
        return byte;
    }
};

constexpr int kMissing = KAL_ERR_OPEN - ENOENT;

} // namespace

TEST_F(Open, EveryNameInEveryMode) {
    fs::create_directory("folder");
    writeFile("full", Bytes(2000));
    std::string deep = "d"; // of short names, but longer than any one name
    for (int i = 0; i < 30; i++) {
        fs::create_directory(deep);
        deep += "/component";
    }
    fs::create_directory(deep);
    std::replace(deep.begin(), deep.end(), '/', '\\');
    const std::string longest(255, 'n'), tooLong = std::string(300, 'n') + '.' + std::string(300, 'e'),
                                         strange = tooLong + '\xE9';
    constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;
    // Memory comes before VMem, whose manager is not open, and that before mapping; "full" is no compound file.
    const std::tuple<std::string, uint16_t, int, const char*> rows[] = {
        {"none", 0, kMissing, nullptr},
        {"none", KAL_MODE_UPDATE, kMissing, nullptr},
        {"", KAL_MODE_CREATE, kMissing, nullptr},
        {"nowhere\\f", kNew, kMissing, nullptr},
        {"full\\f", 0, KAL_ERR_OPEN - ENOTDIR, nullptr},
        {"folder", KAL_MODE_WRITE, KAL_ERR_OPEN - EACCES, nullptr},
        {longest, KAL_MODE_CREATE, KAL_OK, nullptr},
        {tooLong, 0, KAL_ERR_OPEN - ENAMETOOLONG, nullptr},
        {tooLong, KAL_MODE_SEARCH | KAL_MODE_APPEND, KAL_ERR_OPEN - ENAMETOOLONG, nullptr},
        {deep + "\\f", KAL_MODE_CREATE, KAL_OK, nullptr},
        {"made", KAL_MODE_APPEND, KAL_OK, nullptr},
        {"f", KAL_MODE_MEMORY | KAL_MODE_VMEM | KAL_MODE_FILEMAP | kNew, KAL_OK, nullptr},
        {"f", KAL_MODE_VMEM | KAL_MODE_FILEMAP | kNew, KAL_ERR_VMEM, nullptr},
        {"none", KAL_MODE_UPDATE, KAL_ERR_STORAGE, "s"},
        {"no/f", kNew, KAL_ERR_STORAGE, "s"},
        {"full", KAL_MODE_APPEND | KAL_MODE_UPDATE, KAL_ERR_STORAGE, "s"},
        {"ole", kNew, KAL_OK, "\xE9t\xE9"},
        {"ole", 0, KAL_OK, "\xE9T\xE9"},
        {"ole", KAL_MODE_UPDATE | KAL_MODE_APPEND, KAL_ERR_STORAGE, "t"},
        {"ole", 0, KAL_ERR_STORAGE, ""},
        {"ole", 0, KAL_ERR_STORAGE, "a/b"},
        {"ole", 0, KAL_ERR_STORAGE, strange.c_str()},
        {"ole, new", KAL_MODE_APPEND, KAL_OK, "log"}};
    char home[] = "Q"; // a search text without room to spare
    KalSetHomeStr(home);
    for (const auto& [name, mode, status, stream] : rows)
        if (SFILE* s = openStream(name.c_str(), mode, status, stream))
            s->close(s);
    openStream(nullptr, 0, kMissing);
    openStream(nullptr, 0, KAL_ERR_STORAGE, "s");
    EXPECT_EQ(filesIn("."),
              (std::vector<std::string>{"d", "folder", "full", "made", longest, "ole", "ole, new"}));
    EXPECT_EQ(readFile("full"), Bytes(2000));
    Streams streams;
    EXPECT_TRUE(readStreams("ole", streams));
    EXPECT_EQ(streams, (Streams{{L"\xE9t\xE9", {}}}));
    EXPECT_TRUE(readStreams("ole, new", streams));
    EXPECT_EQ(streams, (Streams{{L"log", {}}}));
}

TEST_F(Open, PathsOfThePlatformFindHostFiles) {
    fs::create_directories("Some/Folder");
    writeFile("Some/Folder/File.Txt", bytesOf("a"));
    writeFile("Some/Folder/file.txt", bytesOf("b"));
    writeFile("plain", bytesOf("c"));
    setenv("KAL_DRIVE_Q", path("Some").c_str(), 1);
    const std::pair<std::string, char> rows[] = {
        {"Some\\Folder\\file.txt", 'b'}, // the exact name first
        {"SOME\\folder\\FILE.TXT", 'a'}, // else the first match in byte order
        {"PLAIN.", 'c'},                 // a trailing dot says: no extension
        {".\\plain", 'c'},
        {"C:plain", 'c'}, // counts from the current directory
        {"C:" + path("plain"), 'c'},
        {path("plain"), 'c'}, // a host path
        {"q:\\folder\\file.txt", 'b'},
        {"Q:FOLDER\\FILE.TXT", 'a'},
    };
    for (const auto& [name, found] : rows)
        EXPECT_EQ(firstByte(name.c_str()), found) << name;
    unsetenv("KAL_DRIVE_Q");
    EXPECT_EQ(firstByte("some\\NEW.dat", KAL_MODE_CREATE), KAL_ERR_END);
    EXPECT_TRUE(fileExists("Some/NEW.dat")) << "made where the folder is, spelt as given";
    EXPECT_EQ(firstByte("PLAIN", KAL_MODE_CREATE), KAL_ERR_END);
    EXPECT_EQ(readFile("plain").size(), 0u) << "one file, whatever the case";
    EXPECT_FALSE(fileExists("PLAIN"));
}

TEST_F(Open, SearchGoesThroughTheWholeText) {
    for (const char* folder : {"home", "two", "last"})
        fs::create_directory(folder);
    writeFile("last/DEEP.DAT", bytesOf("x"));
    SFILE* s = openStream("last/f.ole", KAL_MODE_CREATE | KAL_MODE_UPDATE, KAL_OK, "s");
    EXPECT_EQ(s->putChar(s, 'y') | s->close(s), KAL_OK);
    setenv("KAL_DRIVE_W", path("").c_str(), 1);
    char text[] = "W:\\home\\;W:\\two;;W:\\last";
    KalSetHomeStr(text);
    for (const char* stream : {static_cast<const char*>(nullptr), "s"}) {
        const char* name = stream == nullptr ? "elsewhere\\deep.dat" : "f.ole";
        s = openStream(name, KAL_MODE_SEARCH, KAL_OK, stream);
        EXPECT_STREQ(val(s->name), stream == nullptr ? name : "W:\\last\\f.ole");
        EXPECT_EQ(s->getChar(s), stream == nullptr ? 'x' : 'y');
        EXPECT_EQ(s->close(s), KAL_OK);
        openStream(name + (stream == nullptr ? 10 : 0), 0, kMissing, stream);
        openStream("absent", KAL_MODE_SEARCH, kMissing, stream);
        EXPECT_EQ(firstByte("absent", KAL_MODE_SEARCH | KAL_MODE_APPEND, stream), KAL_ERR_END);
        EXPECT_TRUE(fs::remove("absent")) << "made under the name as given";
    }
    unsetenv("KAL_DRIVE_W");
}

TEST_F(Open, ACompoundFileIsSharedByReadersOnly) {
    for (const uint16_t held : {KAL_MODE_NEW_FILE, uint16_t(0)}) {
        SFILE* s = openStream("ole", held, KAL_OK, "s");
        for (const uint16_t mode : {KAL_MODE_WRITE, KAL_MODE_UPDATE, KAL_MODE_NEW_FILE})
            openStream("ole", mode, KAL_ERR_STORAGE, "s");
        if (SFILE* reader = openStream("ole", 0, held == 0 ? KAL_OK : KAL_ERR_STORAGE, "s")) {
            EXPECT_EQ(reader->getChar(reader) | reader->close(reader), 'x');
        }
        EXPECT_EQ(held == 0 ? 0 : s->putChar(s, 'x'), KAL_OK);
        EXPECT_EQ(s->close(s), KAL_OK);
    }
}
