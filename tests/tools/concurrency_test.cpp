// Several kal at once, and kal stopped in its work.
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <csignal>
#include <set>
#include <unistd.h>

namespace {

class Concurrency : public FolderTest {};

TEST_F(Concurrency, StoresIntoOneNewArchiveLoseNothing) {
    std::vector<RunningTool> running;
    for (uint32_t i = 0; i < 8; i++) {
        const std::string name = std::to_string(i);
        writeFile(name, makeBmp({100 + i, 50, 8}, i));
        running.emplace_back(Arguments{"store", "a.kal", name});
    }
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
        for (useconds_t delay = 0; delay < 160000; delay += 20000) {
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

TEST_F(Concurrency, AnInterruptedExtractLeavesNoFile) {
    writeFile("p.bmp", makeBmp({3000, 2000, 24}));
    kalSucceeds({"store", "--plain", "a.kal", "p.bmp"});
    for (useconds_t delay = 2000; delay < 40000; delay += 4000) {
        RunningTool extract({"extract", "a.kal", "1", "-o", "out.bmp"});
        ::usleep(delay);
        extract.kill(SIGTERM);
        if (extract.wait().status == 0)
            ::unlink("out.bmp");
        EXPECT_EQ(filesIn(".").size(), 2u);
    }
}

} // namespace
