#include "tests/support/trouble.h"

#include "tests/support/faults.h"

#include <kal/heap.h>
#include <kal/path.h>

#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

// PATH as given while it is in scope, and no home before and after.
class Home : public FolderTest {
protected:
    Home() : path_(std::getenv("PATH")) { setenv("PATH", "C:\\DOS", 1); }
    ~Home() override {
        KalSetHome(nullptr);
        setenv("PATH", path_.c_str(), 1);
    }

private:
    const HeapBalance balance_;
    const std::string path_;
};

} // namespace

TEST_F(Home, SearchTextIsTheHomeThenThePath) {
    EXPECT_EQ(KalGetHome(), nullptr);
    EXPECT_STREQ(KalGetPath(), "C:\\DOS");
    char directory[260];
    EXPECT_EQ(KalGetHomeExecPath(directory, 260), nullptr);
    KalSetHome("C:\\APP\\PROG.EXE");
    EXPECT_STREQ(KalGetHome(), "C:\\APP\\;C:\\DOS");
    EXPECT_STREQ(KalGetPath(), "C:\\APP\\;C:\\DOS");
    EXPECT_STREQ(KalGetHomeExecPath(directory, 260), "C:\\APP\\");
    EXPECT_STREQ(KalGetHomeExecPath(directory, 4), "C:\\");
    EXPECT_EQ(KalGetHomeExecPath(directory, 0), directory);
    EXPECT_STREQ(directory, "C:\\") << "left alone";
    EXPECT_STREQ(static_cast<char*>(KalGetTaskData(17)), "C:\\APP\\PROG.EXE");
    KalSetHome("C:\\APP\\");
    KalSetHome(KalGetHome()); // what it gave may be given back
    EXPECT_STREQ(static_cast<char*>(KalGetTaskData(17)), "C:\\APP\\;C:\\DOS");
    std::thread([] { EXPECT_EQ(KalGetHome(), nullptr) << "another task"; }).join();
    unsetenv("PATH");
    KalSetHome("PROG.EXE");
    EXPECT_STREQ(KalGetHome(), "");
    const std::string deep = "C:\\" + std::string(3000, 'd') + "\\";
    KalSetHome((deep + "X.EXE").c_str());
    EXPECT_EQ(KalGetHome(), deep);
    KalSetHome(nullptr);
    EXPECT_EQ(KalGetHome(), nullptr);
    EXPECT_EQ(KalGetTaskData(17), nullptr);
}

TEST_F(Home, ALentTextIsUsedItselfAndOnlyHeapBlocksAreFreed) {
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

TEST_F(Home, ShortMemorySetsNoHome) {
    for (int n = 1, met = 1; met; n++) {
        failHeapAllocation(n);
        KalSetHome("C:\\A\\B");
        met = heapFaultHappened();
        EXPECT_EQ(KalGetHome() == nullptr, met && n > 1) << n;
        EXPECT_EQ(KalGetHome() == nullptr, KalGetTaskData(17) == nullptr);
        failHeapAllocation(0);
    }
}

TEST_F(Home, EnvironmentVariablesAreFoundWithoutRegardToCase) {
    setenv("KalMixed", "one=two", 1);
    EXPECT_STREQ(KalGetEnv("KALMIXED"), "one=two");
    EXPECT_STREQ(KalGetEnv("path"), "C:\\DOS");
    for (const char* none : {"KalMixe", "KalMixedX", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(KalGetEnv(none), nullptr);
    const char* before = KalGetEnv("KalMixed");
    EXPECT_EQ(KalGetEnv("KalMixed"), before) << "one block while nothing changes";
    setenv("KalMixed", "three", 1);
    EXPECT_STREQ(KalGetEnv("KalMixed"), "three");
    EXPECT_STREQ(before, "one=two") << "old answers stay valid";
    unsetenv("KalMixed");
    setenv("PATH", "/usr/bin:/bin", 1);
    EXPECT_STREQ(KalGetPath(), "\\usr\\bin;\\bin") << "a path of the host in the platform's form";
}

TEST_F(Home, PrivateDirectoryFitsOrFails) {
    char directory[300];
    setenv("WINDIR", "C:\\WINDOWS", 1);
    EXPECT_EQ(KalGetPrivateDir(directory, 11), KAL_OK);
    EXPECT_STREQ(directory, "C:\\WINDOWS");
    EXPECT_EQ(KalGetPrivateDir(directory, 10), KAL_ERR_EXAMINE);
    EXPECT_EQ(KalGetPrivateDir(directory, 0), KAL_ERR_EXAMINE);
    unsetenv("WINDIR");
    setenv("XDG_CONFIG_HOME", "/home/u/.config", 1);
    EXPECT_EQ(KalGetPrivateDir(directory, 300), KAL_OK);
    EXPECT_STREQ(directory, "C:\\home\\u\\.config");
    unsetenv("XDG_CONFIG_HOME");
    const std::string home = std::getenv("HOME") != nullptr ? std::getenv("HOME") : "";
    unsetenv("HOME");
    EXPECT_EQ(KalGetPrivateDir(directory, 300), KAL_ERR_EXAMINE) << "there is none";
    setenv("HOME", home.c_str(), 1);
}
