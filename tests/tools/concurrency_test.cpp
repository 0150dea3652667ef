// Several kal at once, and kal stopped in its work.
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <algorithm>
#include <csignal>
#include <set>
#include <unistd.h>

namespace {

class Concurrency : public FolderTest {};

TEST_F(Concurrency, StoresIntoOneNewArchiveLoseNothing) {
    // Large enough that most find no archive yet, and go on at the same time.
    for (uint32_t i = 0; i < 8; i++)
        writeFile(std::to_string(i), makeBmp({1000 + i, 500, 8}, i));
    std::vector<RunningTool> running;
    for (uint32_t i = 0; i < 8; i++)
        running.emplace_back(Arguments{"store", "a.kal", std::to_string(i)});
    std::set<unsigned> ids;
    for (uint32_t i = 0; i < 8; i++) {
        const Outcome outcome = running[i].wait();
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const auto id = static_cast<unsigned>(std::stoul(outcome.out));
        EXPECT_TRUE(ids.insert(id).second);
        EXPECT_TRUE(extracted("a.kal", id) == readFile(std::to_string(i)));
    }
    EXPECT_EQ(filesIn(".").size(), 9u);
}

TEST_F(Concurrency, AStoreThatIsStoppedLeavesTheArchiveItFound) {
    writeFile("old.bmp", makeBmp({300, 200, 8}));
    writeFile("new.bmp", makeBmp({1500, 1000, 24}, 2));
    kalSucceeds({"store", "a.kal", "old.bmp"});
    for (const int signal : {SIGTERM, SIGINT, SIGKILL})
        for (useconds_t delay = 0; delay < 160000; delay += slowBuild ? 80000 : 20000) {
            const Bytes before = readFile("a.kal");
            const size_t pictures = listed("a.kal").size();
            RunningTool store({"store", "a.kal", "new.bmp"});
            ::usleep(delay);
            store.kill(signal);
            const Outcome outcome = store.wait();
            if (outcome.status == 0) {
                EXPECT_EQ(listed("a.kal").size(), pictures + 1);
                writeFile("a.kal", before);
                continue;
            }
            EXPECT_EQ(outcome.status, -signal) << outcome.err;
            EXPECT_EQ(listed("a.kal").size(), pictures);
            EXPECT_TRUE(extracted("a.kal", 1) == readFile("old.bmp"));
            if (signal != SIGKILL) {
                EXPECT_TRUE(readFile("a.kal") == before);
            }
        }
    // A killed store leaves bytes of no picture; they do no harm.
    kalSucceeds({"store", "a.kal", "old.bmp"});
    EXPECT_TRUE(extracted("a.kal", 2) == readFile("old.bmp"));
}

TEST_F(Concurrency, FirstPutsIntoOneNewCompoundFileLoseNothing) {
    writeFile("bytes", randomBytes(3000000, 1));
    std::vector<RunningTool> running;
    for (int i = 0; i < 6; i++)
        running.emplace_back(Arguments{"compound", "put", "new.ole", "s" + std::to_string(i), "bytes"});
    for (RunningTool& put : running) {
        const Outcome outcome = put.wait();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
    }
    const std::string list = kalSucceeds({"compound", "list", "new.ole"});
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 1 + 6) << list;
    EXPECT_EQ(filesIn(".").size(), 2u);
}

TEST_F(Concurrency, ACommandThatIsStoppedLeavesNoFile) {
    writeFile("p.bmp", makeBmp({3000, 2000, 24}));
    kalSucceeds({"store", "--plain", "a.kal", "p.bmp"});
    for (const Arguments& arguments : {Arguments{"store", "new", "p.bmp"},
                                       {"extract", "a.kal", "1", "-o", "new"},
                                       {"compound", "put", "new", "s", "p.bmp"}})
        for (useconds_t delay = 2000; delay < 32000; delay += 3000) {
            RunningTool command(arguments);
            ::usleep(delay);
            command.kill(delay % 2000 == 0 ? SIGTERM : SIGKILL);
            if (command.wait().status == 0)
                ::unlink("new");
            EXPECT_EQ(filesIn(".").size(), 2u) << arguments[0] << " killed after " << delay;
        }
}

} // namespace
