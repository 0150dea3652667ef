// Compound files as other programs and we see them.
#include "tests/support/faults.h"
#include "tests/support/storage.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <sys/stat.h>

namespace {

class Compound : public FolderTest {
protected:
    Compound() : FolderTest(kInMemory) {}
};

uint32_t word(const Bytes& file, size_t at) {
    return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | uint32_t(file[at + 3]) << 24;
}

// A compound file beside a map of paths to bytes, both changed at random.
class Model {
public:
    Model(const std::string& path, uint32_t seed, size_t most) : path_(path), random_(seed), most_(most) {
        EXPECT_TRUE(readStreams(path_, model_)) << path;
    }

    // Opens the file, works on three streams side by side, so that their chains interleave, and closes it.
    void session() {
        const HeapBalance balance;
        Ref<IStorage> storage[3];
        Ref<IStream> stream[3];
        // A file that was written has no damage.
        ASSERT_EQ(openFile(path_, kUpdate, storage[0]), S_OK);
        ASSERT_EQ(enter(storage[0], L"folder", storage[1]), S_OK);
        ASSERT_EQ(enter(storage[1], L"inner", storage[2]), S_OK);
        const std::wstring prefixes[] = {L"", L"folder/", L"folder/inner/"};
        std::wstring path[3];
        for (size_t i = 0; i < 3; i++) {
            const std::wstring name = L"s" + std::to_wstring(random_() % 7);
            path[i] = prefixes[i] + name;
            if (model_.count(path[i]) == 0 || random_() % 4 == 0) {
                model_[path[i]].clear();
                ASSERT_EQ(makeStream(storage[i].get(), name, stream[i]), S_OK);
            } else {
                ASSERT_EQ(openStream(storage[i].get(), name, stream[i]), S_OK);
            }
            ASSERT_EQ(storage[i]->DestroyElement(name.c_str()), STG_E_ACCESSDENIED) << "it is open";
            const std::wstring other = L"S" + std::to_wstring(random_() % 7);
            if (other.back() != name.back()) {
                const bool there = model_.erase(prefixes[i] + L"s" + other.back()) != 0;
                ASSERT_EQ(storage[i]->DestroyElement(other.c_str()), there ? S_OK : STG_E_FILENOTFOUND);
            }
        }
        for (int step = 0; step < 20; step++) {
            const size_t i = random_() % 3;
            ASSERT_NO_FATAL_FAILURE(change(stream[i].get(), model_[path[i]]));
            if (random_() % 20 == 0) {
                ASSERT_EQ(storage[0]->Commit(0), S_OK);
            }
        }
    }

    void expectSame() const {
        Streams found;
        ASSERT_TRUE(readStreams(path_, found));
        ASSERT_TRUE(found == model_);
    }
    const Streams& streams() const { return model_; }

private:
    static HRESULT enter(Ref<IStorage>& above, const wchar_t* name, Ref<IStorage>& storage) {
        const HRESULT result = above->OpenStorage(name, nullptr, kUpdate, nullptr, 0, storage.out());
        return result == STG_E_FILENOTFOUND ? above->CreateStorage(name, kUpdate, 0, 0, storage.out())
                                            : result;
    }
    size_t nearALimit() {
        const size_t limits[] = {0, 64, 512, 4096, 4096, 8192, most_};
        return limits[random_() % std::size(limits)] + random_() % 130;
    }
    // Cuts or lengthens the stream, writes somewhere, also past its end, or reads somewhere.
    void change(IStream* stream, Bytes& bytes) {
        const size_t at = random_() % 3 == 0 ? bytes.size() : nearALimit();
        Bytes put = randomBytes(random_() % 3 == 0 ? nearALimit() : random_() % 200,
                                static_cast<uint32_t>(random_()));
        const auto size = static_cast<uint32_t>(put.size());
        uint32_t count = 0;
        const auto what = random_() % 4;
        if (what == 0) {
            ASSERT_EQ(stream->SetSize(at), S_OK);
            bytes.resize(at);
            return;
        }
        ASSERT_EQ(stream->Seek(static_cast<int64_t>(at), STREAM_SEEK_SET, nullptr), S_OK);
        if (what == 1) {
            ASSERT_EQ(stream->Read(put.data(), size, &count), S_OK);
            ASSERT_EQ(count, std::min(put.size(), bytes.size() - std::min(at, bytes.size())));
            ASSERT_TRUE(count == 0 || std::equal(put.begin(), put.begin() + count, bytes.begin() + at));
            return;
        }
        ASSERT_EQ(stream->Write(put.data(), size, &count), S_OK);
        ASSERT_EQ(count, size);
        if (size > 0)
            bytes.resize(std::max(bytes.size(), at + size));
        std::copy(put.begin(), put.end(), bytes.begin() + (size > 0 ? static_cast<ptrdiff_t>(at) : 0));
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
    for (uint32_t seed = 1; seed <= 3; seed++) {
        names.push_back("seed " + std::to_string(seed));
        writeStreams(names.back(), {});
    }
    int readers = 0;
    for (const std::string& name : names) {
        // The last file grows until its table of sectors has tables of its own.
        Model model(name, static_cast<uint32_t>(name.back()), name == names.back() ? 3 << 20 : 70000);
        EXPECT_TRUE(name != "made.ole" || model.streams() == made);
        if (name.find(' ') == name.npos)
            expectOthersRead(name, model.streams());
        for (int session = 0; session < 16; session++) {
            SCOPED_TRACE(::testing::Message() << name << ", session " << session);
            model.session();
            model.expectSame();
            ASSERT_FALSE(HasFailure());
        }
        readers = expectOthersRead(name, model.streams());
        EXPECT_FALSE(HasFailure()) << name;
    }
    EXPECT_GT(std::filesystem::file_size(names.back()), 15500000u);
    if (readers < 2)
        GTEST_SKIP() << "needs olefile and gsf";
}

// --- The directory -------------------------------------------------------------------------------------

// Walks the tree below an entry of a directory: its names are in the format's order (`before` is the one before), no
// red entry is below a red one, and each way down has as many black ones. Gives that number.
int blackOnTheWay(const Bytes& directory, uint32_t index, bool belowRed, std::u16string& before,
                  size_t& met) {
    if (index == 0xFFFFFFFF)
        return 0;
    const size_t at = index * size_t(128);
    EXPECT_LT(at, directory.size());
    const bool black = directory[at + 67] == 1;
    EXPECT_TRUE(black || !belowRed);
    const int left = blackOnTheWay(directory, word(directory, at + 68), !black, before, met);
    std::u16string name;
    for (size_t unit = 0; unit + 2 < size_t(directory[at + 64]);
         unit += 2) // the names differ by capitals alone
        name += static_cast<char16_t>(std::toupper(directory[at + unit]) | directory[at + unit + 1] << 8);
    EXPECT_LT(std::pair(before.size(), before), std::pair(name.size(), name));
    before = name;
    met++;
    EXPECT_EQ(left, blackOnTheWay(directory, word(directory, at + 72), !black, before, met));
    return left + (black ? 1 : 0);
}

TEST_F(Compound, TheDirectoryIsARedBlackTreeInTheFormatsOrder) {
    std::vector<std::wstring> names = {L"\u00C9t\u00E9", L"\u0436", L"\U0001F600", std::wstring(31, L'n')};
    for (int i = 0; i < 700; i++)
        names.push_back((i % 2 != 0 ? L"stream " : L"STREAM Nr. ") + std::to_wstring(i));
    std::shuffle(names.begin(), names.end(), std::mt19937(3));
    Ref<IStorage> storage, same;
    Ref<IStream> stream;
    ASSERT_EQ(createFile("many.ole", storage), S_OK);
    for (const std::wstring& name : names)
        ASSERT_EQ(makeStream(storage.get(), name, stream), S_OK);
    // Names differ by more than case, by the capitals of other scripts too.
    EXPECT_EQ(storage->CreateStream(L"Stream NR. 0", kUpdate, 0, 0, stream.out()), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(storage->CreateStorage(L"stream 1", kUpdate, 0, 0, same.out()), STG_E_FILEALREADYEXISTS);
    for (const auto& [name, result] : {std::pair(std::wstring(L"\u00E9T\u00C9"), S_OK),
                                       {L"\u0416", S_OK},
                                       {L"stream 2000", STG_E_FILENOTFOUND},
                                       {L"", STG_E_INVALIDNAME},
                                       {std::wstring(32, L'n'), STG_E_INVALIDNAME}})
        EXPECT_EQ(openStream(storage.get(), name, stream), result);
    for (const wchar_t* name : {L"a/b", L"a\\", L":", L"!"})
        EXPECT_EQ(makeStream(storage.get(), name, stream), STG_E_INVALIDNAME);
    stream.reset();
    storage.reset();

    const Bytes file = readFile("many.ole");
    Bytes directory; // a chain in the FAT that the header names
    for (uint32_t sector = word(file, 48); sector < 0xFFFFFFFA;
         sector = word(file, (word(file, 76 + sector / 128 * 4) + 1) * 512 + sector % 128 * 4))
        directory.insert(directory.end(), file.begin() + (sector + 1) * 512,
                         file.begin() + (sector + 2) * 512);
    std::u16string before;
    size_t met = 0;
    blackOnTheWay(directory, word(directory, 76), true, before, met);
    EXPECT_EQ(met, names.size());
    Streams found;
    EXPECT_TRUE(readStreams("many.ole", found));
    for (const std::wstring& name : names)
        EXPECT_EQ(found.count(name), 1u);
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
    ASSERT_EQ(createFile("huge.ole", storage), S_OK);
    ASSERT_EQ(makeStream(storage.get(), L"huge", stream), S_OK);
    uint32_t count = 0;
    EXPECT_EQ(stream->SetSize(0x80000001), STG_E_MEDIUMFULL);
    ASSERT_EQ(stream->Seek(0x80000000 - 3, STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(stream->Write("12345", 5, &count), S_OK);
    EXPECT_EQ(count, 3u) << "no further than the version's limit";
    stream.reset();
    storage.reset();
    ASSERT_EQ(openFile("huge.ole", kUpdate, storage), S_OK);
    ASSERT_EQ(openStream(storage.get(), L"huge", stream), S_OK);
    char text[8] = {};
    ASSERT_EQ(stream->Seek(-4, STREAM_SEEK_END, nullptr), S_OK);
    ASSERT_EQ(stream->Read(text, 8, &count), S_OK);
    EXPECT_EQ(std::string(text, count), std::string("\000123", 4));
    uint64_t position = 0;
    for (const auto& [offset, origin] :
         {std::pair(int64_t(-1), STREAM_SEEK_SET), {0, 3u}, {INT64_MIN, STREAM_SEEK_CUR}})
        EXPECT_EQ(stream->Seek(offset, origin, nullptr), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(stream->Seek(0, STREAM_SEEK_CUR, &position), S_OK);
    EXPECT_EQ(position, 0x80000000);
}

TEST_F(Compound, ReadersShareAndAWriterIsAlone) {
    const Streams model = {{L"s", randomBytes(6000, 1)}};
    writeStreams("shared.ole", model);
    const uint32_t read = STGM_READ | STGM_SHARE_DENY_WRITE;
    Ref<IStorage> first, second;
    Ref<IStream> stream, sameStream;
    ASSERT_EQ(openFile("shared.ole", read, first), S_OK);
    EXPECT_EQ(openFile("shared.ole", read, second), S_OK);
    second.reset();
    EXPECT_EQ(openFile("shared.ole", kUpdate, second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(createFile("shared.ole", second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(openStream(first.get(), L"s", stream, kUpdate), STG_E_ACCESSDENIED);
    EXPECT_EQ(openStream(first.get(), L"s", stream, STGM_READ), S_OK);
    EXPECT_EQ(openStream(first.get(), L"s", sameStream, STGM_READ), STG_E_ACCESSDENIED);
    EXPECT_EQ(makeStream(first.get(), L"new", sameStream), STG_E_ACCESSDENIED);
    EXPECT_EQ(stream->Write("x", 1, nullptr), STG_E_ACCESSDENIED);
    EXPECT_EQ(stream->SetSize(1), STG_E_ACCESSDENIED);
    first.reset(); // the stream holds the file open
    EXPECT_EQ(openFile("shared.ole", kUpdate, first), STG_E_SHAREVIOLATION);
    stream.reset();

    ASSERT_EQ(openFile("shared.ole", kUpdate, first), S_OK);
    EXPECT_EQ(openFile("shared.ole", read, second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(createFile("shared.ole", second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(StgCreateDocfile(L"shared.ole", kUpdate, 0, second.out()), STG_E_FILEALREADYEXISTS);
    ASSERT_EQ(openStream(first.get(), L"s", stream, STGM_WRITE), S_OK);
    EXPECT_EQ(stream->Read(nullptr, 1, nullptr), STG_E_ACCESSDENIED);
    stream.reset();
    first.reset();
    Streams found;
    EXPECT_TRUE(readStreams("shared.ole", found) && found == model) << "nobody who was refused changed it";

    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    writeFile("short", bytesOf("short"));
    for (const auto& [name, result] : {std::pair("pipe", STG_E_ACCESSDENIED),
                                       {".", STG_E_ACCESSDENIED},
                                       {"short", STG_E_DOCFILECORRUPT},
                                       {"none", STG_E_FILENOTFOUND}})
        EXPECT_EQ(openFile(name, STGM_READ, first), result) << name;
    EXPECT_EQ(createFile("no/such/folder", first), STG_E_FILENOTFOUND);
}

} // namespace
