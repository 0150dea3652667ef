#include "platform/clock.h"
#include "tests/support/faults.h"
#include "tests/support/processes.h"
#include "tests/support/trouble.h"

#include <kal/file.h>
#include <kal/path.h>
#include <kal/stream.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

constexpr uint16_t kCreateTest = KAL_MODE_CREATE | KAL_MODE_UPDATE | 0x0200;
constexpr int16_t kDenied = KAL_ERR_OPEN - EACCES;
constexpr int16_t kMissing = KAL_ERR_OPEN - ENOENT;

class FileInformation : public FolderTest {
protected:
    // The status, and what `writable` became of 77.
    static std::string fileStat(const std::string& path) {
        FILESTAT* stat = KalOpenFileStat();
        stat->writable = 77;
        const int16_t status = KalFileStat(path.c_str(), stat);
        const std::string answer = std::to_string(status) + " " + std::to_string(stat->writable);
        KalCloseFileStat(stat);
        return answer;
    }
};

} // namespace

TEST_F(FileInformation, DateTimeAndSizeOfAFile) {
    FILEINFO info;
    writeFile("f", Bytes(12345));
    const timespec times[2] = {{984666157, 0}, {984666157, 999'999'999}}; // 2001-03-15 14:22:37 UTC
    ASSERT_EQ(utimensat(AT_FDCWD, "f", times, 0), 0);
    for (const char* zone : {"UTC", "America/New_York", "XYZ-14"}) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(KalGetFileDateTimeSize("f", &info), KAL_OK);
        const std::vector<int> date = {info.year, info.month,  info.day,
                                       info.hour, info.minute, info.seconds2};
        EXPECT_EQ(date, (std::vector<int>{101, 3, 15, 14, 22, 18})) << zone;
    }
    unsetenv("TZ");
    EXPECT_EQ(val(info.size), 12345u);
    EXPECT_EQ(KalGetFileDateTimeSize(".", &info), KAL_ERR_EXAMINE);
    EXPECT_EQ(KalGetFileSize("."), 0u);
    for (const char* missing : {"missing", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(KalGetFileDateTimeSize(missing, &info), KAL_ERR_EXAMINE);
        EXPECT_EQ(KalGetFileSize(missing), 4294966594u);
    }
    fs::resize_file("f", (uint64_t(1) << 32) + 5);
    EXPECT_EQ(KalGetFileDateTimeSize("f", &info), KAL_OK);
    EXPECT_EQ(val(info.size), 5u);
    EXPECT_EQ(KalGetFileSize("f"), 5u);
    uint32_t attributes = 9;
    EXPECT_EQ(KalFileAttr("f", &attributes), KAL_OK);
    EXPECT_EQ(attributes, 9u);
}

TEST(FileTimes, PackedDatesAgreeWithTheCalendar) {
    const auto packed = [](int64_t seconds) {
        const FILETIME time = toFileTime(seconds, 999'999'999);
        uint16_t date, timeOfDay;
        EXPECT_EQ(FileTimeToDosDateTime(&time, &date, &timeOfDay), 1);
        return uint32_t(date) << 16 | timeOfDay;
    };
    constexpr int64_t first = 315532800, past = 4354819200; // 1980 and 2108
    std::mt19937_64 random(17);
    for (int i = 0; i < 20000; i++) {
        const int64_t at = i == 0 ? first : i == 1 ? past - 1 : first + int64_t(random() % (past - first));
        const auto seconds = time_t(at);
        tm parts;
        gmtime_r(&seconds, &parts);
        const int date = (parts.tm_year - 80) << 9 | (parts.tm_mon + 1) << 5 | parts.tm_mday;
        const int clock = parts.tm_hour << 11 | parts.tm_min << 5 | parts.tm_sec / 2;
        ASSERT_EQ(packed(at), uint32_t(date) << 16 | uint32_t(clock)) << at;
    }
    for (const int64_t early : {first - 1, int64_t(0), int64_t(-1), int64_t(-20000000000), INT64_MIN})
        EXPECT_EQ(packed(early), packed(first));
    for (const int64_t late : {past, int64_t(100000000000), int64_t(2000000000000), INT64_MAX})
        EXPECT_EQ(packed(late), packed(past - 1));
}

TEST_F(FileInformation, WhetherAFileCanBeMade) {
    writeFile("PIC.BMP", bytesOf("mine"));
    writeFile("PIC0.BMP", bytesOf("mine too"));
    fs::create_symlink("target", "PIC1.BMP"); // a link to nothing is a taken name
    const struct {
        std::string path;
        const char* answer;
    } cases[] = {{"PIC.BMP", "0 1"},
                 {"", "0 1"},
                 {"missing\\PIC.BMP", "-202 0"},
                 {std::string(772, 'A'), "-250 77"},
                 {std::string(300, 'D') + "\\A.B", "-250 77"}};
    for (const auto& [path, answer] : cases)
        EXPECT_EQ(fileStat(path), answer) << path;
    EXPECT_EQ(filesIn("."), (std::vector<std::string>{"PIC.BMP", "PIC0.BMP", "PIC1.BMP"}));
    EXPECT_EQ(readFile("PIC0.BMP"), bytesOf("mine too"));
}

TEST_F(FileInformation, AccessTestsHarmNoFile) {
    writeFile("f", bytesOf("content"));
    fs::create_directory("folder");
    fs::create_symlink("nowhere", "link");
    const auto before = filesIn(".");
    for (const uint16_t mode : Words{kCreateTest, 0x0100, 0x0101, 0x0102, 0x0182, 0x010A, 0x0008, 2, 0}) {
        EXPECT_EQ(KalExplicitAccessFile("f", mode), KAL_OK) << mode;
        EXPECT_EQ(readFile("f"), bytesOf("content")) << mode;
        EXPECT_EQ(KalExplicitAccessFile("folder", mode), kDenied) << mode;
    }
    for (const char* path : {"f", "F", "new"})
        EXPECT_EQ(KalAccessFile(path, kCreateTest), KAL_OK) << path;
    for (const char* path : {"missing\\new", "", "link"})
        EXPECT_EQ(KalAccessFile(path, kCreateTest), kMissing) << path;
    for (const uint16_t mode : Words{0, 2, 4, 6}) {
        EXPECT_EQ(KalAccessFile("f", mode), 0);
        EXPECT_EQ(KalAccessFile("missing", mode), -1);
    }
    EXPECT_EQ(filesIn("."), before);
    EXPECT_EQ(KalExplicitAccessFile("made", 0x0102), KAL_OK);
    EXPECT_TRUE(fileExists("made")) << "only the test's own mode deletes";
}

TEST_F(FileInformation, TroubleLeavesNothingBehind) {
    constexpr unsigned troubles = kAllTrouble & ~kKilled; // a kill leaves the file that was tried
    const std::set<int> statuses = {KAL_ERR_MEMORY, KAL_ERR_SERVICE, KAL_ERR_OPEN - EIO,
                                    KAL_ERR_OPEN - ENOSPC, KAL_ERR_CLOSE};
    writeFile("A0.B", bytesOf("mine"));
    const auto canBeMade = [] {
        FILESTAT stat;
        return KalFileStat("A.B", &stat);
    };
    const auto dateAndSize = [] {
        FILEINFO info;
        return KalGetFileDateTimeSize("A0.B", &info);
    };
    walkTrouble({.run = dateAndSize, .statuses = {KAL_ERR_EXAMINE}});
    walkTrouble({.run = canBeMade, .statuses = statuses}, troubles);
    walkTrouble({.run = [] { return KalAccessFile("new", kCreateTest); }, .statuses = statuses}, troubles);
    walkTrouble({.run = [] { return KalAccessFile("A0.B", kCreateTest); }, .statuses = statuses});
}

TEST_F(FileInformation, WithoutRights) {
    writeFile("readable", bytesOf("r"));
    writeFile("hidden", bytesOf("h"));
    fs::permissions("hidden", fs::perms::none);
    fs::permissions("readable", fs::perms(0444));
    fs::permissions(".", fs::perms(0555));
    EXPECT_EQ(inChildWithoutRights([&] {
                  EXPECT_EQ(fileStat("readable"), std::to_string(kDenied) + " 0");
                  EXPECT_EQ(KalAccessFile("readable", kCreateTest), kDenied);
                  EXPECT_EQ(KalAccessFile("new", kCreateTest), kDenied);
                  EXPECT_EQ(KalAccessFile("readable", 2), -1);
                  EXPECT_EQ(KalAccessFile("readable", 4), 0);
                  EXPECT_EQ(KalAccessFile("hidden", 0), 0);
                  EXPECT_EQ(KalAccessFile("hidden", 4), -1);
                  FILEINFO info;
                  EXPECT_EQ(KalGetFileDateTimeSize("hidden", &info), KAL_ERR_EXAMINE);
                  EXPECT_EQ(KalGetFileSize("hidden"), 1u);
                  EXPECT_EQ(KalMakeDir("new"), -1);
              }),
              0);
    fs::permissions(".", fs::perms(0755));
}
