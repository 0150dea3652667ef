#include <kal/path.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using Part = int32_t (*)(const char*, char*, uint32_t);

std::string part(Part get, const char* path, uint32_t size = 260) {
    std::string room(size + 2, '#');
    const int32_t length = get(path, room.data(), size);
    EXPECT_EQ(room[size], '#') << "wrote past the destination";
    if (size == 0)
        return room.substr(0, 1);
    EXPECT_EQ(std::strlen(room.c_str()), size_t(length));
    return room.c_str();
}

} // namespace

TEST(PathText, SplitsEveryForm) {
    const struct {
        const char *path, *directory, *file, *extension;
    } cases[] = {
        {"C:\\APP\\BIN\\X.EXE", "C:\\APP\\BIN\\", "X", "EXE"},
        {"C:X.EXE", "C:", "X", "EXE"},
        {"\\X.EXE", "\\", "X", "EXE"},
        {":X.EXE", "", ":X", "EXE"},
        {"..", "..", "", ""},
        {".", ".", "", ""},
        {"", "", "", ""},
        {"\\", "\\", "", ""},
        {"C:\\A\\NAME.TAR.GZ", "C:\\A\\", "NAME", "GZ"},
        {"C:\\A.D\\NAME", "C:\\A.D\\", "NAME", ""},
        {"NAME.", "", "NAME", ""},
        {".PROFILE", "", "", ""},
        {"A\\.B", "A\\", "", "B"},
        {"a/b.c", "", "a/b", "c"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(part(KalGetDir, each.path), each.directory) << each.path;
        EXPECT_EQ(part(KalGetFile, each.path), each.file) << each.path;
        EXPECT_EQ(part(KalGetExt, each.path), each.extension) << each.path;
    }
    char directory[KAL_DIR_SIZE], file[KAL_FILE_SIZE], extension[KAL_EXT_SIZE];
    EXPECT_EQ(KalSplitPath("C:\\A\\B.C", directory, file, extension), KAL_OK);
    EXPECT_EQ(std::string(directory) + "|" + file + "|" + extension, "C:\\A\\|B|C");
    const std::string deep =
        std::string(300, 'd') + "\\" + std::string(300, 'f') + "." + std::string(300, 'e');
    EXPECT_EQ(KalSplitPath(deep.c_str(), directory, file, extension), KAL_OK);
    EXPECT_EQ(std::strlen(directory) + std::strlen(file) + std::strlen(extension), 259u + 255 + 255);
}

TEST(PathText, CutsWhatDoesNotFit) {
    EXPECT_EQ(part(KalGetDir, "C:\\APP\\X", 5), "C:\\A");
    EXPECT_EQ(part(KalGetFile, "LONGNAME.X", 5), "LONG");
    EXPECT_EQ(part(KalGetExt, "X.LONGEXT", 3), "LO");
    for (Part get : {KalGetDir, KalGetFile, KalGetExt}) {
        EXPECT_EQ(part(get, "C:\\A\\B.C", 1), "");
        EXPECT_EQ(part(get, "C:\\A\\B.C", 0), "#") << "left alone";
        EXPECT_EQ(part(get, nullptr), "");
    }
}

TEST(PathText, DefaultExtensionsAreAddedWhereNoneIs) {
    const char* const cases[][3] = {{"README", "TXT", "README.TXT"}, {"README", ".TXT", "README.TXT"},
                                    {"README.", "TXT", "README."},   {"A.DOC", "TXT", "A.DOC"},
                                    {"A.D\\B", "TXT", "A.D\\B.TXT"}, {"", "TXT", ".TXT"},
                                    {"README", nullptr, "README."}};
    for (const auto& [given, extension, expected] : cases) {
        char path[300];
        std::strcpy(path, given);
        EXPECT_EQ(KalDefaultExt(path, extension), path);
        EXPECT_STREQ(path, expected);
    }
}

TEST(PathText, SearchCandidatesFollowTheText) {
    const char* const cases[][3] = {{"C:\\A;D:\\B\\", "X\\Y.DAT", "C:\\A\\Y.DAT|D:\\B\\Y.DAT|"},
                                    {"C:\\A;", "FOO", "C:\\A\\FOO.|"},
                                    {"C:;;E", "A.B.C", "C:A.C|\\A.C|E\\A.C|"},
                                    {"", "F", "\\F.|"}};
    for (const auto& [text, name, expected] : cases) {
        std::string found;
        for (const char* rest = text; rest != nullptr;) {
            char candidate[600];
            rest = KalNextPathFile(candidate, rest, name);
            found += candidate + std::string("|");
        }
        EXPECT_EQ(found, expected);
    }
}
