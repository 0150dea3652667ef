// Compound files as other programs and we see them.
#include "tests/support/faults.h"
#include "tests/support/storage.h"
#include "tests/support/told.h"

#include <algorithm>
#include <clocale>
#include <cstring>
#include <filesystem>
#include <random>
#include <sys/stat.h>

namespace {

class Compound : public FolderTest {
protected:
    Compound() : FolderTest(kInMemory) {}
};

// A compound file beside a map of paths to bytes, both changed at random.
class Model {
public:
    Model(const std::string& path, uint32_t seed, size_t most) : path_(path), random_(seed), most_(most) {
        EXPECT_TRUE(readStreams(path_, model_)) << path;
    }

    // Opens the file, changes streams of three storages by turns, so that their chains interleave, and closes it.
    void session() {
        const HeapBalance balance;
        const std::wstring prefixes[] = {L"", L"folder/", L"folder/inner/"};
        Ref<IStorage> storage[3];
        // A file that was written has no damage.
        ASSERT_EQ(openFile(path_, kUpdate, storage[0]), S_OK);
        for (size_t i = 0; i < 2; i++) {
            const wchar_t* name = i == 0 ? L"folder" : L"inner";
            if (storage[i]->OpenStorage(name, nullptr, kUpdate, nullptr, 0, storage[i + 1].out()) != S_OK) {
                ASSERT_EQ(storage[i]->CreateStorage(name, kUpdate, 0, 0, storage[i + 1].out()), S_OK);
            }
        }
        for (int step = 0; step < 24; step++) {
            const size_t i = random_() % 3;
            const std::wstring name = L"s" + std::to_wstring(random_() % 7), path = prefixes[i] + name;
            const bool there = model_.count(path) != 0;
            if (random_() % 6 == 0) {
                ASSERT_EQ(storage[i]->DestroyElement((L"S" + name.substr(1)).c_str()),
                          there ? S_OK : STG_E_FILENOTFOUND);
                model_.erase(path);
            } else {
                Ref<IStream> stream;
                if (!there || random_() % 4 == 0)
                    model_[path].clear();
                ASSERT_EQ((model_[path].empty() ? makeStream(storage[i].get(), name, stream)
                                                : openStream(storage[i].get(), name, stream)),
                          S_OK);
                EXPECT_EQ(storage[i]->DestroyElement(name.c_str()), STG_E_ACCESSDENIED) << "it is open";
                for (auto changes = random_() % 4; changes > 0; changes--)
                    ASSERT_NO_FATAL_FAILURE(change(stream.get(), model_[path]));
            }
            if (random_() % 20 == 0) {
                ASSERT_EQ(storage[0]->Commit(0), S_OK);
            }
        }
    }

    bool isSame() const {
        Streams found;
        const Bytes file = readFile(path_);
        EXPECT_EQ(faultsIn(file, KalVerifyCompoundFile), "");
        return readStreams(path_, found) && found == model_;
    }
    const Streams& streams() const { return model_; }

private:
    size_t nearALimit() {
        const size_t limits[] = {0, 64, 512, 4096, 4096, 8192, most_};
        return limits[random_() % std::size(limits)] + random_() % 130;
    }
    // Cuts or lengthens the stream, reads somewhere, or writes somewhere, also past its end.
    void change(IStream* stream, Bytes& bytes) {
        const size_t at = random_() % 3 == 0 ? bytes.size() : nearALimit();
        Bytes put = randomBytes(random_() % 3 == 0 ? nearALimit() : random_() % 200,
                                static_cast<uint32_t>(random_()));
        const auto size = static_cast<uint32_t>(put.size());
        const auto what = random_() % 4;
        uint32_t count = 0;
        if (what == 0) {
            ASSERT_EQ(stream->SetSize(at), S_OK);
            bytes.resize(at);
            return;
        }
        ASSERT_EQ(stream->Seek(static_cast<int64_t>(at), STREAM_SEEK_SET, nullptr), S_OK);
        if (what == 1) {
            ASSERT_EQ(stream->Read(put.data(), size, &count), S_OK);
            ASSERT_EQ(count, std::min(put.size(), bytes.size() - std::min(at, bytes.size())));
            ASSERT_TRUE(count == 0 || std::equal(put.begin(), put.begin() + count, &bytes[at]));
        } else {
            ASSERT_EQ(stream->Write(put.data(), size, &count), S_OK);
            ASSERT_EQ(count, size);
            bytes.resize(size > 0 ? std::max(bytes.size(), at + size) : bytes.size());
            std::copy(put.begin(), put.end(), bytes.data() + (size > 0 ? at : 0));
        }
    }

    std::string path_;
    std::mt19937 random_;
    size_t most_;
    Streams model_;
};

// New files and those of other programs, one of them with sectors of 4096 bytes that lie apart.
TEST_F(Compound, RandomChangesAgreeWithAModelAndOtherReaders) {
    std::vector<std::string> names = {"letter.doc", "table.xls", "large_sectors.ole"};
    for (const std::string& name : names)
        writeFile(name, readFile(KAL_SOURCE_DIR "/tests/data/compound/" + name));
    Streams made;
    std::filesystem::create_directories("files/inner/deep");
    for (const size_t size : {0, 1, 63, 64, 65, 4095, 4096, 4097, 100000, 9 << 20}) {
        const std::string name = "inner/deep/f" + std::to_string(size);
        writeFile("files/" + name, made[wide(name)] = randomBytes(size, static_cast<uint32_t>(size)));
    }
    if (std::system("gsf createole made.ole files/inner > gsf.txt 2>&1") == 0)
        names.emplace_back("made.ole");
    for (uint32_t seed = firstSeed(), end = seed + 3; seed != end; seed++) {
        names.push_back("seed " + std::to_string(seed));
        writeStreams(names.back(), {});
    }
    int readers = 0;
    for (const std::string& name : names) {
        // The last file grows until its table of sectors has tables of its own.
        Model model(name, static_cast<uint32_t>(std::hash<std::string>()(name)),
                    name == names.back() ? 3 << 20 : 70000);
        EXPECT_TRUE(name != "made.ole" || model.streams() == made);
        EXPECT_EQ(faultsIn(readFile(name), KalVerifyCompoundFile), "");
        if (name.find(' ') == name.npos)
            expectOthersRead(name, model.streams());
        for (int session = 0; session < 16; session++) {
            SCOPED_TRACE(::testing::Message() << name << ", session " << session);
            model.session();
            ASSERT_TRUE(model.isSame() && !HasFailure());
        }
        readers = expectOthersRead(name, model.streams());
        EXPECT_FALSE(HasFailure()) << name;
    }
    EXPECT_GT(std::filesystem::file_size(names.back()), 15500000u);
    if (readers < 2)
        GTEST_SKIP() << "needs olefile and gsf";
}

// How many entries of a directory stand below each other, at the most.
int depthBelow(const Bytes& directory, uint32_t index) {
    const size_t entry = index * size_t(128);
    return index == 0xFFFFFFFF ? 0
                               : 1 + std::max(depthBelow(directory, word(directory, entry + 68)),
                                              depthBelow(directory, word(directory, entry + 72)));
}

TEST_F(Compound, TheDirectoryIsABalancedTreeInTheFormatsOrder) {
    std::vector<std::wstring> names = {L"\u00C9t\u00E9", L"\u0436", L"\U0001F600", std::wstring(31, L'n')};
    for (int i = 1000; i < 1700; i++) // nearly as they will stand there: an unbalanced tree would be a list
        names.push_back((i % 2 != 0 ? L"stream " : L"STREAM Nr. ") + std::to_wstring(i));
    const HeapBalance balance; // the longest name has room
    Ref<IStorage> storage;
    Ref<IStream> stream;
    ASSERT_EQ(createFile("many.ole", storage), S_OK);
    for (const std::wstring& name : names)
        ASSERT_EQ(makeStream(storage.get(), name, stream), S_OK);
    // Names differ by more than case, by the capitals of other scripts too.
    const std::pair<std::wstring, HRESULT> opened[] = {
        {L"\u00E9T\u00C9", S_OK},
        {L"\u0416", S_OK},
        {L"none", STG_E_FILENOTFOUND},
        {L"", STG_E_INVALIDNAME},
        {std::wstring(31, L'n') + L"\U0001F600", STG_E_INVALIDNAME}};
    for (const auto& [name, result] : opened)
        EXPECT_EQ(openStream(storage.get(), name, stream), result);
    EXPECT_EQ(storage->CreateStream(L"Stream NR. 1000", kUpdate, 0, 0, stream.out()),
              STG_E_FILEALREADYEXISTS);
    for (const wchar_t* name : {L"a/b", L"a\\", L":", L"!"})
        EXPECT_EQ(makeStream(storage.get(), name, stream), STG_E_INVALIDNAME);
    storage.reset();

    const Bytes file = readFile("many.ole");
    Bytes directory; // a chain in the FAT that the header names
    for (uint32_t sector = word(file, 48); sector < 0xFFFFFFFA;
         sector = word(file, (word(file, 76 + sector / 128 * 4) + 1) * 512 + sector % 128 * 4))
        directory.insert(directory.end(), file.begin() + (sector + 1) * 512,
                         file.begin() + (sector + 2) * 512);
    EXPECT_LE(depthBelow(directory, word(directory, 76)), 19);
    Streams found;
    EXPECT_TRUE(readStreams("many.ole", found) && found.size() == names.size());
    EXPECT_EQ(faultsIn(file, KalVerifyCompoundFile), "");
}

// --- Limits, and who may do what -------------------------------------------------------------------------

TEST_F(Compound, AStreamEndsAtTwoGibibytes) {
    const HostCallGuard guard;
    hostCalls.fallocate = [](int fd, int, off_t offset, off_t count) {
        return ftruncate(fd, offset + count);
    };
    hostCalls.pwrite = [](int fd, const void* from, size_t count, off_t offset) { // zeros take no room
        const auto* bytes = static_cast<const char*>(from);
        const bool empty = *bytes == 0 && std::memcmp(bytes, bytes + 1, count - 1) == 0;
        return empty ? static_cast<ssize_t>(count) : pwrite(fd, from, count, offset);
    };
    Ref<IStorage> storage;
    Ref<IStream> stream;
    uint32_t count = 0;
    uint64_t position = 0;
    ASSERT_EQ(createFile("huge.ole", storage), S_OK);
    ASSERT_EQ(makeStream(storage.get(), L"huge", stream), S_OK);
    EXPECT_EQ(stream->SetSize(0x80000001), STG_E_MEDIUMFULL);
    ASSERT_EQ(stream->Seek(0x80000000 - 3, STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(stream->Write("12345", 5, &count), S_OK);
    EXPECT_EQ(count, 3u) << "no further than the version's limit";
    EXPECT_EQ(stream->Seek(-1, STREAM_SEEK_SET, nullptr), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(stream->Seek(INT64_MIN, STREAM_SEEK_CUR, nullptr), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(stream->Seek(0, 3, nullptr), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(stream->Seek(-1, STREAM_SEEK_END, &position), S_OK);
    EXPECT_EQ(position, 0x7FFFFFFF);
}

TEST_F(Compound, ReadersShareAndAWriterIsAlone) {
    const Streams model = {{L"s", randomBytes(6000, 1)}};
    writeStreams("shared.ole", model);
    const uint32_t read = STGM_READ | STGM_SHARE_DENY_WRITE;
    Ref<IStorage> first, second;
    Ref<IStream> stream, other;
    ASSERT_EQ(openFile("shared.ole", read, first), S_OK);
    EXPECT_EQ(openFile("shared.ole", read, second), S_OK);
    second.reset();
    EXPECT_EQ(openStream(first.get(), L"s", stream, kUpdate), STG_E_ACCESSDENIED);
    EXPECT_EQ(openStream(first.get(), L"s", stream, STGM_READ), S_OK);
    EXPECT_EQ(openStream(first.get(), L"s", other, STGM_READ), STG_E_ACCESSDENIED);
    EXPECT_EQ(makeStream(first.get(), L"new", other), STG_E_ACCESSDENIED);
    EXPECT_EQ(stream->Write("x", 1, nullptr), STG_E_ACCESSDENIED);
    EXPECT_EQ(stream->SetSize(1), STG_E_ACCESSDENIED);
    first.reset(); // the stream holds the file open
    EXPECT_EQ(openFile("shared.ole", kUpdate, second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(createFile("shared.ole", second), STG_E_SHAREVIOLATION);
    stream.reset();

    ASSERT_EQ(openFile("shared.ole", kUpdate, first), S_OK);
    EXPECT_EQ(openFile("shared.ole", read, second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(StgCreateDocfile(L"shared.ole", kUpdate, 0, second.out()), STG_E_FILEALREADYEXISTS);
    ASSERT_EQ(openStream(first.get(), L"s", stream, STGM_WRITE), S_OK);
    EXPECT_EQ(stream->Read(nullptr, 1, nullptr), STG_E_ACCESSDENIED);
    stream.reset();
    first.reset();
    Streams found;
    EXPECT_TRUE(readStreams("shared.ole", found) && found == model) << "nobody who was refused changed it";

    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    for (const auto& [name, result] :
         {std::pair("pipe", STG_E_ACCESSDENIED), {".", STG_E_ACCESSDENIED}, {"none", STG_E_FILENOTFOUND}})
        EXPECT_EQ(openFile(name, STGM_READ, first), result) << name;
    EXPECT_EQ(createFile("no/such/folder", first), STG_E_FILENOTFOUND);
}

TEST_F(Compound, NamesGoToTheHostAsTheLocaleHasThem) {
    const std::wstring longest(5000, L'x');
    const std::wstring longBytes = L"\u00e9" + longest;
    const struct {
        const char* locale;
        const wchar_t* name;
        const char* made; // null: refused
    } rows[] = {{"C", L"\u00e9", "\xE9"},          {"C", L"\u20ac", nullptr},
                {"C", longest.c_str(), nullptr},   {"C", nullptr, nullptr},
                {"C", longBytes.c_str(), nullptr}, {"C.UTF-8", L"\u00e9", "\xC3\xA9"},
                {"C.UTF-8", L"\xD800", nullptr}};
    for (const auto& [locale, name, made] : rows) {
        std::setlocale(LC_ALL, locale);
        Ref<IStorage> storage;
        const HRESULT wanted = made != nullptr ? S_OK : STG_E_INVALIDNAME;
        EXPECT_EQ(StgCreateDocfile(name, kUpdate | STGM_CREATE, 0, storage.out()), wanted)
            << &name - &rows[0].name;
        EXPECT_TRUE(made == nullptr || fileExists(made)) << made;
        storage.reset();
        EXPECT_EQ(StgOpenStorage(name, nullptr, STGM_READ, nullptr, 0, storage.out()), wanted);
    }
    std::setlocale(LC_ALL, "C");
}

} // namespace
