// The message log belongs to the process, so each case has one of its own.
#include "tests/support/faults.h"
#include "tests/support/processes.h"
#include "tests/support/room.h"

#include <csignal>

namespace {

using Steps = std::vector<std::string>;

std::string content(const std::string& file) {
    const Bytes bytes = readFile(file);
    return std::string(bytes.begin(), bytes.end());
}

// "=name" names the log, "+" and "-" set the flag, "FILE?TEXT" asks what a file holds, all else is a message.
void log(const Steps& steps) {
    for (const std::string& step : steps) {
        const size_t question = step.find('?');
        if (question != std::string::npos)
            EXPECT_EQ(content(step.substr(0, question)), step.substr(question + 1));
        else if (step == "+" || step == "-")
            EXPECT_EQ(KalSetLogFlag(step == "+"), 0);
        else
            EXPECT_EQ(step[0] == '=' ? KalSetLogMessName(&step[1]) : KalLogMessage(step.c_str()), KAL_OK);
    }
}

using MessageLog = FolderTest;

} // namespace

TEST_F(MessageLog, MessagesReachTheFileTheyWereMeantFor) {
    const std::string many(600, 'x');
    const struct {
        Steps steps;
        const char* file;
        std::string text;
        bool killed = false;
    } cases[] = {{{"A", " ", "B"}, "ZEP0.TMP", "A\r \rB\r"}, // written back at exit
                 {{"=log", "+", "A", "log?A\r", "B", "log?A\rB\r"}, "log", "A\rB\r", true}, // at once
                 {{"=a", "A", "=two", "B", "+", "=c", "C", "a?A\rB\rC\r", "D", "-", "E"}, "c", "D\rE\r"},
                 {{"=long", many, "y"}, "long", many + "\ry\r"}};
    for (const auto& row : cases) {
        const int status = inChild([&row] {
            log(row.steps);
            EXPECT_EQ(KalSetLogFlag(2), 1);
            if (row.killed && !HasFailure())
                raise(SIGKILL);
        });
        EXPECT_TRUE(row.killed ? WIFSIGNALED(status) : status == 0) << row.file;
        EXPECT_EQ(content(row.file), row.text);
    }
    EXPECT_FALSE(fileExists("two"));
}

TEST_F(MessageLog, NamesHaveUpTo771CharactersAndOpenLater) {
    EXPECT_EQ(inChild([] {
                  std::string name;
                  while (name.size() < 760)
                      name += ".\\";
                  name += "later\\log.t";
                  for (const uint64_t blocks : {0u, 1u}) {
                      EXPECT_EQ(KalSetLogMessName((name + "x").c_str()), KAL_ERR_MEMORY);
                      EXPECT_EQ(liveHeapBlocks(), blocks) << "refused before anything is allocated";
                      EXPECT_EQ(KalSetLogMessName(name.c_str()), KAL_OK);
                  }
                  Room told(KAL_LOG_NAME_SIZE);
                  EXPECT_EQ(KalGetLogMessName(told.data()), KAL_OK);
                  EXPECT_EQ(told.text(), name);
                  for (int i = 0; i < 2; i++)
                      EXPECT_EQ(KalLogMessage("lost"), KAL_ERR_OPEN - ENOENT);
                  fs::create_directory("later");
                  log({"kept"});
              }),
              0);
    EXPECT_EQ(content("later/log.t"), "kept\r");
}

TEST_F(MessageLog, AFileIsThereOnceItIsNamedAndWithoutMemoryNothing) {
    for (int n = 1; filesIn(".").empty(); n++)
        ASSERT_EQ(inChild([n] {
                      failHeapAllocation(n);
                      const bool named = KalGenLogMessName() == KAL_OK;
                      failHeapAllocation(0);
                      EXPECT_EQ(liveHeapBlocks(), named ? 1u : 0u);
                      EXPECT_EQ(filesIn(".").size(), named ? 1u : 0u);
                  }),
                  0)
            << n;
}

TEST_F(MessageLog, ExitLosesNothingAndAForkLeavesTheParentsTailAlone) {
    std::string expected;
    for (int i = 0; i < 300; i++)
        expected += std::to_string(i) + "\r";
    EXPECT_EQ(
        inChild([] {
            std::atexit([] { log({"from an exit handler"}); }); // runs after the log's own
            log({"=log", "0"});
            EXPECT_EQ(inChild([] { log({"=other", "child", "+"}); }) | inChild([] { log({"=other"}); }), 0);
            EXPECT_EQ(content("log"), "") << "not written by the child";
            for (int i = 1; i < 300; i++)
                log({std::to_string(i)});
        }),
        0);
    EXPECT_EQ(content("log"), expected + "from an exit handler\r");
    EXPECT_EQ(content("other"), "child\rfrom an exit handler\rfrom an exit handler\r");
}

TEST_F(MessageLog, WhatWaitsOnAFullDiskIsWrittenWhenThereIsRoom) {
    for (const char* flag : {"-", "+"}) {
        std::string all, last = "room again\r";
        for (int i = 0; i < 40; i++)
            all += std::string(30, char('A' + i)) + "\r";
        EXPECT_EQ(inChild([&] {
                      log({"=log", flag});
                      FileSizeLimit limit(1000);
                      for (size_t i = 0; i < 40; i++)
                          log({all.substr(31 * i, 30)});
                      limit.lift();
                      log({"room again"});
                  }),
                  0);
        const std::string got = content("log");
        ASSERT_GT(got.size(), 1000 + last.size()) << "more than fitted";
        EXPECT_EQ(got, all.substr(0, got.size() - last.size()) + last)
            << "what waited follows what was written";
        fs::remove("log");
    }
}
