// The message log belongs to the process, so each case has one of its own.
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"

#include <kal/heap.h>
#include <kal/log.h>
#include <kal/path.h>

#include <csignal>
#include <cstring>
#include <filesystem>

namespace {

class MessageLog : public FolderTest {
protected:
    static std::string content(const char* file) {
        const Bytes bytes = readFile(file);
        return std::string(bytes.begin(), bytes.end());
    }
    static std::string logName() {
        char name[KAL_LOG_NAME_SIZE] = "";
        EXPECT_EQ(KalGetLogMessName(name), 0);
        return name;
    }
};

} // namespace

TEST_F(MessageLog, TheFirstMessageMakesAFileThatStays) {
    EXPECT_EQ(inChild([] {
                  EXPECT_EQ(KalLogMessage("A"), 0);
                  EXPECT_EQ(logName(), ".\\ZEP0.TMP");
                  EXPECT_EQ(KalLogMessage(""), 0);
                  EXPECT_EQ(KalLogMessage("B"), 0);
              }),
              0);
    EXPECT_EQ(content("ZEP0.TMP"), "A\r\rB\r") << "the open stream is written back at exit";
    EXPECT_EQ(inChild([] {
                  KalTempPath("");
                  EXPECT_EQ(logName(), "ZEP1.TMP");
                  EXPECT_EQ(content("ZEP1.TMP"), "") << "there from the moment it has a name";
                  KalTempPath(nullptr);
              }),
              0);
}

TEST_F(MessageLog, WithTheFlagEveryMessageIsInTheFileAtOnce) {
    EXPECT_EQ(inChild([] {
                  EXPECT_EQ(KalSetLogMessName("log"), 0);
                  EXPECT_EQ(KalSetLogFlag(1), 0);
                  EXPECT_EQ(KalSetLogFlag(2), 1);
                  std::string expected;
                  for (int i = 0; i < 20; i++) {
                      const std::string message(size_t(i) * 97, char('a' + i));
                      EXPECT_EQ(KalLogMessage(message.c_str()), 0);
                      expected += message + "\r";
                      ASSERT_EQ(content("log"), expected);
                  }
              }),
              0);
    const std::string before = content("log");
    const int status = inChild([] {
        KalSetLogMessName("log");
        KalSetLogFlag(1);
        KalLogMessage("last");
        raise(SIGKILL);
    });
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(content("log"), before + "last\r");
}

TEST_F(MessageLog, ANewNameWaitsUntilTheOpenFileIsClosed) {
    EXPECT_EQ(inChild([] {
                  KalSetLogMessName("one");
                  KalLogMessage("A");
                  KalSetLogMessName("two");
                  KalLogMessage("B");
                  KalSetLogFlag(1);
                  KalSetLogMessName("three");
                  KalLogMessage("C");
                  EXPECT_EQ(content("one"), "A\rB\rC\r");
                  KalLogMessage("D");
                  KalSetLogFlag(0);
                  KalLogMessage("E");
              }),
              0);
    EXPECT_EQ(content("three"), "D\rE\r");
    EXPECT_FALSE(fileExists("two"));
}

TEST_F(MessageLog, NamesHaveUpTo771Characters) {
    EXPECT_EQ(inChild([] {
                  std::string name;
                  while (name.size() < 766)
                      name += ".\\";
                  name += "log.t";
                  EXPECT_EQ(KalSetLogMessName((name + "x").c_str()), -100);
                  EXPECT_EQ(liveHeapBlocks(), 0u) << "refused before anything is allocated";
                  EXPECT_EQ(KalSetLogMessName(name.c_str()), 0);
                  EXPECT_EQ(logName(), name);
                  EXPECT_EQ(KalSetLogMessName((name + "x").c_str()), -100);
                  EXPECT_EQ(logName(), name);
                  EXPECT_EQ(KalLogMessage("deep"), 0);
              }),
              0);
    EXPECT_EQ(content("log.t"), "deep\r");
}

TEST_F(MessageLog, AFileThatCannotBeOpenedIsTriedAgain) {
    EXPECT_EQ(inChild([] {
                  KalSetLogMessName("later\\log");
                  EXPECT_EQ(KalLogMessage("lost"), -202);
                  EXPECT_EQ(KalLogMessage("lost"), -202);
                  std::filesystem::create_directory("later");
                  EXPECT_EQ(KalLogMessage("kept"), 0);
              }),
              0);
    EXPECT_EQ(content("later/log"), "kept\r");
}

TEST_F(MessageLog, WithoutMemoryNothingIsLeftBehind) {
    for (int n = 1; !fileExists("log"); n++) {
        ASSERT_EQ(inChild([n] {
                      failHeapAllocation(n);
                      char name[KAL_LOG_NAME_SIZE];
                      const int16_t status = KalGetLogMessName(name);
                      const bool met = heapFaultHappened();
                      failHeapAllocation(0);
                      EXPECT_TRUE(status == 0 || status == -100) << status;
                      EXPECT_EQ(filesIn(".").size(), status == 0 ? 1u : 0u);
                      std::filesystem::remove("ZEP0.TMP");
                      EXPECT_EQ(KalSetLogMessName("log"), 0);
                      EXPECT_EQ(met ? 0 : KalLogMessage("A"), 0);
                  }),
                  0)
            << n;
    }
}

namespace {

void logAtExit() {
    KalLogMessage("from an exit handler");
}

} // namespace

TEST_F(MessageLog, NothingIsLostAtExit) {
    std::string expected;
    for (int i = 0; i < 300; i++)
        expected += std::to_string(i) + "\r";
    EXPECT_EQ(inChild([] {
                  std::atexit(logAtExit); // runs after the log's own
                  KalSetLogMessName("log");
                  for (int i = 0; i < 300; i++)
                      KalLogMessage(std::to_string(i).c_str());
              }),
              0);
    EXPECT_EQ(content("log"), expected + "from an exit handler\r");
}

TEST_F(MessageLog, AForkLeavesTheParentsTailAlone) {
    EXPECT_EQ(inChild([] {
                  KalSetLogMessName("log");
                  KalLogMessage("A");
                  EXPECT_EQ(inChild([] {}), 0);
                  EXPECT_EQ(content("log"), "");
                  EXPECT_EQ(inChild([] {
                                KalSetLogMessName("other");
                                KalLogMessage("child");
                            }),
                            0);
                  KalLogMessage("B");
              }),
              0);
    EXPECT_EQ(content("log"), "A\rB\r");
    EXPECT_EQ(content("other"), "child\r");
}

TEST_F(MessageLog, WhatWaitsOnAFullDiskIsWrittenWhenThereIsRoom) {
    for (const uint16_t flag : std::initializer_list<uint16_t>{0, 1}) {
        std::string all;
        EXPECT_EQ(inChild([flag] {
                      KalSetLogMessName("log");
                      KalSetLogFlag(flag);
                      FileSizeLimit limit(1000);
                      for (int i = 0; i < 40; i++)
                          EXPECT_EQ(KalLogMessage(std::string(30, char('A' + i)).c_str()), 0);
                      limit.lift();
                      EXPECT_EQ(KalLogMessage("room again"), 0);
                  }),
                  0);
        for (int i = 0; i < 40; i++)
            all += std::string(30, char('A' + i)) + "\r";
        const std::string got = content("log");
        EXPECT_GE(got.size(), 1000u);
        EXPECT_EQ(got.substr(0, 1000), all.substr(0, 1000));
        EXPECT_EQ(got.substr(got.size() - 11), "room again\r");
        EXPECT_EQ(got.find('\0'), std::string::npos);
        std::filesystem::remove("log");
    }
}
