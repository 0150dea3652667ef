#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/path.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

class Directories : public FolderTest {};

} // namespace

TEST_F(Directories, DirectoriesWithAndWithoutTheirSeparator) {
    char current[512] = "untouched";
    const auto here = [&] {
        EXPECT_EQ(KalGetCurWorkDir(current, sizeof current), 0);
        return std::string(current);
    };
    const std::string top = here();
    EXPECT_EQ(top.substr(0, 3), "C:\\");
    EXPECT_EQ(KalMakeDir("one\\"), 0);
    EXPECT_EQ(KalMakeDir((top + "\\two").c_str()), 0);
    EXPECT_EQ(KalMakeDir("two"), -1);
    EXPECT_EQ(KalMakeDir("missing\\two"), -1);
    EXPECT_EQ(filesIn("."), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(KalChangeDir("ONE\\"), 0);
    EXPECT_EQ(here(), top + "\\one");
    EXPECT_EQ(KalChangeDir("..\\two"), 0);
    EXPECT_EQ(here(), top + "\\two");
    EXPECT_EQ(KalChangeDir("missing"), -1);
    EXPECT_EQ(KalChangeDir(top.c_str()), 0);
    EXPECT_EQ(here(), top) << "what was printed leads back";
    for (const char* none : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(KalMakeDir(none), -1281);
        EXPECT_EQ(KalChangeDir(none), -1281);
    }
    failHeapAllocation(1);
    EXPECT_EQ(KalMakeDir("three"), -100);
    failHeapAllocation(0);
    EXPECT_EQ(KalGetCurWorkDir(nullptr, 10), -701);
    EXPECT_EQ(KalGetCurWorkDir(current, 0), -701);
    const auto length = uint32_t(top.size());
    EXPECT_EQ(KalGetCurWorkDir(current, length + 1), 0);
    std::strcpy(current, "untouched");
    EXPECT_EQ(KalGetCurWorkDir(current, length), -700);
    EXPECT_STREQ(current, "untouched");
    EXPECT_EQ(KalGetCurDiskStatus(), 0);
}

TEST_F(Directories, ADriveAloneIsItsRoot) {
    fs::create_directories("drive/below");
    setenv("KAL_DRIVE_Q", path("drive").c_str(), 1);
    EXPECT_EQ(KalChangeDir("Q:"), 0);
    EXPECT_EQ(filesIn("."), std::vector<std::string>{"below"});
    EXPECT_EQ(KalMakeDir("q:\\below\\deeper\\"), 0);
    EXPECT_TRUE(fileExists("below/deeper"));
    unsetenv("KAL_DRIVE_Q");
    EXPECT_EQ(KalChangeDir("Q:"), 0) << "without a folder of its own too";
    char current[64] = "";
    EXPECT_EQ(KalGetCurWorkDir(current, sizeof current), 0);
    EXPECT_STREQ(current, "C:\\");
    const fs::path gone = path("gone");
    fs::create_directory(gone);
    EXPECT_EQ(KalChangeDir(gone.c_str()), 0);
    fs::remove(gone);
    EXPECT_EQ(KalGetCurWorkDir(current, sizeof current), -700);
    EXPECT_STREQ(current, "C:\\") << "untouched";
}

TEST(Time, IsTheSystemClocks) {
    using namespace std::chrono;
    const auto now = [] { return system_clock::now().time_since_epoch(); };
    const auto before = floor<milliseconds>(now());
    int32_t whole;
    uint16_t thousandths;
    KalGetTime(&whole, &thousandths);
    EXPECT_LE(before, seconds(whole) + milliseconds(thousandths));
    EXPECT_GE(now(), seconds(whole) + milliseconds(thousandths));
    EXPECT_LT(thousandths, 1000);
}
