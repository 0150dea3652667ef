#include "platform/clock.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "tests/support/trouble.h"

#include <kal/file.h>
#include <kal/stream.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

constexpr uint16_t kCreateTest = 0x0302;

class FileInformation : public FolderTest {
protected:
    FileInformation() { stat_ = KalOpenFileStat(); }
    ~FileInformation() override { KalCloseFileStat(stat_); }
    int16_t fileStat(const char* path) {
        stat_->writable = 77;
        return KalFileStat(path, stat_);
    }
    uint16_t writable() const { return stat_->writable; }
    static std::string dateOf(const char* path) {
        FILEINFO info;
        if (KalGetFileDateTimeSize(path, &info) != 0)
            return "refused";
        char text[64];
        std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d", info.year, info.month, info.day, info.hour,
                      info.minute, info.seconds2);
        return text;
    }
    static void setTime(const char* path, int64_t seconds) {
        const timespec times[2] = {{time_t(seconds), 0}, {time_t(seconds), 999'999'999}};
        ASSERT_EQ(utimensat(AT_FDCWD, path, times, 0), 0);
    }

private:
    FILESTAT* stat_;
};

} // namespace

TEST_F(FileInformation, DateTimeAndSizeOfAFile) {
    writeFile("f", Bytes(12345));
    setTime("f", 984666157); // 2001-03-15 14:22:37 UTC
    for (const char* zone : {"UTC", "America/New_York", "Asia/Kathmandu", "XYZ-14"}) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(dateOf("f"), "101-3-15 14:22:18") << zone;
    }
    unsetenv("TZ");
    FILEINFO info;
    EXPECT_EQ(KalGetFileDateTimeSize("f", &info), 0);
    EXPECT_EQ(val(info.size), 12345u);
    EXPECT_EQ(KalGetFileSize("f"), 12345u);
    EXPECT_EQ(KalGetFileDateTimeSize(".", &info), -702);
    EXPECT_EQ(KalGetFileSize("."), 0u);
    for (const char* missing : {"missing", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(KalGetFileDateTimeSize(missing, &info), -702);
        EXPECT_EQ(KalGetFileSize(missing), 4294966594u);
    }
    fs::resize_file("f", (uint64_t(1) << 32) + 5);
    EXPECT_EQ(KalGetFileDateTimeSize("f", &info), 0);
    EXPECT_EQ(val(info.size), 5u);
    EXPECT_EQ(KalGetFileSize("f"), 5u);
    uint32_t attributes = 9;
    EXPECT_EQ(KalFileAttr("f", &attributes), 0);
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
    for (int64_t early : {first - 1, int64_t(0), int64_t(-1), int64_t(-20000000000), INT64_MIN})
        EXPECT_EQ(packed(early), packed(first));
    for (int64_t late : {past, int64_t(100000000000), int64_t(2000000000000), INT64_MAX})
        EXPECT_EQ(packed(late), packed(past - 1));
}

TEST_F(FileInformation, WhetherAFileCanBeMade) {
    writeFile("PIC.BMP", bytesOf("mine"));
    writeFile("PIC0.BMP", bytesOf("mine too"));
    fs::create_symlink("target", "PIC1.BMP"); // a link to nothing is a taken name
    const auto before = filesIn(".");
    EXPECT_EQ(fileStat("PIC.BMP"), 0);
    EXPECT_EQ(writable(), 1);
    EXPECT_EQ(fileStat(""), 0);
    EXPECT_EQ(fileStat(nullptr), 0);
    EXPECT_EQ(fileStat("missing\\PIC.BMP"), -202);
    EXPECT_EQ(writable(), 0);
    EXPECT_EQ(fileStat(std::string(772, 'A').c_str()), -250);
    EXPECT_EQ(writable(), 77) << "not touched";
    EXPECT_EQ(fileStat((std::string(300, 'D') + "\\A.B").c_str()), -250);
    withEachAllocationFailing([&](int) {
        const int16_t status = fileStat("PIC.BMP");
        EXPECT_TRUE(status == 0 || status == -100) << status;
        EXPECT_EQ(filesIn("."), before);
    });
    EXPECT_EQ(filesIn("."), before);
    EXPECT_EQ(readFile("PIC.BMP"), bytesOf("mine"));
    EXPECT_EQ(readFile("PIC0.BMP"), bytesOf("mine too"));
}

TEST_F(FileInformation, TroubleLeavesNothingBehind) {
    const std::set<int> statuses = {KAL_ERR_MEMORY, KAL_ERR_SERVICE, KAL_ERR_OPEN - EIO,
                                    KAL_ERR_OPEN - ENOSPC, KAL_ERR_CLOSE};
    writeFile("A0.B", bytesOf("mine"));
    constexpr unsigned troubles = kAllTrouble & ~kKilled; // a kill leaves the file that was tried
    walkTrouble({.run = [this] { return fileStat("A.B"); }, .statuses = statuses}, troubles);
    walkTrouble({.run = [] { return KalAccessFile("new", kCreateTest); }, .statuses = statuses}, troubles);
    walkTrouble({.run = [] { return KalAccessFile("A0.B", kCreateTest); }, .statuses = statuses},
                kAllTrouble);
}

TEST_F(FileInformation, AccessTestsHarmNoFile) {
    writeFile("f", bytesOf("content"));
    fs::create_directory("folder");
    fs::create_symlink("nowhere", "link");
    const auto before = filesIn(".");
    for (const uint16_t mode :
         std::initializer_list<uint16_t>{0x0302, 0x0100, 0x0101, 0x0102, 0x0182, 0x010A, 0x0008, 2, 0}) {
        EXPECT_EQ(KalExplicitAccessFile("f", mode), 0) << mode;
        EXPECT_EQ(readFile("f"), bytesOf("content")) << mode;
        EXPECT_EQ(KalExplicitAccessFile("folder", mode), -213) << mode;
    }
    EXPECT_EQ(KalAccessFile("f", kCreateTest), 0);
    EXPECT_EQ(KalAccessFile("F", kCreateTest), 0);
    EXPECT_EQ(KalAccessFile("new", kCreateTest), 0);
    EXPECT_EQ(KalAccessFile("missing\\new", kCreateTest), -202);
    EXPECT_EQ(KalAccessFile("", kCreateTest), -202);
    EXPECT_EQ(KalAccessFile("link", kCreateTest), -202);
    withEachAllocationFailing([&](int) { EXPECT_LE(KalAccessFile("new", kCreateTest), 0); });
    EXPECT_EQ(filesIn("."), before);
    EXPECT_EQ(readFile("f"), bytesOf("content"));
    for (const uint16_t mode : std::initializer_list<uint16_t>{0, 2, 4, 6}) {
        EXPECT_EQ(KalAccessFile("f", mode), 0);
        EXPECT_EQ(KalAccessFile("missing", mode), -1);
    }
    EXPECT_EQ(KalExplicitAccessFile("made", 0x0102), 0);
    EXPECT_TRUE(fileExists("made")) << "only the test's own mode deletes";
}

TEST_F(FileInformation, WithoutRights) {
    writeFile("readable", bytesOf("r"));
    writeFile("hidden", bytesOf("h"));
    fs::permissions("hidden", fs::perms::none);
    fs::permissions("readable", fs::perms(0444));
    fs::permissions(".", fs::perms(0555));
    EXPECT_EQ(inChildWithoutRights([&] {
                  EXPECT_EQ(fileStat("readable"), -213);
                  EXPECT_EQ(writable(), 0);
                  EXPECT_EQ(KalAccessFile("readable", kCreateTest), -213);
                  EXPECT_EQ(KalAccessFile("new", kCreateTest), -213);
                  EXPECT_EQ(KalAccessFile("readable", 2), -1);
                  EXPECT_EQ(KalAccessFile("readable", 4), 0);
                  EXPECT_EQ(KalAccessFile("hidden", 0), 0);
                  EXPECT_EQ(KalAccessFile("hidden", 4), -1);
                  FILEINFO info;
                  EXPECT_EQ(KalGetFileDateTimeSize("hidden", &info), -702);
                  EXPECT_EQ(KalGetFileSize("hidden"), 1u);
                  EXPECT_EQ(KalMakeDir("new"), -1);
              }),
              0);
    fs::permissions(".", fs::perms(0755));
}
