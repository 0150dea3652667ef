// Paths as text, and the names that are made of them.
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/room.h"

#include <kal/heap.h>
#include <kal/path.h>

#include <filesystem>

namespace {

using Part = int32_t (*)(const char*, char*, uint32_t);

std::string part(Part get, const char* path, uint32_t size) {
    Room room(size);
    const int32_t length = get(path, room.data(), size);
    EXPECT_EQ(size_t(length), size == 0 ? 0 : room.text().size());
    return room.text();
}

class TempNames : public FolderTest {
protected:
    ~TempNames() override { KalTempPath(nullptr); }
    static std::string unique(const std::string& given, uint32_t size) {
        Room name(size, given);
        const int16_t status = KalGetUnique(name.data(), size);
        return status == KAL_OK ? name.text() : std::to_string(status);
    }
};

} // namespace

TEST(PathText, EveryFormIsSplitAndCutToEveryRoom) {
    const char* const cases[][4] = {{"C:\\APP\\BIN\\X.EXE", "C:\\APP\\BIN\\", "X", "EXE"},
                                    {"C:\\A\\NAME.TAR.GZ", "C:\\A\\", "NAME", "GZ"},
                                    {"C:\\A.D\\NAME", "C:\\A.D\\", "NAME", ""},
                                    {"C:X.EXE", "C:", "X", "EXE"},
                                    {"\\X.EXE", "\\", "X", "EXE"},
                                    {":X.EXE", "", ":X", "EXE"},
                                    {"..", "..", "", ""},
                                    {".", ".", "", ""},
                                    {"", "", "", ""},
                                    {nullptr, "", "", ""},
                                    {"\\", "\\", "", ""},
                                    {"NAME.", "", "NAME", ""},
                                    {".PROFILE", "", "", ""},
                                    {"A\\.B", "A\\", "", "B"},
                                    {"a/b.c", "", "a/b", "c"}};
    const Part parts[] = {KalGetDir, KalGetFile, KalGetExt};
    for (const auto& each : cases) {
        for (uint32_t size = 0; size < 20; size++)
            for (size_t i = 0; i < 3; i++)
                EXPECT_EQ(part(parts[i], each[0], size),
                          std::string(each[i + 1]).substr(0, size - (size > 0)));
        Room directory(KAL_DIR_SIZE), file(KAL_FILE_SIZE), extension(KAL_EXT_SIZE);
        EXPECT_EQ(KalSplitPath(each[0], directory.data(), file.data(), extension.data()), KAL_OK);
        EXPECT_EQ(directory.text() + "|" + file.text() + "|" + extension.text(),
                  each[1] + std::string("|") + each[2] + "|" + each[3]);
    }
    Room directory(KAL_DIR_SIZE), file(KAL_FILE_SIZE), extension(KAL_EXT_SIZE);
    const std::string deep =
        std::string(300, 'd') + "\\" + std::string(300, 'f') + "." + std::string(300, 'e');
    KalSplitPath(deep.c_str(), directory.data(), file.data(), extension.data());
    EXPECT_EQ(directory.text() + file.text() + extension.text(),
              std::string(259, 'd') + std::string(255, 'f') + std::string(255, 'e'));
}

TEST(PathText, DefaultExtensionsAreAddedWhereNoneIs) {
    const char* const cases[][3] = {{"README", "TXT", "README.TXT"}, {"README", ".TXT", "README.TXT"},
                                    {"README.", "TXT", "README."},   {"A.DOC", "TXT", "A.DOC"},
                                    {"A.D\\B", "TXT", "A.D\\B.TXT"}, {"", "TXT", ".TXT"},
                                    {"README", nullptr, "README."}};
    for (const auto& [given, extension, expected] : cases) {
        Room path(std::strlen(expected) + 1, given);
        EXPECT_EQ(KalDefaultExt(path.data(), extension), path.data());
        EXPECT_EQ(path.text(), expected);
    }
    EXPECT_EQ(KalDefaultExt(nullptr, "TXT"), nullptr);
}

TEST(PathText, SearchCandidatesFollowTheText) {
    const char* const cases[][3] = {{"C:\\A;D:\\B\\", "X\\Y.DAT", "C:\\A\\Y.DAT|D:\\B\\Y.DAT|"},
                                    {"C:\\A;", "FOO", "C:\\A\\FOO.|"},
                                    {"C:;;E", "A.B.C", "C:A.C|\\A.C|E\\A.C|"},
                                    {"", "F", "\\F.|"}};
    for (const auto& [text, name, expected] : cases) {
        std::string found;
        for (const char* rest = text; rest != nullptr;) {
            Room candidate(600);
            rest = KalNextPathFile(candidate.data(), rest, name);
            found += candidate.text() + "|";
        }
        EXPECT_EQ(found, expected);
    }
}

TEST_F(TempNames, TheTemporaryDirectoryGetsItsSeparator) {
    const char* const cases[][2] = {{"C:\\TMP", "C:\\TMP\\"}, {"C:\\TMP\\", "C:\\TMP\\"}, {"", ""}};
    for (const auto& [given, kept] : cases) {
        const HeapBalance balance;
        EXPECT_EQ(KalTempPath(given), KAL_OK);
        EXPECT_STREQ(static_cast<char*>(KalGetTaskData(3)), kept);
        failHeapAllocation(1);
        EXPECT_EQ(KalTempPath("X"), KAL_ERR_MEMORY);
        failHeapAllocation(0);
        EXPECT_EQ(KalGetTaskData(3), nullptr);
    }
}

TEST_F(TempNames, NamesCountOnFromTheTemplateWhereTheyFit) {
    const struct {
        std::string given;
        uint32_t size;
        const char* name;
    } cases[] = {{"", 11, ".\\ZEP1.TMP"},
                 {"", 10, "-250"}, // the template fits, no candidate does
                 {"", 9, "-250"},
                 {"ABCDEFGHIJ.X", 772, "ABCDEFG0.X"},
                 {"TENTAKEN.X", 772, "TENTAK10.X"},
                 {"AB", 772, "AB0."},
                 {"sub\\A.B", 772, "sub\\A0.B"},
                 {"A.B", 4, "-250"},
                 {"A.B", 5, "A0.B"},
                 {"A.B", 0, "-250"},
                 {std::string(300, 'd') + "\\A.B", 772, "-250"}}; // never cut to another directory
    writeFile("ZEP0.TMP", {});
    for (int i = 0; i < 10; i++)
        writeFile("TENTAKE" + std::to_string(i) + ".X", {});
    for (const auto& [given, size, name] : cases)
        EXPECT_EQ(unique(given, size), name) << given << " in " << size;
    EXPECT_EQ(KalGetUnique(nullptr, 10), KAL_ERR_SERVICE);
    std::filesystem::create_directory("sub");
    EXPECT_EQ(KalTempPath("sub"), KAL_OK);
    EXPECT_EQ(unique("", 772), "sub\\ZEP0.TMP");
    static std::string last;
    HostCallGuard guard;
    hostCalls.access = [](const char* path, int) { return last = path, 0; };
    EXPECT_EQ(unique("A.B", 772) + last, "-250A32766.B") << "all names taken";
}
