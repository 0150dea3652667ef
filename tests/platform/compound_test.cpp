// Compound files as other programs and we see them.
#include "tests/support/faults.h"
#include "tests/support/storage.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>

namespace {

class Compound : public FolderTest {};

uint32_t word(const Bytes& file, size_t at) {
    return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | uint32_t(file[at + 3]) << 24;
}

// Sizes on both sides of every limit of the format: mini sector, sector, mini stream, header's DIFAT.
Streams streamsOfAllSizes() {
    Streams streams;
    for (const size_t size : {0, 1, 63, 64, 65, 511, 512, 513, 4095, 4096, 4097, 100000, 20 << 20})
        streams[L"Stream " + std::to_wstring(size)] = randomBytes(size, static_cast<uint32_t>(size));
    return streams;
}

std::vector<std::wstring> namesOf(const Streams& streams) {
    std::vector<std::wstring> names;
    for (const auto& [name, bytes] : streams)
        names.push_back(name);
    return names;
}

TEST_F(Compound, OtherProgramsReadWhatIsWritten) {
    const Streams written = streamsOfAllSizes();
    writeStreams("ours.ole", written);
    Streams ours, olefile, gsf;
    EXPECT_TRUE(readStreams("ours.ole", ours));
    EXPECT_TRUE(ours == written);
    const bool hasOlefile = readByOlefile("ours.ole", olefile);
    const bool hasGsf = readByGsf("ours.ole", namesOf(written), gsf);
    EXPECT_TRUE(!hasOlefile || olefile == written);
    EXPECT_TRUE(!hasGsf || gsf == written);
    if (!hasOlefile || !hasGsf)
        GTEST_SKIP() << "needs olefile and gsf";
}

TEST_F(Compound, FilesOfOtherProgramsAreRead) {
    Streams expected, found;
    std::string files;
    std::filesystem::create_directories("made/inner/deep");
    for (const size_t size : {0, 1, 63, 64, 65, 4095, 4096, 4097, 100000, 9 << 20}) {
        const std::string name = "inner/f" + std::to_string(size);
        expected[wide(name)] = randomBytes(size, static_cast<uint32_t>(size) + 1);
        writeFile("made/" + name, expected[wide(name)]);
    }
    expected[L"inner/deep/x"] = bytesOf("deep");
    writeFile("made/inner/deep/x", expected[L"inner/deep/x"]);
    if (std::system("gsf createole made.ole made/inner > gsf.txt 2>&1") != 0)
        GTEST_SKIP() << "needs gsf";
    EXPECT_TRUE(readStreams("made.ole", found));
    EXPECT_TRUE(found == expected);

    for (const char* name : {"letter.doc", "table.xls"}) {
        const std::string path = std::string(KAL_SOURCE_DIR "/tests/data/compound/") + name;
        Streams ours, olefile;
        EXPECT_TRUE(readStreams(path, ours)) << name;
        EXPECT_GT(ours.size(), 4u);
        EXPECT_EQ(ours.count(L"\x05SummaryInformation"), 1u);
        if (readByOlefile(path, olefile)) {
            EXPECT_TRUE(ours == olefile) << name;
        }
    }
}

TEST_F(Compound, FilesOfOtherProgramsAreWrittenInPlace) {
    for (const char* name : {"letter.doc", "table.xls"}) {
        Streams model, ours, olefile;
        writeFile(name, readFile(KAL_SOURCE_DIR "/tests/data/compound/" + std::string(name)));
        ASSERT_TRUE(readStreams(name, model));
        {
            Ref<IStorage> storage;
            Ref<IStream> stream;
            ASSERT_EQ(openFile(name, kUpdate, storage), S_OK);
            ASSERT_EQ(openStream(storage.get(), L"\x01\x43ompObj", stream), S_OK);
            // Grown past the mini stream.
            writeAll(stream.get(), model[L"\x01\x43ompObj"] = randomBytes(50000, 5), 777);
            ASSERT_EQ(makeStream(storage.get(), L"added", stream), S_OK);
            writeAll(stream.get(), model[L"added"] = randomBytes(3000, 6));
        }
        EXPECT_TRUE(readStreams(name, ours) && ours == model) << name;
        EXPECT_TRUE(!readByOlefile(name, olefile) || olefile == model) << name;
    }
}

// A compound file beside a map of paths to bytes, both changed at random.
class Model {
public:
    explicit Model(uint32_t seed) : random_(seed) {
        Ref<IStorage> root, folder, inner;
        EXPECT_EQ(createFile("model.ole", root), S_OK);
        EXPECT_EQ(root->CreateStorage(L"folder", kUpdate, 0, 0, folder.out()), S_OK);
        EXPECT_EQ(folder->CreateStorage(L"inner", kUpdate, 0, 0, inner.out()), S_OK);
        EXPECT_EQ(root->CreateStream(L"folder", kUpdate | STGM_CREATE, 0, 0, stream_[0].out()),
                  STG_E_FILEALREADYEXISTS);
    }

    // Opens the file, works on three streams side by side, so that their chains interleave, and closes it.
    void session() {
        const HeapBalance balance;
        Ref<IStorage> storage[3];
        // A file that was written has no damage.
        ASSERT_EQ(openFile("model.ole", kUpdate, storage[0]), S_OK);
        ASSERT_EQ(storage[0]->OpenStorage(L"folder", nullptr, 0, nullptr, 0, storage[1].out()), S_OK);
        ASSERT_EQ(storage[1]->OpenStorage(L"inner", nullptr, 0, nullptr, 0, storage[2].out()), S_OK);
        const std::wstring prefixes[] = {L"", L"folder/", L"folder/inner/"};
        std::wstring path[3];
        for (size_t i = 0; i < 3; i++) {
            const std::wstring name = L"s" + std::to_wstring(random_() % 7);
            path[i] = prefixes[i] + name;
            const bool fresh = model_.count(path[i]) == 0 || random_() % 4 == 0;
            if (fresh)
                model_[path[i]].clear();
            ASSERT_EQ((fresh ? makeStream : openInStorage)(storage[i].get(), name, stream_[i]), S_OK);
            EXPECT_EQ(storage[i]->DestroyElement(name.c_str()), STG_E_ACCESSDENIED) << "it is open";
            const std::wstring other = L"s" + std::to_wstring(random_() % 7);
            if (other != name) {
                const bool there = model_.erase(prefixes[i] + other) != 0;
                ASSERT_EQ(storage[i]->DestroyElement(other.c_str()), there ? S_OK : STG_E_FILENOTFOUND);
            }
        }
        for (int step = 0; step < 20; step++) {
            const size_t i = random_() % 3;
            ASSERT_NO_FATAL_FAILURE(change(stream_[i].get(), model_[path[i]]));
            if (random_() % 20 == 0) {
                ASSERT_EQ(storage[0]->Commit(0), S_OK);
            }
        }
        for (size_t i = 0; i < 3; i++) {
            ASSERT_TRUE(readAll(stream_[i].get()) == model_[path[i]]);
            stream_[i].reset();
        }
    }

    void expectSame() const {
        Streams found;
        ASSERT_TRUE(readStreams("model.ole", found));
        ASSERT_TRUE(found == model_);
        ASSERT_EQ(readFile("model.ole").size() % 512, 0u);
    }
    const Streams& streams() const { return model_; }

private:
    static HRESULT openInStorage(IStorage* storage, const std::wstring& name, Ref<IStream>& stream) {
        return openStream(storage, name, stream);
    }
    size_t nearALimit() {
        const size_t limits[] = {0, 64, 512, 4096, 4096, 8192, 70000};
        return limits[random_() % std::size(limits)] + random_() % 130;
    }
    void change(IStream* stream, Bytes& bytes) {
        if (random_() % 4 == 0) {
            const size_t size = nearALimit();
            ASSERT_EQ(stream->SetSize(size), S_OK);
            bytes.resize(size);
            return;
        }
        const size_t at = random_() % 3 == 0 ? bytes.size() : nearALimit();
        const Bytes put = randomBytes(random_() % 3 == 0 ? nearALimit() : random_() % 200,
                                      static_cast<uint32_t>(random_()));
        uint32_t written = 0;
        ASSERT_EQ(stream->Seek(static_cast<int64_t>(at), STREAM_SEEK_SET, nullptr), S_OK);
        ASSERT_EQ(stream->Write(put.data(), static_cast<uint32_t>(put.size()), &written), S_OK);
        ASSERT_EQ(written, put.size());
        if (!put.empty())
            bytes.resize(std::max(bytes.size(), at + put.size()));
        std::copy(put.begin(), put.end(), bytes.begin() + static_cast<ptrdiff_t>(put.empty() ? 0 : at));
    }

    std::mt19937 random_;
    Streams model_;
    Ref<IStream> stream_[3];
};

TEST_F(Compound, RandomChangesAgreeWithAModel) {
    for (uint32_t seed = firstSeed(), end = seed + 4; seed != end; seed++) {
        Model model(seed);
        for (int session = 0; session < 25 && !HasFailure(); session++) {
            SCOPED_TRACE(::testing::Message() << "seed " << seed << ", session " << session);
            model.session();
            model.expectSame();
        }
        Streams olefile;
        EXPECT_TRUE(!readByOlefile("model.ole", olefile) || olefile == model.streams()) << "seed " << seed;
    }
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
    std::mt19937 random(3);
    std::vector<std::wstring> names = {L"\u00C9t\u00E9", L"\u0436", L"\U0001F600", std::wstring(31, L'n')};
    for (int i = 0; i < 700; i++)
        names.push_back((i % 2 != 0 ? L"stream " : L"STREAM Nr. ") + std::to_wstring(i));
    std::shuffle(names.begin(), names.end(), random);
    Ref<IStorage> storage;
    Ref<IStream> stream;
    ASSERT_EQ(createFile("many.ole", storage), S_OK);
    for (const std::wstring& name : names)
        ASSERT_EQ(makeStream(storage.get(), name, stream), S_OK);
    // Names differ by more than case, by the capitals of other scripts too.
    EXPECT_EQ(storage->CreateStream(L"Stream NR. 0", kUpdate, 0, 0, stream.out()), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(openStream(storage.get(), L"\u00E9T\u00C9", stream), S_OK);
    EXPECT_EQ(openStream(storage.get(), L"\u0416", stream), S_OK);
    EXPECT_EQ(openStream(storage.get(), L"stream 2000", stream), STG_E_FILENOTFOUND);
    for (const std::wstring& bad :
         {std::wstring(), std::wstring(32, L'n'), std::wstring(L"a/b"), std::wstring(L"!")})
        EXPECT_EQ(makeStream(storage.get(), bad, stream), STG_E_INVALIDNAME);
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
    EXPECT_EQ(found.size(), names.size());
}

// --- Large files and large sectors ---------------------------------------------------------------------

TEST_F(Compound, FilesOfLargeSectorsAreReadAndWritten) {
    // Header, FAT, directory, a stream of two sectors that lie apart; no small streams yet.
    Bytes file(6 * 4096);
    const auto put = [&file](size_t at, std::initializer_list<uint32_t> values) {
        for (const uint32_t value : values)
            for (int shift = 0; shift < 32; shift += 8)
                file[at++] = static_cast<uint8_t>(value >> shift);
    };
    put(0, {0xE011CFD0, 0xE11AB1A1});
    put(24, {0x0004003E, 0x000CFFFE, 6});
    put(40, {1, 1, 1, 0, 4096, 0xFFFFFFFE, 0, 0xFFFFFFFE, 0, 0});
    std::fill(file.begin() + 80, file.begin() + 512, uint8_t(0xFF));
    std::fill(file.begin() + 4096, file.begin() + 2 * 4096, uint8_t(0xFF));
    put(4096, {0xFFFFFFFD, 0xFFFFFFFE, 4, 0xFFFFFFFF, 0xFFFFFFFE});
    const auto entry = [&](size_t index, const std::string& name, uint32_t type, uint32_t child,
                           uint32_t first, uint32_t size) {
        const size_t at = 2 * 4096 + index * 128;
        for (size_t i = 0; i < name.size(); i++)
            file[at + i * 2] = static_cast<uint8_t>(name[i]);
        put(at + 64, {static_cast<uint32_t>(name.size() * 2 + 2) | type << 16 | 1u << 24, 0xFFFFFFFF,
                      0xFFFFFFFF, child});
        put(at + 116, {first, size});
    };
    entry(0, "Root Entry", 5, 1, 0xFFFFFFFE, 0);
    entry(1, "big", 2, 0xFFFFFFFF, 2, 8192);
    Streams model;
    model[L"big"] = randomBytes(8192, 4);
    std::copy(model[L"big"].begin(), model[L"big"].begin() + 4096, file.begin() + 3 * 4096);
    std::copy(model[L"big"].begin() + 4096, model[L"big"].end(), file.begin() + 5 * 4096);
    writeFile("large.ole", file);
    Streams found, olefile;
    EXPECT_TRUE(readStreams("large.ole", found));
    ASSERT_TRUE(found == model);
    {
        Ref<IStorage> storage;
        Ref<IStream> stream;
        ASSERT_EQ(openFile("large.ole", kUpdate, storage), S_OK);
        for (int i = 0; i < 50; i++) {
            const std::wstring name = L"s" + std::to_wstring(i);
            ASSERT_EQ(makeStream(storage.get(), name, stream), S_OK);
            writeAll(stream.get(), model[name] = randomBytes(size_t(i) * 200, uint32_t(i)));
        }
    }
    EXPECT_TRUE(readStreams("large.ole", found));
    EXPECT_TRUE(found == model);
    if (readByOlefile("large.ole", olefile)) {
        EXPECT_TRUE(olefile == model);
    }
}

TEST_F(Compound, AStreamReachesTwoGibibytes) {
    if (std::getenv("KAL_TEST_LARGE") == nullptr)
        GTEST_SKIP() << "takes 2 GiB of disk; set KAL_TEST_LARGE";
    constexpr int64_t kLimit = 0x80000000;
    Ref<IStorage> storage;
    Ref<IStream> stream;
    ASSERT_EQ(createFile("huge.ole", storage), S_OK);
    ASSERT_EQ(makeStream(storage.get(), L"huge", stream), S_OK);
    uint32_t count = 0;
    ASSERT_EQ(stream->Seek(kLimit - 3, STREAM_SEEK_SET, nullptr), S_OK);
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
}

// --- Sharing ---------------------------------------------------------------------------------------------

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
    EXPECT_EQ(openStream(first.get(), L"s", stream, STGM_READ), S_OK);
    EXPECT_EQ(openStream(first.get(), L"s", sameStream, STGM_READ), STG_E_ACCESSDENIED);
    EXPECT_EQ(makeStream(first.get(), L"new", sameStream), STG_E_ACCESSDENIED);
    EXPECT_EQ(stream->Write("x", 1, nullptr), STG_E_ACCESSDENIED);
    stream.reset();
    first.reset();

    ASSERT_EQ(openFile("shared.ole", kUpdate, first), S_OK);
    EXPECT_EQ(openFile("shared.ole", read, second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(createFile("shared.ole", second), STG_E_SHAREVIOLATION);
    EXPECT_EQ(StgCreateDocfile(L"shared.ole", kUpdate, 0, second.out()), STG_E_FILEALREADYEXISTS);
    first.reset();
    Streams found;
    EXPECT_TRUE(readStreams("shared.ole", found));
    EXPECT_TRUE(found == model) << "nobody who was refused changed it";
}

} // namespace
