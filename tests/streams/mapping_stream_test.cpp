// What lies in a mapping, and who holds its name: within and between processes.
#include "platform/file_mapping.h"
#include "tests/streams/streams.h"
#include "tests/support/storage.h"

#include <csignal>
#include <sys/wait.h>

namespace {

constexpr uint16_t kRead = KAL_MODE_FILEMAP;
constexpr uint16_t kRewrite = kRead | KAL_MODE_WRITE;
constexpr uint16_t kCreate = kRewrite | KAL_MODE_CREATE;

class Mapping : public ::testing::Test {
protected:
    // One that no other run of the tests uses.
    const std::string name_ = std::string("kal test\\") +
                              ::testing::UnitTest::GetInstance()->current_test_info()->name() + ' ' +
                              std::to_string(getpid()) + " m";

    SFILE* open(uint16_t mode, int32_t size = 0, int status = KAL_OK) const {
        return openStream(name_.c_str(), mode, status, nullptr, size);
    }
    void write(const std::string& text, int32_t size = 0) const {
        SFILE* s = open(kCreate, size);
        EXPECT_EQ(s->write(s, text.data(), uint32_t(text.size())), int32_t(text.size()));
        EXPECT_EQ(s->close(s), KAL_OK);
    }
    std::string read() const {
        SFILE* s = open(kRead);
        std::string text(100, 0);
        text.resize(size_t(s->read(s, text.data(), 100)));
        EXPECT_EQ(s->close(s), KAL_OK);
        return text;
    }
    bool isLeft() const { // in shared memory
        const auto files = filesIn("/dev/shm");
        return std::any_of(files.begin(), files.end(),
                           [&](const auto& file) { return file.find(name_.substr(9)) != std::string::npos; });
    }
    const HeapBalance balance_;
};

TEST_F(Mapping, TheStoredLengthIsTrustedAsFarAsTheMappingReaches) {
    SFILE* writer = open(kCreate, 1000);
    EXPECT_TRUE(sizeof(void*) == 4 || writer->bufStart == 0) << "positions count from the view";
    EXPECT_EQ(read(), "") << "nothing is published before the writer closes";
    EXPECT_EQ(writer->close(writer), KAL_OK);
    write("hello", 40'000'000); // anew, in the room that it has
    const HANDLE handle = OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, 0, name_.c_str());
    auto* view = static_cast<uint8_t*>(MapViewOfFile(handle, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
    EXPECT_EQ(Bytes(view, view + 16), hexExample("docs/formats/mapping.md"));
    const std::pair<uint32_t, int32_t> lengths[] = {{0, 0},      {4, 0},      {5, 1},
                                                    {1000, 996}, {1001, 996}, {~0u, 996}};
    for (const auto& [length, usable] : lengths)
        for (const uint16_t mode : {kRead, kRewrite}) {
            std::memcpy(view, &length, sizeof length);
            SFILE* s = open(mode);
            for (const int32_t offset : {INT32_MIN, -1, INT32_MAX})
                for (const uint32_t origin : {KAL_SEEK_START, KAL_SEEK_CURRENT})
                    EXPECT_EQ(s->seek(s, offset, origin), KAL_ERR_SEEK);
            Bytes bytes(5000);
            EXPECT_EQ((mode == kRead ? s->read(s, &bytes[0], 5000) : s->write(s, &bytes[0], 5000)), usable)
                << length;
            EXPECT_EQ(s->close(s), KAL_OK);
            EXPECT_TRUE(mode == kRead || word({view, view + 4}, 0) == uint32_t(usable) + 4);
        }
    UnmapViewOfFile(view);
    CloseHandle(handle);
}

TEST_F(Mapping, WhatCannotBeHadIsRefused) {
    for (const std::string& name : {std::string(), std::string(300, 'n')})
        openStream(name.c_str(), kCreate, KAL_ERR_SERVICE);
    for (const int32_t size : {1, 3})
        open(kCreate, size, KAL_ERR_SERVICE);
    {
        const HostCallGuard guard;
        hostCalls.fallocate = [](int, int, off_t, off_t) { return -1; }; // no memory to set aside
        open(kCreate, 0, KAL_ERR_SERVICE);
    }
    for (const uint16_t mode : {kRead, kRewrite})
        open(mode, 0, KAL_ERR_SERVICE); // nothing is left of it
    // One too short for the length word, made by somebody else.
    const HANDLE handle =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 3, name_.c_str());
    for (const uint16_t mode : {kRead, kRewrite, kCreate})
        open(mode, 0, KAL_ERR_SERVICE);
    EXPECT_EQ(CloseHandle(handle), 1);
    EXPECT_FALSE(isLeft());
    SFILE* s = open(kCreate);
    EXPECT_EQ(s->seek(s, 2'999'995, KAL_SEEK_START), KAL_OK);
    EXPECT_EQ(s->write(s, "12", 2), 1) << "3,000,000 bytes where no size is given";
    EXPECT_EQ(s->close(s), KAL_OK);
}

// A process that does one thing, and then waits until it is told to end.
pid_t startOther(const std::function<void()>& work) {
    std::fflush(nullptr); // else it would print it again
    const pid_t process = fork();
    if (process == 0) {
        work();
        raise(SIGSTOP);
        std::exit(0); // as main does
    }
    waitpid(process, nullptr, WUNTRACED);
    return process;
}

void endOther(pid_t process, bool killed) {
    int status = 0;
    kill(process, killed ? SIGKILL : SIGCONT);
    waitpid(process, &status, 0);
    EXPECT_EQ(WIFSIGNALED(status), killed);
}

TEST_F(Mapping, ANameLivesWhileSomeProcessHoldsIt) {
    for (const bool killed : {true, false}) { // the last to hold the name must not be killed
        SCOPED_TRACE(killed ? "killed" : "ended");
        const pid_t maker = startOther([&] { write("made there", 1000); });
        SFILE* held = open(kRead);
        endOther(maker, killed);
        EXPECT_EQ(read(), "made there") << "held here";
        held->close(held);
        EXPECT_FALSE(isLeft()) << "the last holder takes it away";
        open(kRead, 0, KAL_ERR_SERVICE);

        const pid_t alone = startOther([&] { write("old bytes that a new mapping must not have", 1000); });
        endOther(alone, killed);
        EXPECT_EQ(isLeft(), killed);
        open(kRewrite, 0, KAL_ERR_SERVICE); // nobody holds it
        const pid_t another = startOther([&] {
            SFILE* s = open(kCreate, 100);
            s->seek(s, 40, KAL_SEEK_START);
            s->close(s);
        });
        EXPECT_EQ(read(), std::string(40, 0));
        endOther(another, killed);
    }
    write("parent's");
    const pid_t child = startOther([&] { EXPECT_EQ(read(), "parent's"); });
    endOther(child, false);
    EXPECT_EQ(read(), "parent's") << "a forked child takes nothing away";
}

TEST_F(Mapping, ManyWhoCreateOneNameAtOnceAllWork) {
    for (int round = 0; round < 30; round++) {
        for (int i = 0; i < 4; i++)
            if (fork() == 0) {
                write("text", 5000), read();
                std::_Exit(HasFailure() ? 1 : 0); // like a process that was killed: nothing is cleaned up
            }
        for (int i = 0, status = 0; i < 4; i++) {
            wait(&status);
            ASSERT_EQ(status, 0) << round;
        }
    }
    open(kRead, 0, KAL_ERR_SERVICE);
    EXPECT_FALSE(isLeft());
}

} // namespace
