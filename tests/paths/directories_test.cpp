#include "tests/support/faults.h"
#include "tests/support/trouble.h"

#include <kal/path.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

class Directories : public FolderTest {
protected:
    // The status where it is not 0, and the directory.
    static std::string here(uint32_t size = 512) {
        char current[512] = "untouched";
        const int16_t status = KalGetCurWorkDir(current, size);
        return (status != 0 ? std::to_string(status) + " " : "") + current;
    }
};

} // namespace

TEST_F(Directories, DirectoriesWithAndWithoutTheirSeparator) {
    const std::string top = here();
    EXPECT_EQ(top.substr(0, 3), "C:\\");
    const struct {
        int16_t (*call)(const char* path);
        std::string path;
        int status;
        std::string place;
    } steps[] = {{KalMakeDir, "one\\", 0, ""},
                 {KalMakeDir, top + "\\two", 0, ""},
                 {KalMakeDir, "two", -1, ""},
                 {KalMakeDir, "missing\\two", -1, ""},
                 {KalMakeDir, "", KAL_ERR_EMPTY_PATH, ""},
                 {KalChangeDir, "ONE\\", 0, "\\one"},
                 {KalChangeDir, "..\\two", 0, "\\two"},
                 {KalChangeDir, "missing", -1, "\\two"},
                 {KalChangeDir, "", KAL_ERR_EMPTY_PATH, "\\two"},
                 {KalChangeDir, top, 0, ""}}; // what was told leads back
    for (const auto& [call, path, status, place] : steps) {
        EXPECT_EQ(call(path.c_str()), status) << path;
        EXPECT_EQ(here(), top + place);
    }
    EXPECT_EQ(KalMakeDir(nullptr), KAL_ERR_EMPTY_PATH);
    EXPECT_EQ(filesIn("."), (std::vector<std::string>{"one", "two"}));
    walkTrouble({.run = [] { return KalMakeDir("three"); }, .statuses = {KAL_ERR_MEMORY, -1}});
    EXPECT_EQ(KalGetCurWorkDir(nullptr, 10), KAL_ERR_DESTINATION);
    EXPECT_EQ(here(0), "-701 untouched");
    const auto length = uint32_t(top.size());
    EXPECT_EQ(here(length), "-700 untouched");
    EXPECT_EQ(here(length + 1), top);
    EXPECT_EQ(KalGetCurDiskStatus(), KAL_OK);
}

TEST_F(Directories, WhatFailsIsTriedOnceMoreWithTheOtherEnding) {
    static std::string asked;
    const HostCallGuard guard;
    hostCalls.mkdir = [](const char* path, mode_t) { return asked += path + std::string("|"), -1; };
    EXPECT_EQ(KalMakeDir("one\\"), -1);
    EXPECT_EQ(KalMakeDir("two"), -1);
    EXPECT_EQ(asked, "one/|one|two|two/|");
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
    EXPECT_EQ(here(), "C:\\");
    fs::create_directory(path("gone"));
    EXPECT_EQ(KalChangeDir(path("gone").c_str()), 0);
    fs::remove(path("gone"));
    EXPECT_EQ(here(), "-700 untouched");
}

TEST(Time, IsTheSystemClocks) {
    using namespace std::chrono;
    const auto before = floor<milliseconds>(system_clock::now().time_since_epoch());
    int32_t whole;
    uint16_t thousandths;
    KalGetTime(&whole, &thousandths);
    EXPECT_LE(before, seconds(whole) + milliseconds(thousandths));
    EXPECT_GE(system_clock::now().time_since_epoch(), seconds(whole) + milliseconds(thousandths));
    EXPECT_LT(thousandths, 1000);
}
