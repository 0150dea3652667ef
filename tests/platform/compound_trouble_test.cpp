// Compound files that meet trouble: kills, full disks, failing calls, damage.
#include "tests/support/faults.h"
#include "tests/support/storage.h"
#include "tests/support/told.h"
#include "tests/support/trouble.h"

#include <cstring>
#include <random>
#include <set>

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

constexpr int kDone = 1; // by a second try
const std::set<int> kTold = {
    STG_E_INSUFFICIENTMEMORY, STG_E_ACCESSDENIED, STG_E_WRITEFAULT,     STG_E_READFAULT,
    STG_E_SHAREVIOLATION,     STG_E_MEDIUMFULL,   STG_E_DOCFILECORRUPT, kDone};

HRESULT resize(IStorage* storage, const std::wstring& name, uint64_t size) {
    Ref<IStream> stream;
    const HRESULT result = openStream(storage, name, stream);
    return result == S_OK ? stream->SetSize(size) : result;
}

// What one process does to a file before it commits: streams put, with so many bytes, made longer or shorter, taken out.
struct Change {
    char how;
    const wchar_t* name;
    uint32_t size;

    HRESULT operator()(IStorage* storage) const {
        return how == 'p'   ? putStream(storage, name, randomBytes(size, 1))
               : how == 'r' ? resize(storage, name, size)
                            : storage->DestroyElement(name);
    }
};
const std::vector<Change> kChanges[] = {
    // Both tables grow, and the directory changes in several sectors.
    {{'p', L"s9000", 12000},
     {'p', L"s64", 2000},
     {'p', L"s3000", 100000},
     {'p', L"a new one", 4000},
     {'d', L"s4096", 0}},
    {{'p', L"s9000", 8000}},
    {{'r', L"s9000", 5000}},
    {{'r', L"s9000", 1000}}, // to mini sectors
    {{'r', L"s4095", 70000}}};

// Whatever stops a change, the file holds what it held or what it was to hold, and takes more.
TEST_F(CompoundTrouble, AFileIsAsBeforeOrAsAfter) {
    const Streams before = someStreams();
    for (const auto& changes : kChanges) {
        SCOPED_TRACE(::testing::Message() << "changes " << &changes - kChanges);
        const auto run = [&] {
            Ref<IStorage> root;
            Ref<IEnumSTATSTG> elements;
            STATSTG element;
            HRESULT result = openFile("file.ole", kUpdate, root);
            if (result == S_OK && (result = root->EnumElements(0, nullptr, 0, elements.out())) == S_OK &&
                (result = elements->Next(1, &element, nullptr)) == S_OK)
                CoTaskMemFree(element.pwcsName);
            for (const Change& change : changes)
                result = result == S_OK ? change(root.get()) : result;
            if (result == S_OK && root->Commit(0) != S_OK)
                result = root->Commit(0) == S_OK ? kDone : STG_E_WRITEFAULT; // nothing was forgotten
            if (result < 0 && root.get() != nullptr)
                root->Revert();
            return result;
        };
        writeStreams("file.ole", before);
        const Bytes start = readFile("file.ole");
        Streams after, found;
        ASSERT_EQ(run(), S_OK);
        ASSERT_TRUE(readStreams("file.ole", after) && after != before);
        writeFile("file.ole", start);
        const auto check = [&](int status) {
            EXPECT_TRUE(readStreams("file.ole", found));
            EXPECT_TRUE(found == after || (status < 0 && found == before));
            Ref<IStorage> root;
            ASSERT_EQ(openFile("file.ole", kUpdate, root), S_OK);
            Streams more = found;
            more[L"more"] = randomBytes(50000, 9);
            for (auto& [name, bytes] : more) { // none took damage
                std::reverse(bytes.begin(), bytes.end());
                EXPECT_EQ(putStream(root.get(), name, bytes), S_OK);
            }
            root.reset();
            EXPECT_TRUE(readStreams("file.ole", found) && found == more);
        };
        walkTrouble({.run = run, .statuses = kTold, .check = check, .loose = {"file.ole"}});
    }
}

// The disk fills up through one stream: the file holds what it held and what was taken, and what is there may still be
// changed.
TEST_F(CompoundTrouble, AFullDiskLosesNothing) {
    const HostCallGuard guard;
    for (const bool setsAside : {true, false}) {
        if (!setsAside)
            hostCalls.fallocate = [](auto...) {
                errno = EOPNOTSUPP;
                return -1;
            };
        Streams model = someStreams(), found;
        writeStreams("full.ole", model);
        Ref<IStorage> storage, another;
        Ref<IStream> stream, other;
        uint32_t written = 30001;
        ASSERT_EQ(openFile("full.ole", kUpdate, storage), S_OK);
        ASSERT_EQ(openStream(storage.get(), L"s9000", other), S_OK);
        ASSERT_EQ(openStream(storage.get(), L"s10", stream), S_OK);
        const FileSizeLimit limit(600000);
        EXPECT_EQ(other->SetSize(10000000), STG_E_MEDIUMFULL); // what does not succeed takes no room
        const Bytes piece = randomBytes(written, 9);
        for (Bytes& taken = model[L"s10"] = {}; written == piece.size();) {
            EXPECT_EQ(stream->Write(piece.data(), written, &written), S_OK);
            taken.insert(taken.end(), piece.begin(), piece.begin() + written);
        }
        EXPECT_GT(model[L"s10"].size(), 540000u);
        EXPECT_EQ(other->Write((model[L"s9000"] = randomBytes(9000, 77)).data(), 9000, &written), S_OK);
        EXPECT_EQ(written, 9000u);
        EXPECT_EQ(resize(storage.get(), L"s4096", 100) | storage->Commit(0), S_OK);
        model[L"s4096"].resize(100);
        stream.reset();
        other.reset();
        storage.reset();
        EXPECT_TRUE(readStreams("full.ole", found) && found == model);
        const FileSizeLimit none(100);
        EXPECT_EQ(createFile("another.ole", another), STG_E_MEDIUMFULL);
        EXPECT_FALSE(fileExists("another.ole"));
    }
}

// Streams larger than the buffers, doubtful mini sectors and, where KAL_TEST_LARGE asks for a minute more, a DIFAT:
// whatever fails is told.
TEST_F(CompoundTrouble, ALargeFileTellsWhatItDoesNotGet) {
    const size_t size = std::getenv("KAL_TEST_LARGE") != nullptr ? 7'200'000 : 100'000;
    Streams streams = someStreams(), after;
    streams[L"large"] = Bytes(size, 'x');
    writeStreams("large.ole", streams);
    {
        Ref<IStorage> root, inner;
        ASSERT_EQ(openFile("large.ole", kUpdate, root), S_OK);
        for (int i = 0; i < 100; i++)
            EXPECT_EQ(root->CreateStorage(std::to_wstring(i).c_str(), kUpdate, 0, 0, inner.out()), S_OK);
    }
    Bytes doubtful = readFile("large.ole");
    doubtful[64]++; // the mini FAT seems to be longer: the first change makes small streams anew
    writeFile("large.ole", doubtful);
    const auto run = [size] {
        Bytes bytes(70'000);
        uint32_t moved = 0;
        SFILE* file = nullptr;
        if (KalOpenFile(&file, "large.ole", 0, 0) != KAL_OK)
            return int(STG_E_READFAULT);
        const std::string faults = faultsIn(file, KalVerifyCompoundFile);
        int result = faults.find('/') != std::string::npos ? S_OK : STG_E_READFAULT; // the mini FAT's
        file->close(file);
        Ref<IStorage> root, inner;
        if (const HRESULT opened = openFile("large.ole", kUpdate, root); opened != S_OK)
            return int(opened);
        const auto note = [&](HRESULT got) { result = result == S_OK ? int(got) : result; };
        for (const wchar_t* name : {L"large", L"s64"}) {
            Ref<IStream> stream;
            if (const HRESULT opened = openStream(root.get(), name, stream); opened != S_OK) {
                note(opened);
                continue;
            }
            note(stream->Read(bytes.data(), 10, &moved));
            note(stream->Seek(int64_t(size) - 50'000, STREAM_SEEK_SET, nullptr));
            note(stream->Write(bytes.data(), uint32_t(bytes.size()), &moved));
            note(moved == bytes.size() ? S_OK : STG_E_MEDIUMFULL);
        }
        note(root->CreateStorage(L"inner", kUpdate | STGM_CREATE, 0, 0, inner.out()));
        if (inner.get() != nullptr)
            note(putStream(inner.get(), L"small", Bytes(2000)));
        note(root->Commit(0));
        return result;
    };
    walkTrouble({.run = run,
                 .statuses = kTold,
                 .check =
                     [&](int status) {
                         Streams found;
                         const bool isWhole = readStreams("large.ole", found);
                         after = after.empty() ? found : after;
                         EXPECT_TRUE(status != S_OK || (isWhole && found == after));
                     },
                 .loose = {"large.ole"}}, // a call that is made again may find another place
                kNoMemory | kHostFails);
}

// In a file whose last sector is cut short the last byte of a stream is looked for: one that the host does not give is not
// one that the file has not.
TEST_F(CompoundTrouble, AReadThatFailsTakesNoStreamAway) {
    Streams model = {{L"a", randomBytes(5000, 1)}};
    writeStreams("short.ole", model);
    const Bytes file = readFile("short.ole");
    writeFile("short.ole", Bytes(file.begin(), file.end() - 50));
    walkTrouble({.run =
                     [] {
                         Ref<IStorage> root;
                         if (const HRESULT opened = openFile("short.ole", kUpdate, root); opened != S_OK)
                             return int(opened);
                         const HRESULT put = putStream(root.get(), L"b", Bytes(10));
                         const HRESULT kept = root->Commit(0);
                         return int(put != S_OK ? put : kept);
                     },
                 .statuses = kTold,
                 .check =
                     [&](int) {
                         Streams found;
                         EXPECT_TRUE(readStreams("short.ole", found) && found[L"a"] == model[L"a"]);
                     },
                 .loose = {"short.ole"}},
                kHostFails);
}

// --- Damage -----------------------------------------------------------------------------------------------

// Opens a file that may be anything, reads all that it gives, writes to it if it may be written to, and reads what was
// written: what could be written to stays, and what was not whole does not come to look so.
void useWhatOpens(const std::string& path) {
    Streams whole, sound, after;
    const bool isWhole = readStreams(path, whole);
    Ref<IStorage> storage;
    const bool isOpen = openFile(path, kUpdate, storage) == S_OK;
    storage.reset();
    const bool isSound = isOpen && readStreams(path, sound, kUpdate);
    EXPECT_TRUE((isWhole && isSound) || faultsIn(readFile(path), KalVerifyCompoundFile) != "")
        << "the checker says nothing";
    if (!isOpen)
        return;
    ASSERT_EQ(openFile(path, kUpdate, storage), S_OK);
    for (const auto& [name, size] : {std::pair(L"new", 5000), {L"small", 700}}) {
        const Bytes bytes = randomBytes(static_cast<size_t>(size), 1);
        const HRESULT result = putStream(storage.get(), name, bytes);
        EXPECT_TRUE(result == S_OK || result == STG_E_DOCFILECORRUPT) << result;
        if (result == S_OK)
            whole[name] = sound[name] = bytes;
    }
    storage.reset();
    readStreams(path, after);
    for (const auto& [name, content] : sound)
        EXPECT_TRUE(after.count(name) == 1 && after[name] == content);
    for (const auto& [name, content] : after)
        EXPECT_EQ(whole.count(name), 1u);
}

TEST_F(CompoundTrouble, RandomDamageAndCutsAreSurvived) {
    writeStreams("whole.ole", someStreams());
    const Bytes files[] = {readFile("whole.ole"), readFile(KAL_SOURCE_DIR "/tests/data/compound/table.xls")};
    std::mt19937 random(firstSeed());
    const int rounds = std::getenv("KAL_TEST_LARGE") != nullptr ? 100000 : 2000;
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        SCOPED_TRACE(::testing::Message() << "seed " << firstSeed() << ", round " << round);
        Bytes file = files[round % 2];
        if (random() % 8 == 0)
            file.resize(random() % (file.size() / 100 + 1) * 100);
        const uint32_t flips = round % 4 < 2 ? 1 : static_cast<uint32_t>(random() % 60);
        for (uint32_t i = 0; i < flips && !file.empty(); i++) {
            // Half of them where the structures are.
            const size_t bound = random() % 2 == 0 ? std::min<size_t>(file.size(), 2048) : file.size();
            file[random() % bound] ^= static_cast<uint8_t>(1u << random() % 8);
        }
        writeFile("damaged.ole", file);
        useWhatOpens("damaged.ole");
    }
}

// One stored number changed: what is damaged refuses itself and stays as it is, the rest is read and written.
TEST_F(CompoundTrouble, OneDamagedNumberDamagesWhatItIsOf) {
    const std::pair<const wchar_t*, int> sizes[] = {{L"a", 9000},  {L"b", 5000},    {L"c", 100},
                                                    {L"d", 70000}, {L"e", 7400000}, {L"new", 5000},
                                                    {L"small", 90}};
    Streams model, found;
    for (size_t i = 0; i < 5; i++)
        model[sizes[i].first] = randomBytes(static_cast<size_t>(sizes[i].second), 3);
    writeStreams("whole.ole", model);
    const Bytes whole = readFile("whole.ole");
    const auto place = [](uint32_t sector) { return (sector + size_t(1)) * 512; };
    const auto fat = [&](uint32_t sector) {
        return place(word(whole, 76 + sector / 128 * 4)) + sector % 128 * 4;
    };
    const uint32_t directory = word(whole, 48), difat = word(whole, 68), fat0 = word(whole, 76);
    const auto entry = [&](size_t index, size_t field) {
        return place(index < 4 ? directory : word(whole, fat(directory))) + index % 4 * 128 + field;
    };
    const uint32_t a = word(whole, entry(1, 116)), b = word(whole, entry(2, 116));
    constexpr uint32_t kVoid = 0x00ABCDEF, kEnd = 0xFFFFFFFE, kNone = 0xFFFFFFFF;
    constexpr size_t kFat20 = 76 + 20 * 4; // a part of the FAT that is all about e
    // What is damaged, then places and the numbers put there.
    const std::pair<std::string, std::vector<size_t>> cases[] = {
        // Nothing can be read: signature, byte order, sector sizes, the limit of small streams, FAT and directory.
        {"file",
         {0, 0, 26, 0xFFFE0004, 28, 0x0009FEFF, 28, 0x0008FFFE, 28, 0x000CFFFE, 32, 7, 56, 0x2000, 44, 0}},
        {"file", {44, 0x40000000, 48, kVoid, fat(directory), directory, entry(0, 66), 0x00000102}},
        {"directory", {fat(directory), kVoid}},                         // cut off: nothing can be written
        {"tree", {entry(1, 68), 1, entry(1, 72), 77, entry(1, 68), 0}}, // no stream can be added or removed
        // Streams, in capitals where they still can be read. A chain that comes round, leads nowhere, into free
        // sectors, ends early, starts nowhere, in the directory, in the FAT; a size too large.
        {"a", {fat(a), a, fat(a + 5), a, fat(a), kVoid, fat(a), kNone, fat(a + 7), kNone, fat(a), kEnd}},
        {"a",
         {entry(1, 116), kVoid, entry(1, 116), directory, entry(1, 116), fat0, entry(1, 120), 0x7FFFFFFF}},
        {"aB", {entry(1, 116), b}},                        // two in one chain
        {"c", {entry(0, 116), kEnd, 60, kEnd, 60, kVoid}}, // no mini stream, no mini FAT
        {"AC", {entry(0, 116), a}},                        // the mini stream where another is
        {"C", {entry(0, 116), directory}},
        {"Ac", {60, a}},
        // A FAT sector that is none, is in a stream, or comes twice; the same of the DIFAT.
        {"e", {kFat20, kVoid, kFat20, a, kFat20, word(whole, kFat20 + 4), 68, kEnd, 68, a}},
        {"", {fat(fat0), kNone, fat(difat), kNone}}, // those sectors marked as free
    };
    for (const auto& [damaged, changes] : cases)
        for (size_t i = 0; i < changes.size(); i += 2) {
            SCOPED_TRACE(::testing::Message() << "damaged: " << damaged << ", change " << i / 2);
            const bool tree = damaged == "tree";
            const auto is = [&, streams = tree ? "" : damaged](wchar_t letter) {
                return streams.find(static_cast<char>(letter)) != std::string::npos;
            };
            Bytes file = whole;
            for (size_t byte = 0; byte < 4; byte++)
                file[changes[i] + byte] = static_cast<uint8_t>(changes[i + 1] >> 8 * byte);
            writeFile("bad.ole", file);
            EXPECT_NE(faultsIn(file, KalVerifyCompoundFile), "") << "the checker says nothing";
            Ref<IStorage> storage;
            if (damaged == "file" || damaged == "directory") {
                EXPECT_TRUE(damaged == "directory" || !readStreams("bad.ole", found));
                EXPECT_EQ(openFile("bad.ole", kUpdate, storage), STG_E_DOCFILECORRUPT);
                continue;
            }
            ASSERT_EQ(openFile("bad.ole", kUpdate, storage), S_OK);
            if (is('e')) {
                EXPECT_EQ(resize(storage.get(), L"b", 4990), S_OK);
                EXPECT_EQ(storage->Commit(0), S_OK);
                EXPECT_GE(readFile("bad.ole").size(), whole.size()) << "its end is cut off";
            }
            Streams expected;
            for (const auto& [name, size] : sizes) {
                const bool isNew = name[1] != 0, readable = is(name[0] - 32);
                const HRESULT result = (isNew ? tree : readable || is(name[0])) ? STG_E_DOCFILECORRUPT : S_OK;
                const Bytes bytes(static_cast<size_t>(size), 'x');
                EXPECT_EQ(putStream(storage.get(), name, bytes), result) << name;
                if (!isNew && (tree || result != S_OK)) {
                    EXPECT_EQ(storage->DestroyElement(name), STG_E_DOCFILECORRUPT);
                }
                if (readable || result == S_OK)
                    expected[name] = readable ? Bytes() : bytes; // not what it was, maybe
            }
            storage.reset();
            readStreams("bad.ole", found);
            for (auto& [name, bytes] : found)
                if (is(name[0] - 32))
                    bytes.clear();
            EXPECT_TRUE(found == expected);
            const Bytes after = readFile("bad.ole");
            for (const size_t index : {1, 2, 4, 5}) {
                uint32_t sector = is('`' + wchar_t(index)) || is('@' + wchar_t(index))
                                      ? word(whole, entry(index, 116))
                                      : kEnd;
                for (; sector < 109 * 128; sector = word(whole, fat(sector))) // as far as the header tells
                    ASSERT_EQ(std::memcmp(&whole[place(sector)], &after[place(sector)], 512), 0);
            }
        }
}

} // namespace
