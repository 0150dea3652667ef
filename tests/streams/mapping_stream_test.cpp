// Streams in named mappings, within and between processes.
#include "platform/file_mapping.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/mapping.h>

#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint16_t kMap = KAL_MODE_FILEMAP;
constexpr uint16_t kCreate = kMap | KAL_MODE_CREATE;

// Names that no other run of the tests uses.
class Mapping : public ::testing::Test {
protected:
    std::string name(const std::string& plain = "m") const {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        return std::string("kal test\\") + test->name() + " " + std::to_string(getpid()) + " " + plain;
    }
};

SFILE* openMap(const std::string& name, uint16_t mode, int32_t size = 0) {
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, name.c_str(), mode, size), 0) << name;
    return stream;
}

int16_t tryMap(const std::string& name, uint16_t mode, int32_t size = 0) {
    SFILE* stream = nullptr;
    const int16_t status = KalOpenFile(&stream, name.c_str(), mode, size);
    if (status == 0)
        stream->close(stream);
    else {
        EXPECT_EQ(stream, nullptr);
    }
    return status;
}

std::string readMap(const std::string& name) {
    SFILE* stream = openMap(name, kMap);
    std::string text(100, 0);
    const int32_t got = stream->read(stream, text.data(), 100);
    EXPECT_EQ(val(stream->status), got < 100 ? KAL_ERR_SHORT_READ : 0);
    EXPECT_EQ(stream->close(stream), 0);
    return text.substr(0, static_cast<size_t>(got));
}

// The mapping itself, for those who write where they should not.
class View {
public:
    explicit View(const std::string& name)
        : handle_(OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, 0, name.c_str())),
          bytes_(static_cast<uint8_t*>(MapViewOfFile(handle_, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0))) {}
    ~View() {
        UnmapViewOfFile(bytes_);
        CloseHandle(handle_);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    uint8_t* bytes() const { return bytes_; }
    uint32_t used() const {
        uint32_t word;
        std::memcpy(&word, bytes_, sizeof word);
        return word;
    }
    void setUsed(uint32_t word) { std::memcpy(bytes_, &word, sizeof word); }

private:
    HANDLE handle_;
    uint8_t* bytes_;
};

TEST_F(Mapping, OneWritesOthersRead) {
    HeapBalance balance;
    EXPECT_EQ(tryMap(name(), kMap), KAL_ERR_SERVICE);
    EXPECT_EQ(tryMap(name(), kMap | KAL_MODE_WRITE), KAL_ERR_SERVICE);
    SFILE* writer = openMap(name(), kCreate | KAL_MODE_WRITE);
    EXPECT_EQ(readMap(name()), "") << "nothing is published before the writer closes";
    EXPECT_EQ(writer->write(writer, "0123456789", 10), 10);
    char byte;
    EXPECT_EQ(writer->read(writer, &byte, 1), 0);
    EXPECT_EQ(val(writer->status), KAL_ERR_READ);
    EXPECT_EQ(writer->getChar(writer), 0);
    EXPECT_EQ(KalSetBuf(writer, 512), 0);
    EXPECT_EQ(val(writer->bufSize), 0u);
    EXPECT_EQ(writer->close(writer), 0);
    EXPECT_EQ(View(name()).used(), 14u);
    EXPECT_EQ(readMap(name()), "0123456789");

    SFILE* reader = openMap(name(), kMap);
    EXPECT_EQ(reader->write(reader, "x", 1), 0);
    EXPECT_EQ(val(reader->status), KAL_ERR_WRITE);
    EXPECT_EQ(reader->putChar(reader, 'x'), 0);
    EXPECT_EQ(reader->seek(reader, 7, KAL_SEEK_START), 0);
    EXPECT_EQ(reader->getChar(reader), '7');
    EXPECT_EQ(val(reader->status), 0);
    EXPECT_EQ(reader->seek(reader, 10, KAL_SEEK_START), KAL_ERR_SEEK) << "the mapping's own end";
    // Straight from the record.
    std::string rest;
    for (; reader->pos < reader->bufEnd; reader->pos++)
        rest += static_cast<char>(*reader->bufPtr++);
    EXPECT_EQ(rest, "89");
    EXPECT_EQ(reader->getChar(reader), 0);
    EXPECT_EQ(val(reader->status), KAL_ERR_SHORT_READ);
    EXPECT_EQ(reader->close(reader), 0);

    // A second writer starts empty and has the room of what was stored.
    SFILE* second = openMap(name(), kMap | KAL_MODE_UPDATE);
    EXPECT_EQ(second->getChar(second), 0);
    EXPECT_EQ(second->write(second, "ABCDEFGHIJKL", 12), 10);
    EXPECT_EQ(val(second->status), KAL_ERR_DISK_FULL);
    EXPECT_EQ(second->putChar(second, 'x'), KAL_ERR_DISK_FULL);
    EXPECT_EQ(second->seek(second, 0, KAL_SEEK_START), 0);
    EXPECT_EQ(second->getChar(second), 'A');
    EXPECT_EQ(second->close(second), 0);
    EXPECT_EQ(readMap(name()), "ABCDEFGHIJ");
    // Created again it is written anew, in the room that it has.
    SFILE* again = openMap(name(), kCreate | KAL_MODE_WRITE, 40000000);
    EXPECT_EQ(again->seek(again, 2999995, KAL_SEEK_START), 0);
    EXPECT_EQ(again->write(again, "12", 2), 1);
    EXPECT_EQ(again->close(again), 0);
    EXPECT_EQ(View(name()).used(), 3000000u);
}

TEST_F(Mapping, TheDocumentedExampleIsWhatLiesInAMapping) {
    SFILE* writer = openMap(name(), kCreate | KAL_MODE_WRITE, 16);
    writer->write(writer, "hello", 5);
    writer->close(writer);
    const View view(name());
    EXPECT_EQ(Bytes(view.bytes(), view.bytes() + 16), hexExample("docs/formats/mapping.md"));
}

TEST_F(Mapping, AScribbledLengthStaysWithinTheMapping) {
    HeapBalance balance;
    SFILE* writer = openMap(name(), kCreate | KAL_MODE_WRITE, 1000);
    writer->write(writer, "data", 4);
    writer->close(writer);
    View view(name());
    const struct {
        uint32_t word;
        int32_t readable, writable;
    } cases[] = {{0, 0, 0},
                 {3, 0, 0},
                 {4, 0, 0},
                 {5, 1, 1},
                 {1000, 996, 996},
                 {1001, 996, 996},
                 {0x80000000, 996, 996},
                 {0xFFFFFFFF, 996, 996}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.word);
        Bytes bytes(5000);
        view.setUsed(one.word);
        SFILE* s = openMap(name(), kMap);
        EXPECT_EQ(s->read(s, bytes.data(), 5000), one.readable);
        for (const int32_t offset : {INT32_MIN, -1, 0, 1, 2000, INT32_MAX})
            for (const uint32_t origin : {0u, 1u, 2u, 7u})
                s->seek(s, offset, origin);
        s->read(s, bytes.data(), 0xFFFFFFFF - val(s->pos) > 5000 ? 5000 : 1);
        s->close(s);
        s = openMap(name(), kMap | KAL_MODE_WRITE);
        EXPECT_EQ(s->write(s, bytes.data(), 5000), one.writable);
        s->close(s);
    }
}

TEST_F(Mapping, WhatCannotBeHadIsRefused) {
    HeapBalance balance;
    for (const int32_t size : {1, 2, 3})
        EXPECT_EQ(tryMap(name(), kCreate | KAL_MODE_WRITE, size), KAL_ERR_SERVICE);
    EXPECT_EQ(tryMap("", kCreate | KAL_MODE_WRITE), KAL_ERR_SERVICE);
    EXPECT_EQ(tryMap(std::string(300, 'n'), kCreate | KAL_MODE_WRITE), KAL_ERR_SERVICE);
    EXPECT_EQ(tryMap(name(), kMap), KAL_ERR_SERVICE) << "nothing is left of it";
    // A mapping too short for the length word, made by somebody else.
    const HANDLE handle =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 3, name().c_str());
    EXPECT_EQ(tryMap(name(), kMap), KAL_ERR_SERVICE);
    EXPECT_EQ(tryMap(name(), kMap | KAL_MODE_WRITE), KAL_ERR_SERVICE);
    EXPECT_EQ(tryMap(name(), kCreate | KAL_MODE_WRITE), KAL_ERR_SERVICE);
    EXPECT_EQ(CloseHandle(handle), 1);
    EXPECT_EQ(CloseHandle(handle), 0);
    const int met = withEachAllocationFailing(
        [&](int n) { tryMap(name(std::to_string(n)), kCreate | KAL_MODE_UPDATE, 100); });
    EXPECT_EQ(met, 4);
    HostCallGuard guard;
    hostCalls.fallocate = [](int, int, off_t, off_t) { return -1; }; // no memory to set aside
    EXPECT_EQ(tryMap(name("full"), kCreate | KAL_MODE_WRITE), KAL_ERR_SERVICE);
    EXPECT_EQ(tryMap(name("full"), kMap), KAL_ERR_SERVICE);
}

// --- Between processes ---------------------------------------------------------------------------------

// A process that does one thing, says so and waits to be told to end.
class Other {
public:
    template <class Work>
    explicit Other(Work work) {
        EXPECT_EQ(pipe(toIt_) | pipe(fromIt_), 0);
        process_ = fork();
        if (process_ != 0) {
            char said;
            close(fromIt_[1]);
            EXPECT_EQ(read(fromIt_[0], &said, 1), 1);
            return;
        }
        work();
        char told = 'd';
        if (write(fromIt_[1], &told, 1) != 1 || read(toIt_[0], &told, 1) != 1)
            _exit(1);
        if (told == 'x')
            std::exit(0); // as main does
        raise(SIGKILL);
    }
    void end(bool killed) {
        EXPECT_EQ(write(toIt_[1], killed ? "k" : "x", 1), 1);
        int status;
        waitpid(process_, &status, 0);
        EXPECT_EQ(WIFSIGNALED(status), killed);
        for (const int fd : {toIt_[0], toIt_[1], fromIt_[0]})
            close(fd);
    }

private:
    pid_t process_;
    int toIt_[2], fromIt_[2];
};

void writeMap(const std::string& name, const std::string& text) {
    SFILE* s = openMap(name, kCreate | KAL_MODE_WRITE, 1000);
    s->write(s, text.data(), static_cast<uint32_t>(text.size()));
    s->close(s);
}

// Whether shared memory still has a mapping of the running test.
bool leftInSharedMemory() {
    const std::string part = ::testing::UnitTest::GetInstance()->current_test_info()->name() +
                             std::string(" ") + std::to_string(getpid()) + " ";
    for (const std::string& file : filesIn("/dev/shm"))
        if (file.find(part) != std::string::npos)
            return true;
    return false;
}

TEST_F(Mapping, ANameLivesWhileSomeProcessHoldsIt) {
    const std::string mine = name();
    for (const bool killed : {true, false}) { // the last to hold the name must not be killed
        SCOPED_TRACE(killed ? "killed" : "ended");
        Other maker([&] { writeMap(mine, "made there"); });
        EXPECT_EQ(readMap(mine), "made there");
        SFILE* held = openMap(mine, kMap);
        maker.end(killed);
        EXPECT_EQ(readMap(mine), "made there") << "held here";
        held->close(held);
        EXPECT_FALSE(leftInSharedMemory()) << "the last holder takes it away";
        EXPECT_EQ(tryMap(mine, kMap), KAL_ERR_SERVICE);

        Other alone([&] { writeMap(mine, "old bytes that a new mapping must not have"); });
        alone.end(killed);
        EXPECT_EQ(leftInSharedMemory(), killed);
        if (killed) {
            EXPECT_EQ(tryMap(mine, kMap | KAL_MODE_WRITE), KAL_ERR_SERVICE) << "nobody holds it";
        }
        // Anew: all 0.
        Other another([&] {
            SFILE* s = openMap(mine, kCreate | KAL_MODE_UPDATE, 100);
            s->seek(s, 40, KAL_SEEK_START);
            s->seek(s, 0, KAL_SEEK_START);
            int32_t sum = 0;
            while (s->status == 0)
                sum += s->getChar(s);
            s->putChar(s, sum == 0 ? 'z' : 'd');
            s->close(s);
        });
        EXPECT_EQ(readMap(mine).substr(40), "z");
        another.end(killed);
    }
}

TEST_F(Mapping, AForkedChildTakesNothingAway) {
    const std::string mine = name();
    writeMap(mine, "parent's");
    Other child([&] { EXPECT_EQ(readMap(mine), "parent's"); });
    child.end(false);
    EXPECT_EQ(readMap(mine), "parent's");
    EXPECT_TRUE(leftInSharedMemory());
}

TEST_F(Mapping, ManyWhoCreateOneNameAtOnceAllWork) {
    const std::string mine = name();
    for (int round = 0; round < 30; round++) {
        pid_t children[4];
        for (pid_t& child : children) {
            child = fork();
            if (child != 0)
                continue;
            SFILE* s = nullptr;
            bool good = KalOpenFile(&s, mine.c_str(), kCreate | KAL_MODE_WRITE, 5000) == 0 &&
                        s->write(s, "text", 4) == 4;
            if (good)
                s->close(s);
            // This process holds the name now, so a reader finds it.
            good = good && KalOpenFile(&s, mine.c_str(), kMap, 0) == 0;
            std::_Exit(good ? 0 : 1); // like a process that was killed: nothing is cleaned up
        }
        for (const pid_t child : children) {
            int status;
            waitpid(child, &status, 0);
            ASSERT_EQ(status, 0) << round;
        }
    }
    EXPECT_EQ(tryMap(mine, kMap), KAL_ERR_SERVICE);
    EXPECT_FALSE(leftInSharedMemory());
}

} // namespace
