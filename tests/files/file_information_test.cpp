#include "platform/clock.h"
#include "tests/support/faults.h"
#include "tests/support/processes.h"

#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr uint16_t kTry = KAL_MODE_NEW_FILE; // whether it can be made
constexpr int kDenied = KAL_ERR_OPEN - EACCES, kMissing = KAL_ERR_OPEN - ENOENT;

class FileInformation : public FolderTest {
protected:
    // The status, and 1000 times what `writable` became of 77.
    static int fileStat(const std::string& path) {
        FILESTAT* stat = KalOpenFileStat();
        stat->writable = 77;
        const int status = KalFileStat(path.c_str(), stat) + 1000 * stat->writable;
        KalCloseFileStat(stat);
        return status;
    }
};

} // namespace

TEST_F(FileInformation, DateTimeAndSizeOfAFile) {
    FILEINFO info;
    writeFile("f", {});
    fs::resize_file("f", (uint64_t(1) << 32) + 12345);
    const timespec times[2] = {{984666157, 0}, {984666157, 999'999'999}}; // 2001-03-15 14:22:37 UTC
    ASSERT_EQ(utimensat(AT_FDCWD, "f", times, 0), 0);
    for (const char* zone : {"UTC", "America/New_York", "XYZ-14"}) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(KalGetFileDateTimeSize("f", &info), KAL_OK);
        EXPECT_EQ((std::vector<int>{info.year, info.month, info.day, info.hour, info.minute, info.seconds2}),
                  (std::vector<int>{101, 3, 15, 14, 22, 18}))
            << zone;
    }
    unsetenv("TZ");
    EXPECT_EQ(val(info.size), 12345u) << "the low 32 bits";
    EXPECT_EQ(KalGetFileSize("f"), 12345u);
    EXPECT_EQ(KalGetFileDateTimeSize(".", &info), KAL_ERR_EXAMINE);
    EXPECT_EQ(KalGetFileSize("."), 0u);
    for (const char* missing : {"missing", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(KalGetFileDateTimeSize(missing, &info), KAL_ERR_EXAMINE);
        EXPECT_EQ(int32_t(KalGetFileSize(missing)), KAL_ERR_EXAMINE);
    }
    uint32_t attributes = 9;
    EXPECT_EQ(KalFileAttr("f", &attributes), KAL_OK);
    EXPECT_EQ(attributes, 9u);
}

TEST(FileTimes, PackedDatesAgreeWithTheCalendar) {
    constexpr int64_t first = 315532800, past = 4354819200; // 1980 and 2108
    std::vector<int64_t> all = {first - 1, 0, -1, INT64_MIN, first, past - 1, past, 100000000000, INT64_MAX};
    std::mt19937_64 random(17);
    while (all.size() < 20000)
        all.push_back(first + int64_t(random() % (past - first)));
    for (const int64_t at : all) {
        const auto seconds = time_t(std::clamp(at, first, past - 1));
        tm parts;
        gmtime_r(&seconds, &parts);
        const FILETIME time = toFileTime(at, 999'999'999);
        uint16_t date, timeOfDay;
        EXPECT_EQ(FileTimeToDosDateTime(&time, &date, &timeOfDay), 1);
        ASSERT_EQ(date, (parts.tm_year - 80) << 9 | (parts.tm_mon + 1) << 5 | parts.tm_mday) << at;
        ASSERT_EQ(timeOfDay, parts.tm_hour << 11 | parts.tm_min << 5 | parts.tm_sec / 2) << at;
    }
}

TEST_F(FileInformation, TriesHarmNoFile) {
    writeFile("f", bytesOf("content"));
    writeFile("f0", bytesOf("mine too"));
    fs::create_directory("folder");
    fs::create_symlink("nowhere", "f1"); // a link to nothing is a taken name
    const auto before = filesIn(".");
    const std::pair<std::string, int> stats[] = {{"f", 1000},
                                                 {"", 1000},
                                                 {"missing\\f", kMissing},
                                                 {std::string(772, 'A'), KAL_ERR_SERVICE + 77000},
                                                 {std::string(300, 'D') + "\\A.B", KAL_ERR_SERVICE + 77000}};
    for (const auto& [path, answer] : stats)
        EXPECT_EQ(fileStat(path), answer) << path;
    for (const uint16_t mode : Words{kTry, 0x0100, 0x0101, 0x0102, 0x0182, 0x010A, 0x0008, 2, 0}) {
        EXPECT_EQ(KalExplicitAccessFile("f", mode), KAL_OK) << mode;
        EXPECT_EQ(KalExplicitAccessFile("folder", mode), kDenied) << mode;
    }
    for (const char* path : {"f", "F", "new"})
        EXPECT_EQ(KalAccessFile(path, kTry), KAL_OK) << path;
    for (const char* path : {"missing\\new", "", "f1"})
        EXPECT_EQ(KalAccessFile(path, kTry), kMissing) << path;
    for (const uint16_t mode : Words{0, 2, 4, 6}) {
        EXPECT_EQ(KalAccessFile("f", mode), 0);
        EXPECT_EQ(KalAccessFile("missing", mode), -1);
    }
    EXPECT_EQ(filesIn("."), before);
    EXPECT_EQ(readFile("f"), bytesOf("content"));
    EXPECT_EQ(readFile("f0"), bytesOf("mine too"));
    EXPECT_EQ(KalExplicitAccessFile("made", 0x0102), KAL_OK);
    EXPECT_TRUE(fileExists("made")) << "only the trying mode deletes";
}

TEST_F(FileInformation, WithoutRights) {
    for (const auto& [name, rights] : {std::pair{"readable", 0444}, {"hidden", 0}}) {
        writeFile(name, bytesOf("r"));
        fs::permissions(name, fs::perms(rights));
    }
    fs::permissions(".", fs::perms(0555));
    EXPECT_EQ(inChildWithoutRights([&] {
                  FILEINFO info;
                  EXPECT_EQ(fileStat("readable"), kDenied);
                  EXPECT_EQ(KalAccessFile("readable", kTry) + KalAccessFile("new", kTry), 2 * kDenied);
                  EXPECT_EQ(KalAccessFile("readable", 2) + KalAccessFile("hidden", 4), -2);
                  EXPECT_EQ(KalAccessFile("readable", 4) | KalAccessFile("hidden", 0), 0);
                  EXPECT_EQ(KalGetFileDateTimeSize("hidden", &info), KAL_ERR_EXAMINE);
                  EXPECT_EQ(KalGetFileSize("hidden"), 1u);
                  EXPECT_EQ(KalMakeDir("new"), -1);
              }),
              0);
    fs::permissions(".", fs::perms(0755));
}
