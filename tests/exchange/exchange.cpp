// What builds of different word sizes hand to each other. See between_builds, which runs this program of each build.
//
//     exchange write           writes one of every stored form to the current folder
//     exchange share OTHER     changes a mapping and a setting in turn with the program that the command OTHER runs
//     exchange answer          the other's turn
#include <kal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

bool good = true;

void expect(bool holds, const char* what) {
    if (!holds)
        std::printf("%zu-bit build: %s\n", 8 * sizeof(void*), what);
    good = good && holds;
}

// Rows that compress between noise that does not.
std::vector<uint8_t> content(uint32_t count, uint32_t seed) {
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < count; i++) {
        seed = seed * 1664525 + 1013904223;
        bytes.push_back(i % 9000 < 6000 ? uint8_t(i % 97 + i / 3000) : uint8_t(seed >> 24));
    }
    return bytes;
}

// Lists and plain items, more than the first room of the index.
void writeItems(const char* name, uint16_t format) {
    IOPFILE* file;
    OpList* list;
    bool written = KalOpenIOpFile(&file, name, kNew, format) == KAL_OK;
    for (uint16_t id = 1; written && id <= 30; id++) {
        const auto item = content(2000u * id, id);
        const auto size = uint32_t(item.size());
        written = KalWriteIFile(file->ifile, item.data(), size, id) == size &&
                  KalOpenPutIOpList(file, uint16_t(100 + id), &list) == KAL_OK;
        for (uint16_t type = 1; written && type <= 100; type++)
            written = KalPutOpData(list, type, item.data(), type * 7u) != KAL_OP_FAILED;
        written = written && KalClosePutIOpList(file) == KAL_OK;
    }
    expect(written && KalCloseIOpFile(file) == KAL_OK, name);
}

void writeStreams() {
    const auto bytes = content(200000, 1);
    SFILE* stream;
    scfiletag* run;
    expect(KalOpenFile(&stream, "run", kNew, 0) == KAL_OK && KalMakeCFile(&run, stream) == KAL_OK &&
               KalWriteCFile(run, bytes.data(), 60000) == 60000 && KalFreeCFile(run) == KAL_OK &&
               stream->close(stream) == KAL_OK,
           "run");
    for (const char* name : {"small.doc", "large.doc"}) { // in mini sectors, in sectors
        const uint32_t size = *name == 's' ? 1000 : 200000;
        expect(KalOpenFileAsIStream(&stream, name, "Contents", kNew) == KAL_OK &&
                   stream->write(stream, bytes.data(), size) == int32_t(size) &&
                   stream->close(stream) == KAL_OK,
               name);
    }
}

// Takes a turn: finds what the other left (nothing the first time), and leaves its own.
void turn(uint32_t theirs, uint32_t mine) {
    constexpr uint32_t kSize = 1000;
    TagSet set;
    SFILE* stream;
    const std::string name = std::string("kal exchange ") + std::getenv("KAL_REGISTRY");
    const auto open = [&](uint16_t mode) {
        return KalOpenFile(&stream, name.c_str(), KAL_MODE_FILEMAP | mode, 2 * kSize) == KAL_OK;
    };
    expect(set.SetPath("Exchange\\Shared", 1) == KAL_OK, "no settings");
    if (theirs != 0) {
        std::vector<uint8_t> found(kSize);
        expect(open(0) && stream->read(stream, found.data(), kSize) == int32_t(kSize) &&
                   found == content(kSize, theirs) && stream->close(stream) == KAL_OK,
               "the mapping holds something else");
        const volatile double asked = set.GetFloatTag("A?C"),
                              expected = 1.0 / theirs; // rounded, not as in a register
        expect(set.GetIntTag("\xC4ndern: 50 %") == int32_t(theirs) && asked == expected,
               "a setting is another");
    }
    set.SetIntTag("\xC4ndern: 50 %", int32_t(mine));
    set.SetFloatTag("A?C", 1.0 / mine, 17);
    expect(open(theirs == 0 ? kNew : KAL_MODE_UPDATE) &&
               stream->write(stream, content(kSize, mine).data(), kSize) == int32_t(kSize) &&
               stream->close(stream) == KAL_OK,
           "the mapping is not written");
}

} // namespace

int main(int count, char** arguments) {
    const std::string command = count > 1 ? arguments[1] : "";
    if (command == "write") {
        writeItems("narrow", 0);
        writeItems("wide compressed", KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED);
        writeStreams();
    } else if (command == "share" && count > 2) {
        turn(0, 3);
        expect(std::system((std::string(arguments[2]) + " answer").c_str()) == 0, "the answer");
        turn(7, 9);
    } else {
        expect(command == "answer", "no such command");
        turn(3, 7);
    }
    return good ? 0 : 1;
}
