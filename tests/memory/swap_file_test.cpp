#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/heap.h>
#include <kal/memory.h>
#include <kal/path.h>
#include <kal/vmem.h>

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
    uint16_t id;
    uint32_t size;
    uint32_t offset;
    bool operator==(const Piece&) const = default;
};

void PrintTo(const Piece& piece, std::ostream* out) {
    *out << piece.id << ": " << piece.size << " at " << piece.offset;
}

std::vector<Piece> extentsOf(const vfile* file) {
    std::vector<Piece> pieces;
    for (KalNodeHeader* h = file->items->first; h != nullptr; h = h->next) {
        auto* item = reinterpret_cast<vitem*>(h + 1);
        pieces.push_back({item->id, item->size, item->offset});
    }
    return pieces;
}

// What a swap file does, in the plainest words.
struct SwapModel {
    std::vector<Piece> pieces;
    std::map<uint16_t, Bytes> contents;

    void free(uint16_t id) {
        for (auto& piece : pieces)
            if (piece.id == id)
                piece.id = 0;
        contents.erase(id);
    }
    uint32_t lowestFree() const {
        for (const auto& piece : pieces)
            if (piece.id == 0)
                return piece.offset;
        return 0;
    }
    // Whether the bytes are written.
    bool write(uint16_t id, const Bytes& bytes) {
        const auto size = static_cast<uint32_t>(bytes.size());
        if (contents.contains(id) && contents[id].size() == size)
            return false;
        free(id);
        contents[id] = bytes;
        for (size_t i = 0; i < pieces.size(); i++) {
            if (pieces[i].id != 0 || pieces[i].size < size)
                continue;
            const Piece found = pieces[i];
            pieces[i] = {id, size, found.offset};
            if (found.size > size)
                pieces.insert(pieces.begin() + long(i) + 1, {0, found.size - size, found.offset + size});
            return true;
        }
        pieces.push_back({id, size, pieces.empty() ? 0 : pieces.back().offset + pieces.back().size});
        return true;
    }
};

struct Swap {
    vfile* file = nullptr;
    Swap() { EXPECT_EQ(KalOpenTempVFile(&file), 0); }
    ~Swap() { EXPECT_EQ(KalCloseVFile(file), 0); }
    int32_t write(uint16_t id, const Bytes& bytes) {
        return KalWriteVFile(file, bytes.data(), uint32_t(bytes.size()), id);
    }
    Bytes read(uint16_t id) {
        vitem* item = KalFindVItem(file, id);
        Bytes bytes(item->size);
        EXPECT_EQ(KalReadVFile(file, item, bytes.data()), int32_t(bytes.size()));
        return bytes;
    }
};

} // namespace

class SwapFileTest : public FolderTest {};

// The page's example is carried out, and what it says the file and its list then hold is compared.
TEST_F(SwapFileTest, TheFormatPagesExampleIsTrue) {
    std::ifstream page(KAL_SOURCE_DIR "/docs/formats/swap-file.md");
    Swap swap;
    int lines = 0;
    uint32_t dumped = 0;
    for (std::string line; std::getline(page, line); lines++) {
        std::istringstream words(line);
        std::string word, text;
        unsigned id = 0, size = 0, offset = 0;
        words >> word;
        if (word == "write" && words >> id >> text) {
            EXPECT_EQ(swap.write(uint16_t(id), bytesOf(text)), int32_t(text.size())) << line;
        } else if (word == "free" && words >> id) {
            ASSERT_NE(KalFindVItem(swap.file, uint16_t(id)), nullptr) << line;
            KalFindVItem(swap.file, uint16_t(id))->id = 0;
        } else if (word == "extent" && words >> id >> size >> offset) {
            const auto pieces = extentsOf(swap.file);
            EXPECT_NE(std::find(pieces.begin(), pieces.end(), Piece{uint16_t(id), size, offset}),
                      pieces.end())
                << line;
        } else if (word.size() == 6 && word[0] == '0' && word[5] == ':') {
            EXPECT_EQ(std::stoul(word, nullptr, 16), dumped) << line;
            for (; words >> word; dumped++) {
                uint8_t byte = 0;
                EXPECT_EQ(::pread(int(swap.file->handle), &byte, 1, dumped), 1) << line;
                EXPECT_EQ(byte, std::stoul(word, nullptr, 16)) << line << " byte " << dumped;
            }
        }
    }
    EXPECT_GT(lines, 20);
    EXPECT_EQ(dumped, uint32_t(::lseek(int(swap.file->handle), 0, SEEK_END)))
        << "the dump shows the whole file";
}

TEST_F(SwapFileTest, AgreesWithTheModelInRandomSequences) {
    HeapBalance balance;
    for (uint32_t seed = firstSeed(), end = seed + 4; seed != end; seed++) {
        Swap swap;
        SwapModel model;
        std::mt19937 random(seed);
        for (uint32_t step = 0; step < 1500; step++) {
            const auto id = static_cast<uint16_t>(random() % 60 + 1);
            vitem* item = nullptr;
            switch (random() % 4) {
            case 0: // freed behind the file's back, as callers do; found again and freed again
                if ((item = KalFindVItem(swap.file, id)) != nullptr)
                    item->id = 0;
                model.free(id);
                break;
            case 1:
                if (model.contents.contains(id))
                    ASSERT_EQ(swap.read(id), model.contents[id]) << "seed " << seed << " step " << step;
                else
                    ASSERT_EQ(KalFindVItem(swap.file, id), nullptr);
                item = KalFindVItem(swap.file, 0);
                ASSERT_EQ(item != nullptr ? item->offset : 0, model.lowestFree()) << "step " << step;
                break;
            default:
                const Bytes bytes =
                    randomBytes(random() % 5 == 0 ? random() % 3 + 1 : random() % 400 + 1, step);
                const HostCallCounter host;
                ASSERT_EQ(swap.write(id, bytes), int32_t(bytes.size()));
                ASSERT_EQ(host.writes(), model.write(id, bytes) ? 1 : 0)
                    << "a valid copy is not written again";
                if (random() % 16 == 0) {
                    ASSERT_EQ(extentsOf(swap.file), model.pieces) << "seed " << seed << " step " << step;
                }
            }
        }
        for (const auto& [id, bytes] : model.contents)
            ASSERT_EQ(swap.read(id), bytes);
    }
}

// A caller who walks the list tells nobody.
TEST_F(SwapFileTest, AnExtentFreedInTheListTakesTheNextWrite) {
    Swap swap;
    for (uint16_t id = 1; id <= 600; id++)
        swap.write(id, Bytes(10));
    for (const int at : {450, 20, 599}) {
        KalNodeHeader* header = swap.file->items->first;
        for (int i = 0; i < at; i++)
            header = header->next;
        reinterpret_cast<vitem*>(header + 1)->id = 0;
        const auto id = static_cast<uint16_t>(1000 + at);
        swap.write(id, Bytes(10));
        EXPECT_EQ(val(KalFindVItem(swap.file, id)->offset), uint32_t(at) * 10);
    }
}

TEST_F(SwapFileTest, IsPrivateNamelessAndWhereItIsToldToBe) {
    HeapBalance balance;
    for (const bool named : {false, true}) {
        HostCallGuard guard;
        if (named) // a file system that cannot make files without a name
            hostCalls.open = [](const char* path, int flags, mode_t mode) {
                errno = EOPNOTSUPP;
                return (flags & O_TMPFILE) == O_TMPFILE ? -1 : ::open(path, flags, mode);
            };
        ASSERT_EQ(::mkdir("swap", 0700), named ? -1 : 0);
        writeFile("swap/ZEP0.TMP", bytesOf("taken"));
        KalTempPath(path("swap").c_str());
        {
            Swap swap;
            struct stat found, folder;
            ASSERT_EQ(::fstat(int(swap.file->handle), &found), 0);
            ASSERT_EQ(::stat("swap", &folder), 0);
            EXPECT_EQ(found.st_mode & 0777, 0600u);
            EXPECT_EQ(found.st_nlink, 0u) << "has a name";
            EXPECT_EQ(found.st_dev, folder.st_dev);
            EXPECT_NE(std::string(swap.file->nameBuf).find("swap\\ZEP"), std::string::npos);
            EXPECT_EQ(KalSizeSMem(swap.file->nameBuf), 772u);
            EXPECT_EQ(filesIn("swap"), std::vector<std::string>{"ZEP0.TMP"});
            EXPECT_NE(::fcntl(int(swap.file->handle), F_GETFD) & FD_CLOEXEC, 0);
        }
        EXPECT_EQ(readFile("swap/ZEP0.TMP"), bytesOf("taken"));
        vfile* file = nullptr;
        KalTempPath(path("missing").c_str());
        EXPECT_EQ(KalOpenTempVFile(&file), -200 - ENOENT);
        EXPECT_EQ(file, nullptr);
        KalTempPath(nullptr);
    }
    ::setenv("TMPDIR", path("swap").c_str(), 1);
    Swap swap;
    char link[512] = {};
    const std::string fd = "/proc/self/fd/" + std::to_string(swap.file->handle);
    ASSERT_GT(::readlink(fd.c_str(), link, sizeof link - 1), 0);
    EXPECT_EQ(std::string(link).rfind(path("swap"), 0), 0u) << link;
    ::unsetenv("TMPDIR");
}

TEST_F(SwapFileTest, ReportsWhatTheHostRefuses) {
    Swap swap;
    EXPECT_EQ(KalWriteVFile(swap.file, "x", 1, 0), 0) << "id 0 is nobody's";
    swap.write(3, Bytes(100, 3));
    vitem* item = KalFindVItem(swap.file, 3);
    Bytes bytes(100);
    HostCallGuard guard;
    hostCalls.read = [](int fd, void* to, size_t count) { return ::read(fd, to, count > 60 ? 60 : 0); };
    EXPECT_EQ(KalReadVFile(swap.file, item, bytes.data()), -252);
    hostCalls.lseek = [](int, off_t, int) { return off_t(-1); };
    EXPECT_EQ(KalReadVFile(swap.file, item, bytes.data()), -257);
    item->offset = 0xFFFFFFF0; // the end of what a swap file can hold
    EXPECT_EQ(swap.write(4, Bytes(100)), 0);
    EXPECT_EQ(KalFindVItem(swap.file, 4), nullptr);
    const int met = withEachAllocationFailing([](int) {
        vfile* file = nullptr;
        const int16_t status = KalOpenTempVFile(&file);
        EXPECT_EQ(status, heapFaultHappened() ? -100 : 0);
        EXPECT_EQ(file == nullptr, heapFaultHappened());
        KalCloseVFile(file);
    });
    EXPECT_EQ(met, 4);
}
