#include "memory/swap_file.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/heap.h>
#include <kal/path.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Piece {
    uint32_t id, size, offset;
    bool operator==(const Piece&) const = default;
};

void PrintTo(const Piece& piece, std::ostream* out) {
    *out << piece.id << ": " << piece.size << " at " << piece.offset;
}

struct Swap {
    vfile* file = nullptr;
    Swap() { EXPECT_EQ(KalOpenTempVFile(&file), KAL_OK); }
    ~Swap() { EXPECT_EQ(KalCloseVFile(file), KAL_OK); }
    std::vector<vitem*> items() const {
        std::vector<vitem*> all;
        for (KalNodeHeader* header = file->items->first; header != nullptr; header = header->next)
            all.push_back(reinterpret_cast<vitem*>(header + 1));
        return all;
    }
    std::vector<Piece> pieces() const {
        std::vector<Piece> all;
        for (const vitem* item : items())
            all.push_back({item->id, item->size, item->offset});
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
            piece.id = piece.id == id ? 0 : piece.id;
        contents.erase(id);
    }
    void write(uint32_t id, const Bytes& bytes) {
        const auto size = static_cast<uint32_t>(bytes.size());
        if (contents.contains(id) && contents[id].size() == size)
            return;
        free(id);
        contents[id] = bytes;
        const auto fit = std::find_if(pieces.begin(), pieces.end(),
                                      [=](const Piece& p) { return p.id == 0 && p.size >= size; });
        if (fit == pieces.end())
            return pieces.push_back(
                {id, size, pieces.empty() ? 0 : pieces.back().offset + pieces.back().size});
        const Piece rest = {0, fit->size - size, fit->offset + size};
        *fit = {id, size, fit->offset};
        if (rest.size > 0)
            pieces.insert(std::next(fit), rest);
    }
};

} // namespace

class SwapFileTest : public FolderTest {};

// The page's example is carried out, and what it says the file and its list then hold is compared.
TEST_F(SwapFileTest, TheFormatPagesExampleIsTrue) {
    std::ifstream page(KAL_SOURCE_DIR "/docs/formats/swap-file.md");
    Swap swap;
    uint32_t dumped = 0, extents = 0;
    for (std::string line; std::getline(page, line);) {
        SCOPED_TRACE(line);
        std::istringstream words(line);
        std::string word, text;
        uint32_t id = 0, size = 0, offset = 0;
        words >> word;
        if (word == "write" && words >> id >> text) {
            EXPECT_EQ(swap.write(id, bytesOf(text)), int32_t(text.size()));
        } else if (word == "free" && words >> id) {
            KalFindVItem(swap.file, uint16_t(id))->id = 0;
        } else if (word == "extent" && words >> id >> size >> offset) {
            EXPECT_EQ(swap.pieces()[extents++], (Piece{id, size, offset}));
        } else if (word.size() == 6 && word[0] == '0' && word[5] == ':') {
            EXPECT_EQ(std::stoul(word, nullptr, 16), dumped);
            for (uint8_t byte = 0; words >> word; dumped++) {
                EXPECT_EQ(::pread(int(swap.file->handle), &byte, 1, dumped), 1);
                EXPECT_EQ(byte, std::stoul(word, nullptr, 16)) << "byte " << dumped;
            }
        }
    }
    EXPECT_EQ(extents, swap.items().size());
    EXPECT_EQ(dumped, uint32_t(::lseek(int(swap.file->handle), 0, SEEK_END)))
        << "the dump shows the whole file";
}

// An extent that a caller frees is free for whoever writes next: found by its id it is even for the manager, who does not
// look at every extent, and found in the list for callers.
TEST_F(SwapFileTest, AgreesWithTheModelInRandomSequences) {
    HeapBalance balance;
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
                const HostCallCounter host;
                ASSERT_EQ((seed % 2 == 0 && step > 150 ? writeItem : KalWriteVFile)(swap.file, bytes.data(),
                                                                                    uint32_t(size), id),
                          int32_t(size));
                ASSERT_EQ(host.writes() == 0, isThere || size == 0) << "a valid copy is not written again";
                model.write(id, bytes);
            }
            ASSERT_EQ(swap.pieces(), model.pieces);
            const auto lowest = std::find_if(model.pieces.begin(), model.pieces.end(),
                                             [](const Piece& p) { return p.id == 0; });
            if (random() % 8 == 0) {
                item = KalFindVItem(swap.file, 0);
                ASSERT_EQ(item != nullptr ? item->offset + 1 : 0,
                          lowest != model.pieces.end() ? lowest->offset + 1 : 0);
            }
        }
    }
}

// The manager finds an extent freed in the list too, if not at once.
TEST_F(SwapFileTest, AnExtentFreedInTheListIsNotLost) {
    Swap swap;
    const Bytes bytes(30000);
    for (uint32_t id = 1; id <= 40; id++)
        swap.write(id, bytes);
    swap.items()[25]->id = 0;
    for (uint16_t id = 101; id <= 160; id++)
        writeItem(swap.file, bytes.data(), 30000, id);
    EXPECT_EQ(swap.items().size(), 99u);
    EXPECT_GT(val(swap.items()[25]->id), 100);
    EXPECT_GT(extentListBytes(swap.file), 99u * sizeof(vitem));
}

TEST_F(SwapFileTest, IsPrivateNamelessAndWhereItIsToldToBe) {
    HeapBalance balance;
    ASSERT_EQ(::mkdir("swap", 0700), 0);
    writeFile("swap/ZEP0.TMP", bytesOf("taken"));
    for (const bool isNamed : {false, true}) {
        HostCallGuard guard;
        if (isNamed) // a file system that cannot make files without a name
            hostCalls.open = [](const char* path, int flags, mode_t mode) {
                errno = EOPNOTSUPP;
                return (flags & O_TMPFILE) == O_TMPFILE ? -1 : ::open(path, flags, mode);
            };
        for (const bool isSet : {false, true}) {
            isSet ? void(KalTempPath(path("swap").c_str()))
                  : void(::setenv("TMPDIR", path("swap").c_str(), 1));
            Swap swap;
            const int file = int(swap.file->handle);
            struct stat found;
            ASSERT_EQ(::fstat(file, &found), 0);
            EXPECT_EQ(found.st_mode & 0777, 0600u);
            EXPECT_EQ(found.st_nlink, 0u) << "has a name";
            char link[512] = {};
            ASSERT_GT(::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), link, sizeof link - 1),
                      0);
            EXPECT_EQ(std::string(link).rfind(path("swap"), 0), 0u) << link;
            EXPECT_NE(std::string(swap.file->nameBuf).find("swap\\ZEP"), std::string::npos);
            EXPECT_EQ(KalSizeSMem(swap.file->nameBuf), 772u);
            EXPECT_EQ(filesIn("swap"), std::vector<std::string>{"ZEP0.TMP"});
            EXPECT_NE(::fcntl(file, F_GETFD) & FD_CLOEXEC, 0);
            ::unsetenv("TMPDIR");
            KalTempPath(nullptr);
        }
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
    KalTempPath(nullptr);
    EXPECT_EQ(withEachAllocationFailing([](int) {
                  vfile* fresh = nullptr;
                  const int16_t status = KalOpenTempVFile(&fresh);
                  EXPECT_EQ(status, heapFaultHappened() ? KAL_ERR_MEMORY : KAL_OK);
                  EXPECT_EQ(fresh == nullptr, heapFaultHappened());
                  KalCloseVFile(fresh);
              }),
              3);
}
