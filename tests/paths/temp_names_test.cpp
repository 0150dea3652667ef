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
    static std::string unique(const char* given, uint32_t size = 772) {
        std::string name(size + 1, '#');
        std::strcpy(name.data(), given);
        const int16_t status = KalGetUnique(name.data(), size);
        EXPECT_EQ(name[size], '#');
        return status == 0 ? name.c_str() : std::to_string(status);
    }
};

} // namespace

TEST_F(TempNames, TheTemporaryDirectoryGetsItsSeparator) {
    const char* const cases[][2] = {{"C:\\TMP", "C:\\TMP\\"}, {"C:\\TMP\\", "C:\\TMP\\"}, {"", ""}};
    for (const auto& each : cases) {
        EXPECT_EQ(KalTempPath(each[0]), 0);
        EXPECT_STREQ(static_cast<char*>(KalGetTaskData(3)), each[1]);
    }
    failHeapAllocation(1);
    EXPECT_EQ(KalTempPath("X"), -100);
    failHeapAllocation(0);
    EXPECT_EQ(KalGetTaskData(3), nullptr);
}

TEST_F(TempNames, NamesCountOnFromTheTemplate) {
    EXPECT_EQ(unique(""), ".\\ZEP0.TMP");
    writeFile("ZEP0.TMP", {});
    EXPECT_EQ(unique(""), ".\\ZEP1.TMP");
    EXPECT_EQ(unique("ABCDEFGHIJ.X"), "ABCDEFG0.X");
    for (int i = 0; i < 10; i++)
        writeFile("ABCDEFG" + std::to_string(i) + ".X", {});
    EXPECT_EQ(unique("ABCDEFGH.X"), "ABCDEF10.X");
    EXPECT_EQ(unique("AB"), "AB0.");
    std::filesystem::create_directory("sub");
    EXPECT_EQ(KalTempPath("sub"), 0);
    EXPECT_EQ(unique(""), "sub\\ZEP0.TMP");
    EXPECT_EQ(unique("sub\\A.B"), "sub\\A0.B");
}

TEST_F(TempNames, WhatDoesNotFitIsRefused) {
    EXPECT_EQ(unique("", 9), "-250");
    EXPECT_EQ(unique("", 11), ".\\ZEP0.TMP");
    EXPECT_EQ(unique("", 10), "-250") << "the template fits, no candidate does";
    EXPECT_EQ(unique("A.B", 4), "-250");
    EXPECT_EQ(unique((std::string(300, 'd') + "\\A.B").c_str()), "-250") << "never cut to another directory";
    char none[1] = "";
    EXPECT_EQ(KalGetUnique(none, 0), -250);
    EXPECT_EQ(KalGetUnique(nullptr, 10), -250);
}

TEST_F(TempNames, AllNamesTakenIsTheEnd) {
    HostCallGuard guard;
    static int asked;
    asked = 0;
    hostCalls.access = [](const char*, int) { return asked++, 0; };
    EXPECT_EQ(unique("A.B"), "-250");
    EXPECT_EQ(asked, 2 * 32767) << "looked for, then asked about, each once";
}
