#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/heap.h>
#include <kal/path.h>

#include <cstring>
#include <filesystem>

namespace {

class TempNames : public FolderTest {
protected:
    ~TempNames() override { KalTempPath(nullptr); }
    static std::string unique(const std::string& given, uint32_t size = 772) {
        std::string name = given;
        name.resize(size + 300, '#');
        name[given.size()] = 0;
        const int16_t status = KalGetUnique(name.data(), size);
        EXPECT_EQ(name[std::max<size_t>(size, given.size() + 1)], '#');
        return status == 0 ? name.c_str() : std::to_string(status);
    }
};

} // namespace

TEST_F(TempNames, TheTemporaryDirectoryGetsItsSeparator) {
    const char* const cases[][2] = {{"C:\\TMP", "C:\\TMP\\"}, {"C:\\TMP\\", "C:\\TMP\\"}, {"", ""}};
    const HeapBalance balance;
    for (const auto& [given, kept] : cases) {
        EXPECT_EQ(KalTempPath(given), KAL_OK);
        EXPECT_STREQ(static_cast<char*>(KalGetTaskData(3)), kept);
    }
    failHeapAllocation(1);
    EXPECT_EQ(KalTempPath("X"), KAL_ERR_MEMORY);
    failHeapAllocation(0);
    EXPECT_EQ(KalGetTaskData(3), nullptr);
}

TEST_F(TempNames, NamesCountOnFromTheTemplateWhereTheyFit) {
    const struct {
        std::string given;
        uint32_t size;
        const char* name;
    } cases[] = {{"", 11, ".\\ZEP1.TMP"},
                 {"ABCDEFGHIJ.X", 772, "ABCDEFG0.X"},
                 {"TENTAKEN.X", 772, "TENTAK10.X"},
                 {"AB", 772, "AB0."},
                 {"sub\\A.B", 772, "sub\\A0.B"},
                 {"", 9, "-250"},
                 {"", 10, "-250"}, // the template fits, no candidate does
                 {"A.B", 4, "-250"},
                 {"A.B", 5, "A0.B"},
                 {std::string(300, 'd') + "\\A.B", 772, "-250"}, // never cut to another directory
                 {"A.B", 0, "-250"}};
    writeFile("ZEP0.TMP", {});
    for (int i = 0; i < 10; i++)
        writeFile("TENTAKE" + std::to_string(i) + ".X", {});
    for (const auto& [given, size, name] : cases)
        EXPECT_EQ(unique(given, size), name) << given << " in " << size;
    EXPECT_EQ(KalGetUnique(nullptr, 10), KAL_ERR_SERVICE);
    std::filesystem::create_directory("sub");
    EXPECT_EQ(KalTempPath("sub"), KAL_OK);
    EXPECT_EQ(unique(""), "sub\\ZEP0.TMP");
}

TEST_F(TempNames, AllNamesTakenIsTheEnd) {
    static std::string last;
    HostCallGuard guard;
    hostCalls.access = [](const char* path, int) { return last = path, 0; };
    EXPECT_EQ(unique("A.B"), "-250");
    EXPECT_EQ(last, "A32766.B");
}
