// What goes wrong from outside: no memory, no room, signals, other programs, damage.
#include "tests/support/registry_test.h"
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <sys/file.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

class ShortMemory : public RegistryTest {};
class Trouble : public FolderTest {};

class Environment {
public:
    Environment(const char* name, const std::string& value) : name_(name) { setenv(name, value.c_str(), 1); }
    ~Environment() { unsetenv(name_); }

private:
    const char* name_;
};

TEST_F(ShortMemory, IsToldOrDoesNoHarm) {
    if (slowBuild)
        GTEST_SKIP() << "the sanitizer has an allocator of its own";
    writeFile("p.bmp", makeBmp({40, 30, 8}, 1));
    writeAlbum("album.kal");
    runScript(R"(mkdir here; mv p.bmp album.kal here; cd here; printf '1 text "Open"\n2 file p.bmp\n' >script
kal store a.kal p.bmp p.bmp p.bmp; kal remove a.kal 2; kal extract a.kal 1 -o p.png; kal resource make r.res script
kal compound put c.ole s script; kal compound put c.ole t p.bmp
for tag in Tag Other Third; do kal settings set 'Maker\App' $tag value; done)");
    ASSERT_EQ(::chdir("here"), 0);
    const Environment preload("LD_PRELOAD", KAL_TROUBLE);
    for (int nth = 1; nth < 30; nth++) { // before main begins
        const Environment fail("KAL_FAIL_AT", std::to_string(nth));
        expectFailure(kal({"--version"}), 1, "not enough memory");
    }
    const Environment report("KAL_SWEEP", "../report");
    bool first = true;
    for (const Arguments& command : std::vector<Arguments>{{"list", "a.kal"},
                                                           {"list", "--json", "a.kal"},
                                                           {"stat", "a.kal"},
                                                           {"dump", "a.kal", "1"},
                                                           {"cat", "a.kal", "1", "2"},
                                                           {"extract", "a.kal", "1", "-o", "out"},
                                                           {"extract", "a.kal", "1", "-o", "out.png"},
                                                           {"extract", "a.kal", "1", "-o", "-"},
                                                           {"extract", "album.kal", "1", "-o", "out"},
                                                           {"sheet", "a.kal", "--size", "16", "-o", "out"},
                                                           {"remove", "a.kal", "1"},
                                                           {"pack", "a.kal"},
                                                           {"store", "a.kal", "p.bmp"},
                                                           {"store", "new.kal", "p.png"},
                                                           {"store", "-j", "2", "new.kal", "p.bmp", "p.png"},
                                                           {"compound", "list", "c.ole"},
                                                           {"compound", "cat", "c.ole", "s"},
                                                           {"compound", "put", "c.ole", "s", "p.bmp"},
                                                           {"compound", "put", "new.ole", "s", "p.bmp"},
                                                           {"resource", "make", "new.res", "script"},
                                                           {"resource", "list", "r.res"},
                                                           {"settings", "list", "Maker\\App"},
                                                           {"settings", "tree"},
                                                           {"settings", "get", "Maker\\App", "Tag"}}) {
        SCOPED_TRACE(::testing::PrintToString(command));
        const Environment late(first ? "KAL_SWEEP_ALL" : "KAL_SWEEP_LATE", "1");
        first = false;
        EXPECT_EQ(kal(command).status, 0);
        const Bytes text = readFile("../report");
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << std::string(text.begin(), text.end());
        EXPECT_GT(std::atol(reinterpret_cast<const char*>(text.data())), 9);
    }
    ASSERT_EQ(::chdir(".."), 0);
}

// 8 programs into one archive, which does not exist yet or is packed meanwhile.
TEST_F(Trouble, OfOthersAtTheSameTimeLosesNothing) {
    for (uint32_t i = 0; i < 8; i++)
        writeFile(std::to_string(i), makeBmp({600 + i, 300, 8}, i));
    for (int race = 0; race < (slowBuild ? 2 : 10); race++) {
        std::vector<RunningTool> running;
        for (int i = 0; i < 8; i++) {
            running.emplace_back(Arguments{"store", "a.kal", std::to_string(i), "--wait", "100"});
            running.emplace_back(Arguments{"compound", "put", "c.ole", "s" + std::to_string(i),
                                           std::to_string(i), "--wait", "100"});
        }
        for (RunningTool& program : running)
            EXPECT_EQ(program.wait().status, 0);
        running.clear();
        for (const char* i : {"1", "2", "3"})
            running.emplace_back(Arguments{"remove", "a.kal", i, "--wait", "100"});
        for (int i = 0; i < 3; i++) {
            running.emplace_back(Arguments{"pack", "a.kal", "--wait", "100"});
            running.emplace_back(Arguments{"store", "a.kal", "1", "--wait", "100"});
        }
        for (RunningTool& program : running)
            EXPECT_EQ(program.wait().status, 0);
        runScript(R"sh(
kal extract a.kal --all -o . >ids
[ "$(cut -f1 ids | xargs)" = "4 5 6 7 8 9 10 11" ]
for i in {0..7}; do kal compound cat c.ole s$i | cmp - $i; done
for i in 1 1 1; do cat $i; done | cmp - <(cat 9.bmp 10.bmp 11.bmp)
rm a.kal c.ole ids *.bmp
[ "$(ls -A)" = "$(printf '%d\n' {0..7})" ])sh");
    }
}

TEST_F(Trouble, OfALockIsWaitedFor) {
    writeFile("p.bmp", makeBmp({40, 30, 8}));
    kalSucceeds({"store", "a.kal", "p.bmp"});
    const int handle = ::open("a.kal", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(handle, LOCK_EX), 0);
    expectFailure(kal({"list", "a.kal", "--wait", "0"}), 1, "a.kal: in use");
    RunningTool waits({"store", "a.kal", "p.bmp"});
    ::usleep(1500000);
    ::unlink("a.kal"); // what it waits for is not what it finds
    kalSucceeds({"store", "a.kal", "p.bmp", "p.bmp"});
    ::close(handle);
    const Outcome outcome = waits.wait();
    EXPECT_EQ(outcome.out, "3\tp.bmp\n");
    EXPECT_EQ(outcome.err, "kal: a.kal: in use; waiting for it\n");
}

TEST_F(Trouble, OfSignalsLeavesWhatWasThere) {
    writeFile("p.bmp", makeBmp({1500, 1000, 24}, 2));
    kalSucceeds({"store", "kept.kal", "p.bmp", "p.bmp"});
    kalSucceeds({"compound", "put", "kept.ole", "s", "p.bmp"});
    int step = 0;
    for (const Arguments& command : {Arguments{"store", "kept.kal", "p.bmp"},
                                     {"store", "-j", "2", "new", "p.bmp", "p.bmp"},
                                     {"extract", "kept.kal", "1", "-o", "new"},
                                     {"pack", "kept.kal"},
                                     {"remove", "kept.kal", "2"},
                                     {"compound", "put", "new", "s", "p.bmp"},
                                     {"compound", "put", "kept.ole", "s", "kept.kal"}})
        for (useconds_t delay = 1000; delay < 90000; delay += slowBuild ? 40000 : 8000) {
            const int signal = std::array{SIGTERM, SIGINT, SIGKILL}[step++ % 3];
            const Bytes archive = readFile("kept.kal"), compound = readFile("kept.ole");
            RunningTool running(command);
            ::usleep(delay);
            running.kill(signal);
            const Outcome outcome = running.wait();
            SCOPED_TRACE(::testing::PrintToString(command) + " stopped by " + std::to_string(signal));
            if (outcome.status != 0) {
                EXPECT_EQ(outcome.status, -signal) << outcome.err;
                EXPECT_EQ(outcome.err, "");
                EXPECT_EQ(filesIn("."), (std::vector<std::string>{"kept.kal", "kept.ole", "p.bmp"}));
                // Killed when all was done but the end of the process, it may have done it.
                runScript("kal extract kept.kal 1 -o - | cmp - p.bmp; kal compound cat kept.ole s | "
                          "cmp - p.bmp || kal compound cat kept.ole s | cmp - kept.kal");
                if (signal != SIGKILL) {
                    EXPECT_TRUE(readFile("kept.kal") == archive && readFile("kept.ole") == compound);
                }
            }
            ::unlink("new");
            writeFile("kept.kal", archive);
            writeFile("kept.ole", compound);
        }
}

// Where files cannot be without a name they have one that tells whose they are; dead programs' are removed.
TEST_F(Trouble, OfAFileSystemThatWantsNamesIsOvercome) {
    if (slowBuild)
        GTEST_SKIP() << "nothing can be loaded before the sanitizer";
    writeFile("p.bmp", makeBmp({40, 30, 8}));
    const Environment preload("LD_PRELOAD", KAL_TROUBLE), named("KAL_NO_UNNAMED", "1");
    for (const char* left : {".a.kal.kal-1-0", ".out.kal-99-3", ".other.kal-1-0"})
        writeFile(left, bytesOf("left behind"));
    const int handle = ::open(".out.kal-1-0", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(handle, LOCK_EX), 0); // its program lives
    kalSucceeds({"store", "-j", "2", "a.kal", "p.bmp", "p.bmp"});
    for (int i = 0; i < 2; i++)
        kalSucceeds({"extract", "a.kal", "2", "-o", "out"});
    kalSucceeds({"pack", "a.kal"});
    expectRefusals({{{"store", "b.kal", "out", "none"}, "none: No such file"}});
    EXPECT_EQ(filesIn("."),
              (std::vector<std::string>{".other.kal-1-0", ".out.kal-1-0", "a.kal", "out", "p.bmp"}));
    EXPECT_TRUE(readFile("out") == readFile("p.bmp"));
    ::close(handle);
}

TEST_F(Trouble, OfAFullDiskLeavesWhatWasThere) {
    writeFile("small.bmp", makeBmp({40, 30, 8}));
    writeFile("big.bmp", makeBmp({9000, 30, 8}));
    kalSucceeds({"store", "big.kal", "big.bmp"});
    const TinyFileSystem tiny("tiny", 160000);
    if (!tiny.mounted())
        GTEST_SKIP() << "no right to mount";
    kalSucceeds({"store", "tiny/a.kal", "small.bmp"});
    expectRefusals({{{"store", "tiny/new.kal", "big.bmp"}, "tiny/new.kal: no room left on the disk"},
                    {{"extract", "big.kal", "1", "-o", "tiny/out.bmp"}, "tiny/out.bmp: No space left"},
                    {{"compound", "put", "tiny/new.ole", "s", "big.bmp"}, "tiny/new.ole: s: no room"}});
    // The room ends anywhere: in a list, in the index, in the copy.
    const Bytes before = readFile("tiny/a.kal");
    Arguments twelve(12, "small.bmp");
    twelve.insert(twelve.begin(), {"store", "tiny/a.kal"});
    for (uint32_t taken = 0; taken < 120000; taken += slowBuild ? 16384 : 4096) {
        for (const Arguments& command : {twelve, {"pack", "tiny/a.kal"}}) {
            writeFile("tiny/filler", Bytes(taken));
            const Outcome outcome = kal(command);
            if (outcome.status != 0) {
                expectFailure(outcome, 1, "a.kal: ");
                ASSERT_TRUE(readFile("tiny/a.kal") == before) << "after " << taken << " bytes were taken";
            }
            ::unlink("tiny/filler");
            writeFile("tiny/a.kal", before);
        }
    }
    ASSERT_EQ(::mount("none", "tiny", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    runScript("kal extract tiny/a.kal 1 -o - | cmp - small.bmp");
    for (const Arguments& command : {Arguments{"store", "tiny/a.kal", "small.bmp"},
                                     {"remove", "tiny/a.kal", "1"},
                                     {"pack", "tiny/a.kal"},
                                     {"extract", "tiny/a.kal", "1", "-o", "tiny/out.bmp"}})
        expectFailure(kal(command), 1, "Read-only file system");
}

// A picture of a damaged archive comes back whole or not at all.
TEST_F(Trouble, OfWrongBytesIsFound) {
    std::vector<Bytes> pictures;
    for (const BmpKind& kind :
         {BmpKind{30, 20, 1}, {25, -20, 4, 40, 3, 5, true}, {80, 60, 8}, {40, 30, 24}}) {
        pictures.push_back(makeBmp(kind, static_cast<uint32_t>(pictures.size())));
        writeFile("p" + std::to_string(pictures.size()), pictures.back());
    }
    std::mt19937 random(1);
    for (const char* how : {"", "--plain", "--dib"}) {
        runScript(std::string("rm -f a.kal; mkdir -p out; kal store a.kal p1 p2 p3 p4 ") + how);
        const Bytes archive = readFile("a.kal");
        int lost = 0;
        constexpr int rounds = slowBuild ? 8 : 60;
        for (int round = 0; round < rounds; round++) {
            SCOPED_TRACE(::testing::Message() << how << ", round " << round);
            Bytes damaged = archive;
            const size_t first = round % 4 == 0 ? 0 : 32664; // the index, or what is behind its room
            const size_t room = round % 4 == 0 ? 54 : damaged.size() - first;
            for (int flips = 1 + round % 3; flips > 0; flips--)
                damaged[first + random() % room] ^= static_cast<uint8_t>(1 << random() % 8);
            if (round % 5 == 4)
                damaged.resize(random() % 2 == 0 ? random() % 200 : random() % archive.size());
            writeFile("a.kal", damaged);
            for (const Arguments& command : {Arguments{"list", "a.kal"},
                                             {"stat", "a.kal"},
                                             {"sheet", "a.kal", "-o", "-"},
                                             {"dump", "a.kal", "2"}})
                if (const Outcome outcome = kal(command); outcome.status != 0)
                    expectFailure(outcome, 1, "a.kal: ");
            const Outcome outcome = kal({"extract", "a.kal", "1", "2", "3", "4", "-o", "out"});
            int missing = 0;
            for (const std::string id : {"1", "2", "3", "4"})
                if (fileExists("out/" + id + ".bmp")) {
                    EXPECT_TRUE(readFile("out/" + id + ".bmp") == pictures[std::stoul(id) - 1]);
                    ::unlink(("out/" + id + ".bmp").c_str());
                } else {
                    missing++;
                }
            if (missing > 0)
                expectFailure(outcome, 1, "a.kal: ");
            else
                EXPECT_EQ(outcome.status, 0);
            lost += missing;
            EXPECT_TRUE(filesIn("out").empty());
        }
        EXPECT_GT(lost, rounds / 2) << "the damage hardly showed";
    }
}

} // namespace
