// Compound files that meet trouble: kills, full disks, failing calls, damage.
#include "tests/support/storage.h"
#include "tests/support/traps.h"
#include "tests/support/trouble.h"

#include <cerrno>
#include <cstdlib>
#include <random>
#include <sys/stat.h>

namespace {

class CompoundTrouble : public FolderTest {
protected:
    CompoundTrouble() : FolderTest(kInMemory) {}
};

Streams someStreams() {
    Streams streams;
    for (const size_t size : {10, 64, 700, 1000, 3000, 4095, 4096, 9000})
        streams[L"s" + std::to_wstring(size)] = randomBytes(size, static_cast<uint32_t>(size));
    return streams;
}

// --- Kills, failing calls, no room ------------------------------------------------------------------------

// What one process does to a file before it commits.
using Change = HRESULT (*)(IStorage*);

HRESULT put(IStorage* storage, const wchar_t* name, const Bytes& bytes) {
    Ref<IStream> stream;
    uint32_t written = 0;
    HRESULT result = makeStream(storage, name, stream);
    if (result == S_OK)
        result = stream->Write(bytes.data(), static_cast<uint32_t>(bytes.size()), &written);
    return result == S_OK && written < bytes.size() ? STG_E_MEDIUMFULL : result;
}

HRESULT resize(IStorage* storage, const wchar_t* name, uint64_t size) {
    Ref<IStream> stream;
    const HRESULT result = openStream(storage, name, stream);
    return result == S_OK ? stream->SetSize(size) : result;
}

// Both tables grow, streams are replaced and taken out, and the directory changes in several sectors.
HRESULT replaceAndRemove(IStorage* storage) {
    HRESULT result = put(storage, L"s9000", randomBytes(12000, 1));
    if (result == S_OK)
        result = put(storage, L"s64", randomBytes(2000, 2));
    if (result == S_OK)
        result = put(storage, L"s3000", randomBytes(100000, 3));
    if (result == S_OK)
        result = put(storage, L"a new one", randomBytes(4000, 4));
    return result == S_OK ? storage->DestroyElement(L"s4096") : result;
}
HRESULT replaceOne(IStorage* storage) {
    return put(storage, L"s9000", randomBytes(8000, 1));
}
HRESULT shorten(IStorage* storage) {
    return resize(storage, L"s9000", 5000);
}
HRESULT shortenPastTheLimit(IStorage* storage) {
    return resize(storage, L"s9000", 1000);
}
HRESULT lengthen(IStorage* storage) {
    return resize(storage, L"s4095", 70000);
}

constexpr int kDone = 1;

int changeFile(Change change) {
    Ref<IStorage> root;
    HRESULT result = openFile("file.ole", kUpdate, root);
    if (result != S_OK)
        return result;
    result = change(root.get());
    if (result == S_OK && root->Commit(0) != S_OK)
        result = root->Commit(0) == S_OK ? kDone : STG_E_WRITEFAULT; // what was not written is not forgotten
    if (result < 0)
        root->Revert();
    return result;
}

// Whatever stops a change, the file holds what it held or what it was to hold, and takes more.
TEST_F(CompoundTrouble, AFileIsAsBeforeOrAsAfter) {
    const Streams before = someStreams();
    for (const Change change : {replaceAndRemove, replaceOne, shorten, shortenPastTheLimit, lengthen}) {
        SCOPED_TRACE(::testing::Message() << "change of " << (change == replaceAndRemove ? "many" : "one"));
        writeStreams("file.ole", before);
        const Bytes start = readFile("file.ole");
        Streams after;
        ASSERT_EQ(changeFile(change), S_OK);
        ASSERT_TRUE(readStreams("file.ole", after));
        ASSERT_FALSE(after == before);
        writeFile("file.ole", start);
        const auto check = [&](int status) {
            Streams found;
            EXPECT_TRUE(readStreams("file.ole", found));
            EXPECT_TRUE(found == after || (status < 0 && found == before));
            {
                Ref<IStorage> root;
                ASSERT_EQ(openFile("file.ole", kUpdate, root), S_OK);
                for (const auto& [name, bytes] : found) // none took damage
                    EXPECT_EQ(
                        put(root.get(), name.c_str(), found[name] = Bytes(bytes.rbegin(), bytes.rend())),
                        S_OK);
                EXPECT_EQ(put(root.get(), L"more", found[L"more"] = randomBytes(50000, 9)), S_OK);
            }
            Streams more;
            EXPECT_TRUE(readStreams("file.ole", more) && more == found);
        };
        // Where memory or room is short the same content may lie elsewhere in the file: another number for 'done'
        // keeps the walk from comparing bytes.
        bool isFirst = true;
        Scenario scenario = {.run =
                                 [&] {
                                     const int status = changeFile(change);
                                     return status == S_OK && !std::exchange(isFirst, false) ? kDone : status;
                                 },
                             .statuses = {STG_E_INSUFFICIENTMEMORY, STG_E_ACCESSDENIED, STG_E_WRITEFAULT,
                                          STG_E_READFAULT, STG_E_SHAREVIOLATION, STG_E_MEDIUMFULL,
                                          STG_E_DOCFILECORRUPT, kDone},
                             .check = check,
                             .unfinished = {"file.ole"}};
        EXPECT_GT(walkTrouble(scenario, kAllTrouble & ~kCutShort), 100);
        writeFile("file.ole", start);
        scenario.run = [change] { return changeFile(change); };
        walkTrouble(scenario, kCutShort);
    }
}

// Fills the disk through one stream; then the file holds what it held and what was taken.
TEST_F(CompoundTrouble, AFullDiskLosesNothing) {
    Streams model = someStreams();
    writeStreams("full.ole", model);
    Bytes& taken = model[L"s10"];
    {
        const FileSizeLimit limit(600000);
        Ref<IStorage> storage;
        Ref<IStream> stream, other;
        ASSERT_EQ(openFile("full.ole", kUpdate, storage), S_OK);
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
        Ref<IStorage> another;
        const FileSizeLimit none(100);
        EXPECT_EQ(createFile("another.ole", another), STG_E_MEDIUMFULL);
        EXPECT_FALSE(fileExists("another.ole"));
    }
    Streams found;
    EXPECT_TRUE(readStreams("full.ole", found));
    EXPECT_TRUE(found == model);
}

TEST_F(CompoundTrouble, RoomIsTakenByWritingWhereItCannotBeSetAside) {
    const HostCallGuard guard;
    hostCalls.fallocate = [](int, int, off_t, off_t) {
        errno = EOPNOTSUPP;
        return -1;
    };
    const Streams model = someStreams();
    writeStreams("plain.ole", model);
    Streams found;
    EXPECT_TRUE(readStreams("plain.ole", found) && found == model);
}

// --- Damage -----------------------------------------------------------------------------------------------

void set(Bytes& file, size_t at, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        file[at++] = static_cast<uint8_t>(value >> shift);
}

uint32_t word(const Bytes& file, size_t at) {
    return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | uint32_t(file[at + 3]) << 24;
}

// Opens a file that may be anything, reads all that it gives, writes to it if it may be written to, and reads what was
// written: what could be written to stays, and what was not whole does not come to look so.
void useWhatOpens(const std::string& path, bool writing) {
    Streams whole, sound, after;
    readStreams(path, whole);
    Ref<IStorage> storage;
    if (!writing || openFile(path, kUpdate, storage) != S_OK)
        return;
    storage.reset();
    readStreams(path, sound, kUpdate);
    ASSERT_EQ(openFile(path, kUpdate, storage), S_OK);
    const Bytes bytes = randomBytes(5000, 1);
    if (put(storage.get(), L"new", bytes) == S_OK)
        whole[L"new"] = sound[L"new"] = bytes;
    storage.reset();
    readStreams(path, after);
    for (const auto& [name, content] : sound)
        EXPECT_TRUE(after.count(name) == 1 && after[name] == content);
    for (const auto& [name, content] : after)
        EXPECT_EQ(whole.count(name), 1u);
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
        ASSERT_FALSE(HasFailure()) << "seed 5, round " << round;
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
        ASSERT_EQ(complete, found == model) << "a stream cut short tells so: " << length;
        for (const auto& [name, bytes] : found)
            ASSERT_TRUE(model.count(name) == 1 && bytes == model.at(name)) << length;
        useWhatOpens("cut.ole", true);
        ASSERT_FALSE(HasFailure()) << length;
    }
}

// One stored number changed: what is damaged refuses itself, the rest is read and written.
TEST_F(CompoundTrouble, LoopsAndNonsenseAreFound) {
    const Streams model = {
        {L"a", randomBytes(9000, 2)}, {L"b", randomBytes(5000, 3)}, {L"c", randomBytes(100, 4)}};
    writeStreams("whole.ole", model);
    const Bytes whole = readFile("whole.ole");
    // The FAT lies in sector 0; one sector of the directory holds all four entries.
    const size_t fat = 512;
    const size_t directory = (word(whole, 48) + 1) * size_t(512);
    const auto entry = [directory](size_t index, size_t field) { return directory + index * 128 + field; };
    const uint32_t a = word(whole, entry(1, 116));
    const uint32_t b = word(whole, entry(2, 116));
    // Streams that are damaged; of kFile nothing is read, of kTables nothing written, to kTree nothing added.
    const std::wstring kFile = L"file", kTables = L"tables", kTree = L"tree";
    const struct {
        const char* what;
        size_t at;
        uint32_t value;
        std::wstring damaged;
    } cases[] = {
        {"signature", 0, 0, kFile},
        {"byte order", 28, 0x0009FEFF, kFile},
        {"sector shift 8", 28, 0x0008FFFE, kFile},
        {"sector shift 12 in version 3", 28, 0x000CFFFE, kFile},
        {"mini sector shift", 32, 7, kFile},
        {"mini stream limit", 56, 0x2000, kFile},
        {"no FAT sectors", 44, 0, kFile},
        {"more FAT sectors than the file has", 44, 0x40000000, kFile},
        {"FAT past the end", 76, 0x00FFFFFF, kFile},
        {"directory past the end", 48, 0x00FFFFFF, kFile},
        {"directory comes round", fat + word(whole, 48) * size_t(4), word(whole, 48), kFile},
        {"no root entry", entry(0, 66), 0x00000102, kFile},
        {"a chain onto itself", fat + a * size_t(4), a, L"a"},
        {"a chain that comes round", fat + (a + 5) * size_t(4), a, L"a"},
        {"a chain into the void", fat + a * size_t(4), 0x00ABCDEF, L"a"},
        {"a chain into a free sector", fat + a * size_t(4), 0xFFFFFFFF, L"a"},
        {"a chain that ends early", fat + a * size_t(4), 0xFFFFFFFE, L"a"},
        {"a size larger than the file", entry(1, 120), 0x7FFFFFFF, L"a"},
        {"first sector past the end", entry(1, 116), 0x01000000, L"a"},
        {"first sector free", entry(1, 116), 100, L"a"},
        {"two streams in one chain", entry(1, 116), b, L"ab"},
        {"a stream in the directory", entry(1, 116), word(whole, 48), L"a"},
        {"no mini stream", entry(0, 116), 0xFFFFFFFE, kTables + L"c"},
        {"mini stream in another's chain", entry(0, 116), a, kTables + L" but c is read"},
        {"a FAT sector that is free", fat, 0xFFFFFFFF, kTables},
        {"no mini FAT", 60, 0xFFFFFFFE, kTables + L"c"},
        {"mini FAT in the void", 60, 0x00ABCDEF, kTables + L"c"},
        {"tree onto itself", entry(1, 68), 1, kTree},
        {"tree past the end", entry(1, 72), 77, kTree},
        {"tree to the root", entry(1, 68), 0, kTree},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        const auto is = [&one](const std::wstring& kind) { return one.damaged.rfind(kind, 0) == 0; };
        Bytes file = whole;
        set(file, one.at, one.value);
        writeFile("bad.ole", file);
        Streams expected = model, found;
        readStreams("bad.ole", found);
        std::erase_if(expected, [&](const auto& stream) {
            return is(kFile) || (stream.first == L"c" && one.damaged.ends_with(L'c')) || is(stream.first);
        });
        EXPECT_EQ(found.size(), expected.size());
        Ref<IStorage> storage;
        ASSERT_EQ(openFile("bad.ole", kUpdate, storage),
                  is(kFile) || is(kTables) ? STG_E_DOCFILECORRUPT : S_OK);
        if (storage.get() == nullptr)
            continue;
        for (const auto& [name, bytes] : model) {
            const bool refused = one.damaged.size() < 3 && one.damaged.find(name) != std::wstring::npos;
            Ref<IStream> stream;
            EXPECT_EQ(openStream(storage.get(), name, stream), refused ? STG_E_DOCFILECORRUPT : S_OK);
            EXPECT_EQ(stream.get() == nullptr, refused);
            if (!refused)
                writeAll(stream.get(), expected[name] = randomBytes(bytes.size() + 3000, 8));
        }
        EXPECT_EQ(storage->DestroyElement(L"a"), is(kTree) || is(L"a") ? STG_E_DOCFILECORRUPT : S_OK);
        EXPECT_EQ(put(storage.get(), L"new", randomBytes(5000, 9)), is(kTree) ? STG_E_DOCFILECORRUPT : S_OK);
        storage.reset();
        found.clear();
        readStreams("bad.ole", found);
        if (!is(kTree))
            expected[L"new"] = randomBytes(5000, 9);
        EXPECT_TRUE(found == expected);
    }
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
