#include "memory/swap_file.h"
#include "tests/support/faults.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

using Piece = std::array<uint32_t, 3>; // id, size, offset
enum { kId, kSize, kOffset };

struct Swap {
    vfile* file = nullptr;
    Swap() { EXPECT_EQ(KalOpenTempVFile(&file), KAL_OK); }
    ~Swap() { EXPECT_EQ(KalCloseVFile(file), KAL_OK); }
    std::vector<Piece> pieces() const {
        std::vector<Piece> all;
        for (auto* node = file->items->first; node != nullptr; node = node->next) {
            const auto* item = reinterpret_cast<const vitem*>(node + 1);
            all.push_back({item->id, item->size, item->offset});
        }
        return all;
    }
    int32_t write(uint32_t id, const Bytes& bytes) {
        return KalWriteVFile(file, bytes.data(), uint32_t(bytes.size()), uint16_t(id));
    }
};

// What a swap file does, in the plainest words.
struct SwapModel {
    std::vector<Piece> pieces;
    std::map<uint32_t, Bytes> contents;

    void free(uint32_t id) {
        for (auto& piece : pieces)
            piece[kId] = piece[kId] == id ? 0 : piece[kId];
        contents.erase(id);
    }
    void write(uint32_t id, const Bytes& bytes) {
        const auto size = static_cast<uint32_t>(bytes.size());
        if (contents.contains(id) && contents[id].size() == size)
            return;
        free(id);
        contents[id] = bytes;
        const auto fit = std::find_if(pieces.begin(), pieces.end(),
                                      [=](const Piece& p) { return p[kId] == 0 && p[kSize] >= size; });
        if (fit == pieces.end())
            return pieces.push_back(
                {id, size, pieces.empty() ? 0 : pieces.back()[kOffset] + pieces.back()[kSize]});
        const Piece rest = {0, (*fit)[kSize] - size, (*fit)[kOffset] + size};
        *fit = {id, size, (*fit)[kOffset]};
        if (rest[kSize] > 0)
            pieces.insert(std::next(fit), rest);
    }
};

} // namespace

using SwapFileTest = FolderTest;

// The page's example is carried out, and what it says the file and its list then hold is compared.
TEST_F(SwapFileTest, TheFormatPagesExampleIsTrue) {
    std::ifstream page(KAL_SOURCE_DIR "/docs/formats/swap-file.md");
    Swap swap;
    std::vector<Piece> told;
    for (std::string line; std::getline(page, line);) {
        uint32_t id = 0, size = 0, offset = 0;
        char text[9];
        if (std::sscanf(line.c_str(), "write %u %8s", &id, text) == 2)
            EXPECT_EQ(swap.write(id, bytesOf(text)), int32_t(std::strlen(text)));
        else if (std::sscanf(line.c_str(), "free %u", &id) == 1)
            KalFindVItem(swap.file, uint16_t(id))->id = 0;
        else if (std::sscanf(line.c_str(), "extent %u %u %u", &id, &size, &offset) == 3)
            told.push_back({id, size, offset});
    }
    EXPECT_EQ(swap.pieces(), told);
    Bytes bytes(100);
    bytes.resize(size_t(::pread(int(swap.file->handle), bytes.data(), bytes.size(), 0)));
    EXPECT_EQ(bytes, hexExample("docs/formats/swap-file.md"));
}

// An extent that a caller frees is free for whoever writes next: found by its id it is even for the manager, who does not
// look at every extent, and found in the list for callers.
TEST_F(SwapFileTest, AgreesWithTheModelInRandomSequences) {
    for (uint32_t seed = firstSeed(), end = seed + 6; seed != end; seed++) {
        Swap swap;
        SwapModel model;
        std::mt19937 random(seed);
        for (uint32_t step = 0; step < 500; step++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            const auto id = static_cast<uint16_t>(random() % 60 + 1);
            vitem* item = seed % 2 == 0 ? KalFindVItem(swap.file, id) : findItem(swap.file, id);
            ASSERT_EQ(item != nullptr, model.contents.contains(id));
            if (random() % 3 == 0) {
                if (item != nullptr)
                    item->id = 0;
                model.free(id);
            } else if (random() % 2 == 0 && item != nullptr) {
                Bytes bytes(item->size);
                ASSERT_EQ(KalReadVFile(swap.file, item, bytes.data()), int32_t(bytes.size()));
                ASSERT_EQ(bytes, model.contents[id]);
            } else {
                const auto size = random() % 3 == 0 ? random() % 5 * 0x8000 : random() % 20000;
                const Bytes bytes = randomBytes(size, step);
                const bool isThere = item != nullptr && item->size == size;
                const auto write = seed % 2 == 0 && step > 150 ? writeItem : KalWriteVFile;
                const HostCallCounter host;
                ASSERT_EQ(write(swap.file, bytes.data(), uint32_t(size), id), int32_t(size));
                ASSERT_EQ(host.writes() == 0, isThere || size == 0) << "a valid copy is not written again";
                model.write(id, bytes);
            }
            ASSERT_EQ(swap.pieces(), model.pieces);
            if (random() % 8 == 0) {
                const auto lowest = std::find_if(model.pieces.begin(), model.pieces.end(),
                                                 [](const Piece& p) { return p[kId] == 0; });
                item = KalFindVItem(swap.file, 0);
                ASSERT_EQ(item == nullptr, lowest == model.pieces.end());
                ASSERT_TRUE(item == nullptr || item->offset == (*lowest)[kOffset]);
            }
        }
    }
}

TEST_F(SwapFileTest, IsPrivateNamelessAndWhereItIsToldToBe) {
    fs::create_directory("swap");
    writeFile("swap/ZEP0.TMP", bytesOf("taken"));
    for (const bool isNamed : {false, true}) {
        HostCallGuard guard;
        if (isNamed) // a file system that cannot make files without a name
            hostCalls.open = [](const char* path, int flags, mode_t mode) {
                errno = EOPNOTSUPP;
                return (flags & O_TMPFILE) == O_TMPFILE ? -1 : ::open(path, flags, mode);
            };
        isNamed ? KalSetVMemTemp(path("swap").c_str()) : void(::setenv("TMPDIR", path("swap").c_str(), 1));
        Swap swap;
        const int file = int(swap.file->handle);
        struct stat found;
        ASSERT_EQ(::fstat(file, &found), 0);
        EXPECT_EQ(found.st_mode & 0777, 0600u);
        EXPECT_EQ(found.st_nlink, 0u) << "has a name";
        const std::string link = fs::read_symlink("/proc/self/fd/" + std::to_string(file));
        EXPECT_EQ(link.rfind(path("swap"), 0), 0u) << link;
        EXPECT_NE(std::string(swap.file->nameBuf).find("swap\\ZEP"), std::string::npos);
        EXPECT_EQ(KalSizeSMem(swap.file->nameBuf), 772u);
        EXPECT_EQ(filesIn("swap"), std::vector<std::string>{"ZEP0.TMP"});
        EXPECT_NE(::fcntl(file, F_GETFD) & FD_CLOEXEC, 0);
        ::unsetenv("TMPDIR");
    }
    EXPECT_EQ(readFile("swap/ZEP0.TMP"), bytesOf("taken"));
}

TEST_F(SwapFileTest, ReportsWhatTheHostRefuses) {
    Swap swap;
    EXPECT_EQ(KalWriteVFile(swap.file, "x", 1, 0), 0) << "id 0 is nobody's";
    swap.write(3, Bytes(100, 3));
    vitem* item = KalFindVItem(swap.file, 3);
    Bytes bytes(100);
    HostCallGuard guard;
    hostCalls.read = [](int fd, void* to, size_t count) { return ::read(fd, to, count > 60 ? 60 : 0); };
    EXPECT_EQ(KalReadVFile(swap.file, item, bytes.data()), KAL_ERR_READ);
    hostCalls.write = [](int, const void*, size_t count) { return ssize_t(count); };
    EXPECT_EQ(KalWriteVFile(swap.file, bytes.data(), 0x80000000, 4), 0);
    for (const auto& [size, written] :
         {std::pair(0x7FFFFFFF, 0x7FFFFFFF), {0x7FFFFF00, 0x7FFFFF00}, {157, 0}, {156, 156}})
        EXPECT_EQ(KalWriteVFile(swap.file, bytes.data(), uint32_t(size), uint16_t(size)), written)
            << "up to 4 GiB";
    EXPECT_EQ(KalFindVItem(swap.file, 157), nullptr);
    hostCalls.lseek = [](int, off_t, int) { return off_t(-1); };
    EXPECT_EQ(KalReadVFile(swap.file, item, bytes.data()), KAL_ERR_SEEK);
    EXPECT_EQ(swap.write(3, Bytes(50)), 0);
    KalTempPath(path("missing").c_str());
    vfile* file = swap.file;
    EXPECT_EQ(KalOpenTempVFile(&file), KAL_ERR_OPEN - ENOENT);
    EXPECT_EQ(file, nullptr);
}
