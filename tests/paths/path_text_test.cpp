// Paths as text, and the names that are made of them.
#include "paths/temp_names.h"
#include "tests/support/faults.h"
#include "tests/support/room.h"

namespace {

using Part = int32_t (*)(const char*, char*, uint32_t);

std::string part(Part get, const char* path, uint32_t size) {
    Room room(size);
    const int32_t length = get(path, room.data(), size);
    EXPECT_EQ(size_t(length), size == 0 ? 0 : room.text().size());
    return room.text();
}

std::string unique(const std::string& given, uint32_t size) {
    Room name(size, given);
    const int16_t status = KalGetUnique(name.data(), size);
    return status == KAL_OK ? name.text() : nameOf(status);
}

using TempNames = FolderTest;

} // namespace

// The pieces are directory, file, what stands between, and extension.
TEST(PathText, EveryFormIsSplitAndCutToEveryRoom) {
    const Part parts[] = {KalGetDir, KalGetFile, KalGetExt};
    for (const std::string row :
         {"C:\\APP\\BIN\\|X|.|EXE", "C:\\A\\|NAME|.TAR.|GZ", "C:\\A.D\\|NAME||", "C:|X|.|EXE", "\\|X|.|EXE",
          "|:X|.|EXE", "..|||", ".|||", "|||", "\\|||", "|NAME|.|", "||.PROFILE|", "A\\||.|B", "|a/b|.|c"}) {
        const auto piece = pieces(row);
        const std::string path = piece[0] + piece[1] + piece[2] + piece[3];
        for (uint32_t size = 0; size < 20; size++)
            for (size_t i = 0; i < 3; i++)
                EXPECT_EQ(part(parts[i], path.c_str(), size), piece[i + i / 2].substr(0, size - (size > 0)))
                    << row;
        Room directory(KAL_DIR_SIZE), file(KAL_FILE_SIZE), extension(KAL_EXT_SIZE);
        EXPECT_EQ(KalSplitPath(path.c_str(), directory.data(), file.data(), extension.data()), KAL_OK);
        EXPECT_EQ(directory.text() + "|" + file.text() + "|" + piece[2] + "|" + extension.text(), row);
    }
    Room directory(KAL_DIR_SIZE), file(KAL_FILE_SIZE), extension(KAL_EXT_SIZE);
    const std::string d(300, 'd'), f(300, 'f'), e(300, 'e');
    KalSplitPath((d + "\\" + f + "." + e).c_str(), directory.data(), file.data(), extension.data());
    EXPECT_EQ(directory.text() + file.text() + extension.text(),
              d.substr(0, 259) + f.substr(0, 255) + e.substr(0, 255));
    for (const Part get : parts)
        EXPECT_EQ(part(get, nullptr, 260), "");
}

TEST(PathText, DefaultExtensionsAndSearchCandidatesAreAdded) {
    for (const std::string row :
         {"README|TXT|README.TXT", "README|.TXT|README.TXT", "README.|TXT|README.", "|TXT|.TXT",
          "A.DOC|TXT|A.DOC", "A.D\\B|TXT|A.D\\B.TXT", "README||README."}) {
        const auto piece = pieces(row);
        Room path(piece[2].size() + 1, piece[0]);
        EXPECT_EQ(KalDefaultExt(path.data(), piece[1].empty() ? nullptr : piece[1].c_str()), path.data());
        EXPECT_EQ(path.text(), piece[2]);
    }
    EXPECT_EQ(KalDefaultExt(nullptr, "TXT"), nullptr);
    for (const std::string row : {"C:\\A;D:\\B\\|X\\Y.DAT|C:\\A\\Y.DAT|D:\\B\\Y.DAT",
                                  "C:\\A;|FOO|C:\\A\\FOO.", "C:;;E|A.B.C|C:A.C|\\A.C|E\\A.C", "|F|\\F."}) {
        const auto piece = pieces(row);
        std::string found = piece[0] + "|" + piece[1];
        for (const char* rest = piece[0].c_str(); rest != nullptr;) {
            Room candidate(600);
            rest = KalNextPathFile(candidate.data(), rest, piece[1].c_str());
            found += "|" + candidate.text();
        }
        EXPECT_EQ(found, row);
    }
}

TEST_F(TempNames, NamesCountOnFromTheTemplateWhereTheyFit) {
    writeFile("ZEP0.TMP", {});
    for (const char digit : std::string("0123456789"))
        writeFile(std::string("TENTAKE") + digit + ".X", {});
    // The template fits, no candidate does; a directory is never cut to another one.
    for (const std::string row :
         {"|11|.\\ZEP1.TMP", "|10|KAL_ERR_SERVICE", "|9|KAL_ERR_SERVICE", "ABCDEFGHIJ.X|772|ABCDEFG0.X",
          "TENTAKEN.X|772|TENTAK10.X", "AB|772|AB0.", "sub\\A.B|772|sub\\A0.B", "A.B|4|KAL_ERR_SERVICE",
          "A.B|5|A0.B", "A.B|0|KAL_ERR_SERVICE"}) {
        const auto piece = pieces(row);
        EXPECT_EQ(unique(piece[0], uint32_t(std::stoi(piece[1]))), piece[2]) << row;
    }
    EXPECT_EQ(unique(std::string(300, 'd') + "\\A.B", 772), "KAL_ERR_SERVICE");
    Room tooSmall(2, "A.B");
    EXPECT_EQ(KalGetUnique(tooSmall.data(), 2) | KalGetUnique(nullptr, 10), KAL_ERR_SERVICE);
    EXPECT_EQ(tooSmall.text(), "A.B");
    fs::create_directory("sub");
    for (const char* directory : {"sub", "sub\\", ""}) {
        EXPECT_EQ(KalTempPath(directory), KAL_OK);
        EXPECT_EQ(unique("", 772), *directory != 0 ? "sub\\ZEP0.TMP" : "ZEP1.TMP");
    }
    failHeapAllocation(1);
    EXPECT_EQ(KalTempPath("X"), KAL_ERR_MEMORY);
    failHeapAllocation(0);
    EXPECT_EQ(KalGetTaskData(3), nullptr);
    const size_t open = filesIn("/proc/self/fd").size();
    for (const std::string name : {"ZEP.TMP", "none\\A.B"}) { // taken by making it, or told by errno why not
        Room room(772, name);
        bool made = false;
        EXPECT_EQ(findUniqueName(room.data(), 772, reserveName, &made), KAL_OK);
        EXPECT_EQ(made, name == "ZEP.TMP");
    }
    EXPECT_TRUE(fileExists("ZEP1.TMP"));
    EXPECT_EQ(filesIn("/proc/self/fd").size(), open);
    static std::string last;
    HostCallGuard guard;
    hostCalls.access = [](const char* path, int) { return last = path, 0; };
    EXPECT_EQ(unique("A.B", 772) + last, "KAL_ERR_SERVICEA32766.B") << "all names taken";
}
