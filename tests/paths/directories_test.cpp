// Directories, the home and the environment of a task, and the time of day.
#include "tests/support/faults.h"
#include "tests/support/room.h"

#include <chrono>
#include <thread>

namespace {

// A call's result: its status where it is not 0, and the text.
template <class Call>
std::string told(uint32_t size, Call call) {
    Room room(size);
    const int16_t status = call(room.data(), size);
    return status != KAL_OK ? nameOf(status) : room.text();
}

// No home before and after, and the environment as it was.
class Tasks : public FolderTest {
protected:
    ~Tasks() override {
        for (const auto& [name, value] : before_)
            set(name.c_str(), value.empty() ? nullptr : value.c_str());
    }
    void set(const char* name, const char* value) {
        const char* old = std::getenv(name);
        before_.emplace(name, old != nullptr ? old : "");
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    static std::string here(uint32_t size = 512) { return told(size, KalGetCurWorkDir); }

private:
    std::map<std::string, std::string> before_;
};

} // namespace

TEST_F(Tasks, DirectoriesWithAndWithoutTheirSeparator) {
    const std::string top = here();
    EXPECT_EQ(top.substr(0, 3), "C:\\");
    fs::create_directories("drive/below");
    set("KAL_DRIVE_Q", path("drive").c_str());
    // Made or changed to, the path, the status, and where that leads; what was told leads back.
    for (const std::string row :
         {"make|one\\|KAL_OK|", "make|TOP\\two|KAL_OK|", "make|two|-1|", "make|missing\\two|-1|",
          "make||KAL_ERR_EMPTY_PATH|", "make|q:\\below\\three\\|KAL_OK|", "to|ONE\\|KAL_OK|\\one",
          "to|..\\two|KAL_OK|\\two", "to|missing|-1|\\two", "to||KAL_ERR_EMPTY_PATH|\\two",
          "to|Q:|KAL_OK|\\drive", "to|TOP|KAL_OK|"}) {
        auto piece = pieces(row);
        if (piece[1].starts_with("TOP"))
            piece[1].replace(0, 3, top);
        const int status = (piece[0] == "make" ? KalMakeDir : KalChangeDir)(piece[1].c_str());
        EXPECT_EQ(nameOf(status), piece[2]) << row;
        EXPECT_EQ(here(), top + piece[3]);
    }
    EXPECT_TRUE(fs::exists("drive/below/three") && fs::exists("one") && fs::exists("two"));
    EXPECT_EQ(KalMakeDir(nullptr), KAL_ERR_EMPTY_PATH);
    EXPECT_EQ(KalGetCurWorkDir(nullptr, 10), KAL_ERR_DESTINATION);
    EXPECT_EQ(here(0), "KAL_ERR_DESTINATION");
    EXPECT_EQ(here(uint32_t(top.size())), "KAL_ERR_CURRENT_DIR");
    EXPECT_EQ(here(uint32_t(top.size() + 1)), top);
    EXPECT_EQ(KalGetCurDiskStatus(), KAL_OK);
    set("KAL_DRIVE_Q", nullptr);
    EXPECT_EQ(KalChangeDir("Q:"), KAL_OK) << "without a folder of its own it is the root";
    EXPECT_EQ(here(), "C:\\");
    fs::create_directory(path("gone"));
    KalChangeDir(path("gone").c_str());
    fs::remove(path("gone"));
    EXPECT_EQ(here(), "KAL_ERR_CURRENT_DIR");
    static std::string asked;
    const HostCallGuard guard;
    hostCalls.mkdir = [](const char* path, mode_t) { return asked += path + std::string("|"), -1; };
    EXPECT_EQ(KalMakeDir("one\\") + KalMakeDir("two"), -2);
    EXPECT_EQ(asked, "one/|one|two|two/|") << "once more with the other ending";
}

TEST_F(Tasks, SearchTextIsTheHomeThenThePath) {
    const std::string d = "C:\\" + std::string(3000, 'd') + "\\", deep = d + "X.EXE||" + d;
    // The home's file, PATH, and the search text, of which the home's directory comes first.
    for (const std::string row : {"C:\\APP\\PROG.EXE|C:\\DOS|C:\\APP\\;C:\\DOS", "PROG.EXE||",
                                  "PROG.EXE|/usr/bin:/bin|;\\usr\\bin;\\bin", deep.c_str()}) {
        const auto piece = pieces(row);
        const std::string name = piece[0], searchText = piece[2], home = pieces(searchText, ';')[0];
        set("PATH", piece[1].empty() ? nullptr : piece[1].c_str());
        EXPECT_EQ(KalGetHome(), nullptr);
        EXPECT_EQ(KalGetHomeExecPath(nullptr, 0), nullptr);
        EXPECT_EQ(KalGetPath(), KalGetEnv("path"));
        KalSetHome(name.c_str());
        EXPECT_EQ(KalGetHome(), searchText);
        EXPECT_EQ(KalGetPath(), searchText);
        EXPECT_STREQ(static_cast<char*>(KalGetTaskData(17)), name.c_str());
        for (uint32_t size = 0; size < 20; size++) {
            Room room(size);
            EXPECT_EQ(KalGetHomeExecPath(room.data(), size), room.data());
            EXPECT_EQ(room.text(), home.substr(0, size - (size > 0)));
        }
        std::thread([] { EXPECT_EQ(KalGetHome(), nullptr) << "another task"; }).join();
        KalSetHome(KalGetHome()); // what it gave may be given back
        EXPECT_EQ(static_cast<char*>(KalGetTaskData(17)), searchText);
        KalSetHome(nullptr);
        EXPECT_EQ(KalGetTaskData(17), nullptr);
    }
}

TEST_F(Tasks, ALentTextIsUsedItselfAndOnlyHeapBlocksAreFreed) {
    KalSetHome("C:\\A\\B");
    auto* mine = static_cast<char*>(KalGetTaskData(2));
    char lent[] = "D:\\X;E:\\";
    KalSetHomeStr(lent);
    EXPECT_EQ(KalGetHome(), lent);
    KalSetHome("C:\\B\\C"); // must not free what is not a heap block
    EXPECT_STREQ(lent, "D:\\X;E:\\");
    KalSetHome(nullptr);
    KalSetHomeStr(mine);
    KalSetHome(nullptr); // frees it
    EXPECT_EQ(KalSizeSMem(mine), 0u);
}

TEST_F(Tasks, EnvironmentVariablesAreFoundWithoutRegardToCase) {
    set("KalMixed", "one=two");
    const char* before = KalGetEnv("KALMIXED");
    EXPECT_STREQ(before, "one=two");
    for (const char* none : {"KalMixe", "KalMixedX", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(KalGetEnv(none), nullptr);
    EXPECT_EQ(KalGetEnv("KalMixed"), before) << "one block while nothing changes";
    set("KalMixed", "three");
    EXPECT_STREQ(KalGetEnv("KalMixed"), "three");
    EXPECT_STREQ(before, "one=two") << "old answers stay valid";
    set("WINDIR", "C:\\WINDOWS");
    EXPECT_EQ(told(11, KalGetPrivateDir), "C:\\WINDOWS");
    for (const uint32_t size : {0u, 10u})
        EXPECT_EQ(told(size, KalGetPrivateDir), "KAL_ERR_EXAMINE");
    set("WINDIR", nullptr);
    set("XDG_CONFIG_HOME", "/home/u/.config");
    EXPECT_EQ(told(300, KalGetPrivateDir), "C:\\home\\u\\.config");
    set("XDG_CONFIG_HOME", nullptr);
    set("HOME", nullptr);
    EXPECT_EQ(told(300, KalGetPrivateDir), "KAL_ERR_EXAMINE") << "there is none";
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
