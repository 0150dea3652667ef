// Compound files that are damaged, and disks that are full.
#include "tests/support/faults.h"
#include "tests/support/storage.h"

#include <cerrno>
#include <cstdlib>
#include <random>
#include <unistd.h>

namespace {

class CompoundTrouble : public FolderTest {
protected:
    CompoundTrouble() : FolderTest(kInMemory) {}
};

Streams someStreams() {
    Streams streams;
    for (const size_t size : {10, 64, 1000, 4095, 4096, 9000})
        streams[L"s" + std::to_wstring(size)] = randomBytes(size, static_cast<uint32_t>(size));
    return streams;
}

void put(Bytes& file, size_t at, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        file[at++] = static_cast<uint8_t>(value >> shift);
}

uint32_t word(const Bytes& file, size_t at) {
    return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | uint32_t(file[at + 3]) << 24;
}

size_t sectorAt(uint32_t sector) {
    return (size_t(sector) + 1) * 512;
}

// Opens a file that may be anything, reads all that it gives, writes to it if it may be written to, and reads
// what was written.
void useWhatOpens(const std::string& path, bool writing) {
    Streams found;
    readStreams(path, found);
    if (!writing)
        return;
    const Bytes bytes = randomBytes(5000, 1);
    Ref<IStorage> storage;
    if (openFile(path, kUpdate, storage) != S_OK)
        return;
    Ref<IStream> stream;
    if (makeStream(storage.get(), L"new", stream) == S_OK)
        writeAll(stream.get(), bytes);
    stream.reset();
    storage.reset();
    Streams after;
    EXPECT_TRUE(readStreams(path, after)) << "what may be written to is whole afterwards";
    found[L"new"] = bytes;
    EXPECT_TRUE(after == found);
}

TEST_F(CompoundTrouble, RandomDamageIsSurvived) {
    writeStreams("whole.ole", someStreams());
    const Bytes files[] = {readFile("whole.ole"), readFile(KAL_SOURCE_DIR "/tests/data/compound/table.xls")};
    std::mt19937 random(5);
    const int rounds = std::getenv("KAL_TEST_LARGE") != nullptr ? 100000 : 4500;
    for (int round = 0; round < rounds; round++) { // some 100,000 flips
        Bytes file = files[round % 2];
        const uint32_t flips = round % 4 == 0 ? 1 : static_cast<uint32_t>(random() % 60);
        for (uint32_t i = 0; i < flips; i++) {
            // Half of them where the structures are.
            const size_t bound = random() % 2 == 0 ? std::min<size_t>(file.size(), 2048) : file.size();
            file[random() % bound] ^= static_cast<uint8_t>(1u << random() % 8);
        }
        writeFile("damaged.ole", file);
        useWhatOpens("damaged.ole", round % 4 < 2);
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

TEST_F(CompoundTrouble, TruncatedFilesGiveWhatIsLeft) {
    const Streams model = someStreams();
    writeStreams("whole.ole", model);
    const Bytes whole = readFile("whole.ole");
    for (size_t length = 0; length < whole.size(); length += length % 512 == 0 ? 100 : 412) {
        writeFile("cut.ole", Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)));
        Streams found;
        const bool complete = readStreams("cut.ole", found);
        for (const auto& [name, bytes] : found) {
            ASSERT_EQ(model.count(name), 1u) << length;
            ASSERT_LE(bytes.size(), model.at(name).size()) << length;
            ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), model.at(name).begin())) << length;
        }
        ASSERT_TRUE(!complete || found == model) << "a stream cut short tells so: " << length;
        useWhatOpens("cut.ole", true);
    }
}

// One stored number changed, and what then comes of the streams. The file: FAT in sector 0, directory from
// sector 1 on, one sector for the first four entries.
TEST_F(CompoundTrouble, LoopsAndNonsenseAreFound) {
    const Bytes large = randomBytes(9000, 2);
    Streams model = {{L"a", large}, {L"b", randomBytes(5000, 3)}, {L"c", randomBytes(100, 4)}};
    writeStreams("whole.ole", model);
    const Bytes whole = readFile("whole.ole");
    const size_t fat = sectorAt(0);
    const size_t directory = sectorAt(word(whole, 48));
    size_t entries[4]; // root, a, b, c
    for (size_t i = 0; i < 4; i++)
        entries[i] = directory + i * 128;
    const uint32_t firstOfA = word(whole, entries[1] + 116);
    const uint32_t firstOfB = word(whole, entries[2] + 116);
    enum Outcome { refused, aIsLost, aIsShort, cIsLost, readable };
    const struct {
        const char* what;
        size_t at;
        uint32_t value;
        Outcome outcome;
    } cases[] = {
        {"signature", 0, 0, refused},
        {"byte order", 28, 0x0009FEFF, refused},
        {"sector shift 8", 28, 0x0008FFFE, refused},
        {"sector shift 12 in version 3", 28, 0x000CFFFE, refused},
        {"mini sector shift", 32, 7, refused},
        {"mini stream limit", 56, 0x2000, refused},
        {"no FAT sectors", 44, 0, refused},
        {"more FAT sectors than the file has", 44, 0x40000000, refused},
        {"FAT past the end", 76, 0x00FFFFFF, refused},
        {"directory past the end", 48, 0x00FFFFFF, refused},
        {"directory comes round", fat + word(whole, 48) * size_t(4), word(whole, 48), refused},
        {"no root entry", entries[0] + 66, 0x00000102, refused},
        {"a chain onto itself", fat + firstOfA * size_t(4), firstOfA, aIsLost},
        {"a chain that comes round", fat + (firstOfA + 5) * size_t(4), firstOfA, aIsLost},
        {"a chain into the void", fat + firstOfA * size_t(4), 0x00ABCDEF, aIsShort},
        {"a chain into a free sector", fat + firstOfA * size_t(4), 0xFFFFFFFF, aIsShort},
        {"a chain that ends early", fat + firstOfA * size_t(4), 0xFFFFFFFE, aIsShort},
        {"a size larger than the file", entries[1] + 120, 0x7FFFFFFF, aIsShort},
        {"first sector past the end", entries[1] + 116, 0x01000000, aIsShort},
        {"two streams in one chain", entries[1] + 116, firstOfB, aIsShort},
        {"no mini stream", entries[0] + 116, 0xFFFFFFFE, cIsLost},
        {"no mini FAT", 60, 0xFFFFFFFE, cIsLost},
        {"mini FAT in the void", 60, 0x00ABCDEF, cIsLost},
        {"tree onto itself", entries[1] + 68, 1, readable},
        {"tree past the end", entries[1] + 72, 77, readable},
        {"tree to the root", entries[1] + 68, 0, readable},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        Bytes file = whole;
        put(file, one.at, one.value);
        writeFile("bad.ole", file);
        Streams found;
        const bool complete = readStreams("bad.ole", found);
        EXPECT_EQ(complete, one.outcome == readable);
        if (one.outcome == refused) {
            EXPECT_TRUE(found.empty());
        }
        if (one.outcome == aIsLost) {
            EXPECT_EQ(found.count(L"a"), 0u);
        }
        if (one.outcome == aIsShort) {
            EXPECT_LT(found.at(L"a").size(), one.value == 0x7FFFFFFF ? size_t(0x7FFFFFFF) : large.size());
        }
        if (one.outcome == cIsLost) {
            EXPECT_TRUE(found.at(L"c").empty());
        }
        if (one.outcome == aIsLost || one.outcome == aIsShort) {
            EXPECT_TRUE(found.at(L"b") == model[L"b"] && found.at(L"c") == model[L"c"]);
        }
        Ref<IStorage> storage;
        EXPECT_EQ(openFile("bad.ole", kUpdate, storage), STG_E_DOCFILECORRUPT) << "not to be written to";
    }
}

// --- Failing writes ------------------------------------------------------------------------------------

// Fills the disk through one stream; then the file holds what it held and what was taken.
void fillTheDisk(const std::string& path, Streams model) {
    Bytes& taken = model[L"s10"];
    {
        Ref<IStorage> storage;
        Ref<IStream> stream, other;
        ASSERT_EQ(openFile(path, kUpdate, storage), S_OK);
        ASSERT_EQ(openStream(storage.get(), L"s9000", other), S_OK);
        // What does not succeed takes no room.
        uint32_t written = 0;
        EXPECT_EQ(other->SetSize(10000000), STG_E_MEDIUMFULL);
        ASSERT_EQ(other->Seek(10000000, STREAM_SEEK_SET, nullptr), S_OK);
        EXPECT_EQ(other->Write("far out", 7, &written), S_OK);
        EXPECT_EQ(written, 0u);
        ASSERT_EQ(other->Seek(0, STREAM_SEEK_SET, nullptr), S_OK);
        ASSERT_EQ(openStream(storage.get(), L"s10", stream), S_OK);
        ASSERT_EQ(stream->Seek(0, STREAM_SEEK_END, nullptr), S_OK);
        const Bytes piece = randomBytes(30001, 9);
        written = static_cast<uint32_t>(piece.size());
        for (int i = 0; i < 100 && written == piece.size(); i++) {
            ASSERT_EQ(stream->Write(piece.data(), static_cast<uint32_t>(piece.size()), &written), S_OK);
            taken.insert(taken.end(), piece.begin(), piece.begin() + written);
        }
        EXPECT_LT(written, piece.size()) << "the disk did not fill";
        EXPECT_GT(taken.size(), 450000u);
        // What is there may still be changed.
        writeAll(other.get(), model[L"s9000"] = randomBytes(9000, 77));
        ASSERT_EQ(openStream(storage.get(), L"s4096", other), S_OK);
        EXPECT_EQ(other->SetSize(100), S_OK) << "cutting needs no more room";
        model[L"s4096"].resize(100);
    }
    Streams found;
    EXPECT_TRUE(readStreams(path, found));
    EXPECT_TRUE(found == model);
}

TEST_F(CompoundTrouble, AFullDiskLosesNothing) {
    const Streams model = someStreams();
    writeStreams("limited.ole", model);
    {
        FileSizeLimit limit(600000);
        fillTheDisk("limited.ole", model);
    }
    TinyFileSystem disk(path("tiny"), 600 * 1024);
    if (!disk.mounted())
        GTEST_SKIP() << "may not mount";
    const std::string file = path("tiny/full.ole");
    writeStreams(file, model);
    fillTheDisk(file, model);
    Ref<IStorage> storage;
    EXPECT_EQ(createFile(path("tiny/another.ole"), storage), STG_E_MEDIUMFULL);
    EXPECT_FALSE(fileExists(path("tiny/another.ole")));
}

int failingCall;
int callsMade;

bool failsNow() {
    return ++callsMade == failingCall;
}

ssize_t failingWrite(int fd, const void* source, size_t count, off_t offset) {
    if (failsNow()) {
        errno = EIO;
        return -1;
    }
    return ::pwrite(fd, source, count, offset);
}

int noRoomAhead(int, int, off_t, off_t) {
    errno = EOPNOTSUPP;
    return -1;
}

TEST_F(CompoundTrouble, AFailedWriteHarmsNoOtherStreamAndIsMadeGood) {
    const Streams model = someStreams();
    HostCallGuard guard;
    hostCalls.pwrite = failingWrite;
    int failedCommits = 0;
    for (failingCall = 1;; failingCall++) {
        callsMade = failingCall; // past it
        writeStreams("faulty.ole", model);
        bool metInStream = false;
        Streams expected = model;
        Bytes& grown = expected[L"s64"];
        {
            Ref<IStorage> storage;
            Ref<IStream> stream, small;
            ASSERT_EQ(openFile("faulty.ole", kUpdate, storage), S_OK);
            ASSERT_EQ(openStream(storage.get(), L"s10", small), S_OK);
            writeAll(small.get(), expected[L"s10"] = randomBytes(700, 3));
            ASSERT_EQ(openStream(storage.get(), L"s64", stream), S_OK);
            callsMade = 0;
            stream->Seek(0, STREAM_SEEK_END, nullptr);
            for (int i = 0; i < 8 && !metInStream; i++) {
                const Bytes piece = randomBytes(1500, static_cast<uint32_t>(i));
                uint32_t written;
                metInStream = stream->Write(piece.data(), 1500, &written) != S_OK;
                EXPECT_EQ(metInStream, written < 1500);
                grown.insert(grown.end(), piece.begin(), piece.begin() + written);
            }
            failedCommits += storage->Commit(0) != S_OK;
            EXPECT_EQ(storage->Commit(0), S_OK) << "what was not written the first time is not forgotten";
        }
        if (callsMade < failingCall)
            break; // no call failed
        Streams found;
        ASSERT_TRUE(readStreams("faulty.ole", found)) << failingCall;
        ASSERT_TRUE(found == expected) << failingCall;
    }
    EXPECT_GT(failingCall, 8);
    EXPECT_GT(failedCommits, 2);
}

TEST_F(CompoundTrouble, RoomIsTakenByWritingWhereItCannotBeSetAside) {
    HostCallGuard guard;
    hostCalls.fallocate = noRoomAhead;
    const Streams model = someStreams();
    writeStreams("plain.ole", model);
    Streams found;
    EXPECT_TRUE(readStreams("plain.ole", found));
    EXPECT_TRUE(found == model);
}

TEST_F(CompoundTrouble, ShortMemoryIsAnError) {
    const Streams model = someStreams();
    writeStreams("memory.ole", model);
    const int met = withEachAllocationFailing([&](int) {
        Ref<IStorage> storage;
        Ref<IStream> stream;
        const Bytes bytes = randomBytes(6000, 1);
        if (openFile("memory.ole", kUpdate, storage) == S_OK &&
            makeStream(storage.get(), L"new", stream) == S_OK) {
            uint32_t written;
            stream->Write(bytes.data(), 6000, &written);
        }
    });
    EXPECT_GT(met, 20);
    Streams found;
    EXPECT_TRUE(readStreams("memory.ole", found));
    for (const auto& [name, bytes] : model)
        EXPECT_TRUE(found[name] == bytes);
}

TEST_F(CompoundTrouble, WhatIsNoRegularFileIsRefused) {
    Ref<IStorage> storage;
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    EXPECT_NE(openFile("pipe", STGM_READ, storage), S_OK);
    EXPECT_NE(openFile(".", STGM_READ, storage), S_OK);
    EXPECT_NE(createFile("no/such/folder", storage), S_OK);
    writeFile("short", bytesOf("short"));
    EXPECT_EQ(openFile("short", STGM_READ, storage), STG_E_DOCFILECORRUPT);
}

} // namespace
