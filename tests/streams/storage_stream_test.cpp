// Compound-file streams as callers of the stream record see them.
#include "tests/support/faults.h"
#include "tests/support/storage.h"

#include <kal/path.h>
#include <kal/storage.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace {

class StorageStream : public FolderTest {};

constexpr uint16_t kCreateUpdate = KAL_MODE_CREATE | KAL_MODE_UPDATE;

int16_t tryOpen(const char* file, const char* name, uint16_t mode) {
    SFILE* stream = nullptr;
    const int16_t status = KalOpenFileAsIStream(&stream, file, name, mode);
    EXPECT_EQ(status == 0, stream != nullptr);
    if (stream != nullptr) {
        EXPECT_EQ(stream->close(stream), 0);
    }
    return status;
}

SFILE* open(const char* file, const char* name, uint16_t mode) {
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFileAsIStream(&stream, file, name, mode), 0) << file << " " << name;
    return stream;
}

void write(const char* file, const char* name, uint16_t mode, const Bytes& bytes) {
    SFILE* s = open(file, name, mode);
    EXPECT_EQ(s->write(s, bytes.data(), static_cast<uint32_t>(bytes.size())),
              static_cast<int32_t>(bytes.size()));
    EXPECT_EQ(s->close(s), 0);
}

Bytes contents(const char* file, const char* name) {
    Bytes bytes(200000);
    SFILE* s = open(file, name, 0);
    const int32_t got = s->read(s, bytes.data(), 200000);
    EXPECT_EQ(val(s->status), got > 0 ? KAL_ERR_SHORT_READ : KAL_ERR_END);
    EXPECT_EQ(s->getChar(s), KAL_ERR_END);
    EXPECT_EQ(s->close(s), 0);
    bytes.resize(static_cast<size_t>(got));
    return bytes;
}

TEST_F(StorageStream, AccessIsKept) {
    HeapBalance balance;
    const Bytes bytes = randomBytes(100, 1);
    write("f.ole", "s", KAL_MODE_CREATE | KAL_MODE_WRITE, bytes);
    EXPECT_EQ(contents("f.ole", "s"), bytes);
    EXPECT_EQ(contents("f.ole", "S"), bytes) << "names are compared by their capitals";

    SFILE* s = open("f.ole", "s", 0);
    EXPECT_EQ(std::string(s->name), "f.ole");
    EXPECT_EQ(val(s->bufEnd), KAL_NO_POSITION);
    EXPECT_EQ(val(s->bufSize), 0u);
    EXPECT_EQ(s->write(s, "x", 1), 0);
    EXPECT_EQ(val(s->status), KAL_ERR_WRITE);
    EXPECT_EQ(s->putChar(s, 'x'), 0);
    EXPECT_EQ(s->getChar(s), bytes[0]);
    EXPECT_EQ(val(s->status), 0);
    EXPECT_EQ(s->seek(s, -101, KAL_SEEK_END), KAL_ERR_SEEK);
    s->close(s);
    s = open("f.ole", "s", KAL_MODE_WRITE);
    char byte;
    EXPECT_EQ(s->read(s, &byte, 1), 0);
    EXPECT_EQ(val(s->status), KAL_ERR_READ);
    EXPECT_EQ(s->getChar(s), 0);
    for (const char c : {'a', 'b', 'c'})
        EXPECT_EQ(s->putChar(s, c), 0);
    s->close(s);
    Bytes changed = bytes;
    std::copy_n("abc", 3, changed.begin());
    EXPECT_EQ(contents("f.ole", "s"), changed);
}

TEST_F(StorageStream, WhatIsMissingOrInUseGivesOneStatus) {
    HeapBalance balance;
    EXPECT_EQ(tryOpen("none.ole", "s", 0), KAL_ERR_STORAGE);
    EXPECT_EQ(tryOpen("none.ole", "s", KAL_MODE_UPDATE), KAL_ERR_STORAGE);
    EXPECT_EQ(tryOpen("no/folder.ole", "s", kCreateUpdate), KAL_ERR_STORAGE);
    EXPECT_FALSE(fileExists("none.ole"));
    write("f.ole", "s", kCreateUpdate, bytesOf("text"));
    EXPECT_EQ(tryOpen("f.ole", "t", KAL_MODE_UPDATE), KAL_ERR_STORAGE);
    EXPECT_EQ(tryOpen("f.ole", "t", KAL_MODE_APPEND | KAL_MODE_UPDATE), KAL_ERR_STORAGE);
    for (const std::string& bad :
         {std::string(), std::string(32, 'n'), std::string(300, 'n'), std::string("a/b")})
        EXPECT_EQ(tryOpen("f.ole", bad.c_str(), 0), KAL_ERR_STORAGE);
    EXPECT_EQ(tryOpen(std::string(300, 'f').c_str(), "s", 0), KAL_ERR_STORAGE);
    EXPECT_EQ(tryOpen(nullptr, "s", 0), KAL_ERR_STORAGE);

    SFILE* reader = open("f.ole", "s", 0);
    EXPECT_EQ(tryOpen("f.ole", "s", 0), 0) << "readers share";
    for (const uint16_t mode : {KAL_MODE_WRITE, KAL_MODE_UPDATE, kCreateUpdate})
        EXPECT_EQ(tryOpen("f.ole", "s", mode), KAL_ERR_STORAGE);
    reader->close(reader);
    SFILE* writer = open("f.ole", "s", KAL_MODE_UPDATE);
    for (const uint16_t mode : {uint16_t(0), KAL_MODE_UPDATE, kCreateUpdate, KAL_MODE_APPEND})
        EXPECT_EQ(tryOpen("f.ole", "s", mode), KAL_ERR_STORAGE);
    writer->close(writer);
    EXPECT_EQ(contents("f.ole", "s"), bytesOf("text"));

    const int met = withEachAllocationFailing([](int) {
        SFILE* s;
        const int16_t status = KalOpenFileAsIStream(&s, "f.ole", "s", KAL_MODE_UPDATE);
        if (status == 0)
            s->close(s);
        else {
            EXPECT_EQ(s, nullptr);
        }
    });
    EXPECT_GT(met, 5);
    EXPECT_EQ(contents("f.ole", "s"), bytesOf("text"));
}

TEST_F(StorageStream, AppendMakesWhatIsMissingAndEmptiesNothing) {
    for (const uint16_t access : {KAL_MODE_WRITE, KAL_MODE_UPDATE}) {
        std::filesystem::remove("a.ole");
        for (int i = 0; i < 3; i++)
            write("a.ole", "log", KAL_MODE_APPEND | access, bytesOf("line "));
        EXPECT_EQ(contents("a.ole", "log"), bytesOf("line line line "));
    }
    SFILE* s = open("a.ole", "log", KAL_MODE_APPEND);
    EXPECT_EQ(val(s->pos), 15u);
    EXPECT_EQ(val(s->mode), KAL_MODE_APPEND | KAL_MODE_WRITE);
    EXPECT_EQ(s->write(s, "x", 1), 0) << "the slots stay those of a reader";
    s->close(s);
    EXPECT_EQ(tryOpen("new.ole", "log", KAL_MODE_APPEND), 0);
    EXPECT_EQ(contents("new.ole", "log"), Bytes());
    const Bytes other = randomBytes(2000, 3); // no compound file at all
    writeFile("other.dat", other);
    EXPECT_EQ(tryOpen("other.dat", "log", KAL_MODE_APPEND | KAL_MODE_UPDATE), KAL_ERR_STORAGE);
    EXPECT_EQ(readFile("other.dat"), other);
}

TEST_F(StorageStream, FilesAreFoundAlongTheSearchText) {
    std::filesystem::create_directory("home");
    write("home/f.ole", "s", kCreateUpdate, bytesOf("found"));
    KalSetHome(".\\home\\program");
    SFILE* s = open("f.ole", "s", KAL_MODE_SEARCH);
    EXPECT_EQ(std::string(s->name), ".\\home\\f.ole");
    s->close(s);
    EXPECT_EQ(tryOpen("f.ole", "s", 0), KAL_ERR_STORAGE);
    EXPECT_EQ(tryOpen("g.ole", "s", KAL_MODE_SEARCH), KAL_ERR_STORAGE);
    EXPECT_EQ(tryOpen("g.ole", "s", KAL_MODE_SEARCH | KAL_MODE_APPEND), 0);
    EXPECT_TRUE(fileExists("g.ole")) << "made under the name as given";
    KalSetHome(nullptr);
}

TEST_F(StorageStream, AFullDiskStopsWritesAndLosesNothing) {
    write("f.ole", "s", kCreateUpdate, randomBytes(3000, 1));
    for (const uint32_t buffer : {0u, 512u}) {
        Bytes expected = contents("f.ole", "s");
        SFILE* s = open("f.ole", "s", KAL_MODE_APPEND | KAL_MODE_UPDATE);
        ASSERT_EQ(KalSetBuf(s, buffer), 0);
        const Bytes piece = randomBytes(20000, 2);
        FileSizeLimit limit(100000 + buffer * 100);
        int32_t accepted = 20000;
        while (accepted == 20000) {
            accepted = s->write(s, piece.data(), 20000);
            if (accepted > 0)
                expected.insert(expected.end(), piece.begin(), piece.begin() + accepted);
        }
        EXPECT_EQ(val(s->status), KAL_ERR_DISK_FULL);
        EXPECT_EQ(s->write(s, "x", 1), 0);
        EXPECT_EQ(s->seek(s, 0, KAL_SEEK_START), KAL_ERR_DISK_FULL);
        EXPECT_EQ(s->close(s), 0);
        EXPECT_EQ(contents("f.ole", "s"), expected);
    }
    HeapBalance balance;
    HostCallGuard guard;
    SFILE* s = open("f.ole", "s", KAL_MODE_CREATE | KAL_MODE_WRITE);
    EXPECT_EQ(s->write(s, "few bytes", 9), 9);
    hostCalls.pwrite = [](int, const void*, size_t, off_t) {
        errno = EIO;
        return ssize_t(-1);
    };
    EXPECT_EQ(s->close(s), KAL_ERR_CLOSE) << "they never reached the file";
}

} // namespace
