// What builds of different word sizes hand to each other. See between_builds, which runs this program of each build.
//
//     exchange write           writes one of every stored form to the current folder
//     exchange check           checks what a build wrote there
//     exchange share OTHER     changes a mapping and a setting in turn with the program that the command OTHER runs
//     exchange answer          the other's turn
#include <kal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

bool good = true;

void expect(bool holds, const std::string& what) {
    if (!holds)
        std::printf("%zu-bit build: %s differs\n", 8 * sizeof(void*), what.c_str());
    good = good && holds;
}

// Rows that compress between noise that does not.
Bytes content(uint32_t count, uint32_t seed) {
    Bytes bytes;
    for (uint32_t i = 0; i < count; i++) {
        seed = seed * 1664525 + 1013904223;
        bytes.push_back(i % 9000 < 6000 ? uint8_t(i % 97 + i / 3000) : uint8_t(seed >> 24));
    }
    return bytes;
}

bool holds(SFILE* stream, const Bytes& expected) {
    Bytes bytes(expected.size() + 1);
    return stream->read(stream, bytes.data(), uint32_t(bytes.size())) == int32_t(expected.size()) &&
           std::equal(expected.begin(), expected.end(), bytes.begin());
}

// --- The stored forms: written, or checked ---------------------------------------------------------------

void itemFile(bool write, const char* name, uint16_t format, uint32_t largest) {
    constexpr uint16_t kItems = 30; // past the first room of the index
    IFILE* file;
    if (KalOpenIFile(&file, name, write ? kNew : 0, format) != 0)
        return expect(false, name);
    for (uint16_t id = 0; id < kItems; id++) {
        const Bytes item = content(largest * id / (kItems - 1), id);
        const auto size = uint32_t(item.size());
        if (write) {
            expect(KalWriteIFile(file, item.data(), size, id) == size, name);
            continue;
        }
        Bytes stored(size + 1);
        expect(KalGetItemSize(file, id) == int32_t(size) &&
                   KalReadIFile(file, stored.data(), size, id) == size &&
                   std::equal(item.begin(), item.end(), stored.begin()),
               name);
    }
    expect(KalCloseIFile(file) == 0, name);
}

void run(bool write) {
    constexpr uint32_t kPiece = 60000;
    Bytes plain = content(5 * kPiece, 1);
    const Bytes expected = plain;
    SFILE* stream;
    scfiletag* cfile;
    if (KalOpenFile(&stream, "run", write ? kNew : 0, 0) != 0 || KalMakeCFile(&cfile, stream) != 0)
        return expect(false, "the run");
    if (!write)
        plain.assign(plain.size(), 0);
    for (uint8_t* piece = plain.data(); piece < plain.data() + plain.size(); piece += kPiece)
        expect((write ? KalWriteCFile(cfile, piece, kPiece) : KalReadCFile(cfile, piece, kPiece)) == kPiece,
               "the run");
    expect(KalFreeCFile(cfile) == 0 && stream->close(stream) == 0 && plain == expected, "the run");
}

void listFile(bool write, const char* name, uint16_t format) {
    IOPFILE* file;
    if (KalOpenIOpFile(&file, name, write ? kNew : 0, format) != 0)
        return expect(false, name);
    for (uint16_t id = 1; id <= 3; id++) {
        OpList* list;
        if ((write ? KalOpenPutIOpList : KalOpenGetIOpList)(file, id, &list) != 0)
            return expect(false, name);
        for (uint16_t type = 1; type <= 100; type++) {
            const Bytes data = content(type * id * 7u, type);
            const auto size = uint32_t(data.size());
            if (write) {
                expect(KalPutOpData(list, type, data.data(), size) != KAL_OP_FAILED, name);
                continue;
            }
            void* op = KalGetOp(list);
            expect(op != nullptr && KalOpType(op) == type && KalOpSize(op) == size &&
                       std::equal(data.begin(), data.end(), static_cast<uint8_t*>(op)),
                   name);
            if (op != nullptr)
                KalFreeSMem(KalOpBlock(op));
        }
        expect(write || KalGetOp(list) == nullptr, name);
        expect((write ? KalClosePutIOpList : KalCloseGetIOpList)(file) == 0, name);
    }
    expect(KalCloseIOpFile(file) == 0, name);
}

void compoundFile(bool write, const char* name, uint32_t size) {
    const Bytes bytes = content(size, size);
    SFILE* stream;
    if (KalOpenFileAsIStream(&stream, name, "Contents", write ? kNew : 0) != 0)
        return expect(false, name);
    expect(write ? stream->write(stream, bytes.data(), size) == int32_t(size) : holds(stream, bytes), name);
    expect(stream->close(stream) == 0, name);
}

void settings(bool write) {
    const struct {
        const char* tag;
        std::string value;
        const char* valueName;
    } values[] = {{"Colour", "red", nullptr},
                  {"Colour", "rot", "German"},
                  {"A?C", "1", nullptr},
                  {"\xC4ndern: 50 %", "*", nullptr},
                  {"Long", std::string(3000, 'x'), nullptr}};
    TagSet set;
    expect(set.SetPath("Exchange\\Settings", 1) == 0, "the settings");
    for (const auto& [tag, value, valueName] : values) {
        char stored[4000] = "";
        expect(write ? set.SetTag(tag, value.c_str(), valueName) == 0
                     : set.GetTag(tag, stored, sizeof stored, valueName) == 0 && stored == value,
               std::string("the setting ") + tag);
    }
    if (write) {
        set.SetIntTag("Least", INT32_MIN);
        set.SetFloatTag("Third", 1.0 / 3, 17);
    }
    expect(set.GetIntTag("Least") == INT32_MIN && set.GetFloatTag("Third") == 1.0 / 3, "a number");
}

void everyForm(bool write) {
    itemFile(write, "narrow", 0, 65535);
    itemFile(write, "wide", KAL_ITEMS_WIDE, 100000);
    run(write);
    listFile(write, "plain", 0);
    listFile(write, "compressed", KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED);
    compoundFile(write, "small.doc", 1000);
    compoundFile(write, "large.doc", 200000);
    settings(write);
}

// --- What processes share --------------------------------------------------------------------------------

constexpr uint32_t kShared = 1000;

// A name that no other run of this test uses.
std::string mappingName() {
    const char* registry = std::getenv("KAL_REGISTRY");
    return std::string("kal exchange ") + (registry != nullptr ? registry : "");
}

void fillMapping(uint16_t mode, uint32_t seed) {
    SFILE* stream;
    if (KalOpenFile(&stream, mappingName().c_str(), KAL_MODE_FILEMAP | mode, 2 * kShared) != 0)
        return expect(false, "the mapping");
    expect(stream->write(stream, content(kShared, seed).data(), kShared) == int32_t(kShared), "the mapping");
    expect(stream->close(stream) == 0, "the mapping");
}

void checkMapping(uint32_t seed) {
    SFILE* stream;
    if (KalOpenFile(&stream, mappingName().c_str(), KAL_MODE_FILEMAP, 0) != 0)
        return expect(false, "the mapping");
    expect(holds(stream, content(kShared, seed)), "the mapping");
    expect(stream->close(stream) == 0, "the mapping");
}

void share(const char* other) {
    TagSet set;
    expect(set.SetPath("Exchange\\Shared", 1) == 0 && set.SetTag("Turn", "mine") == 0, "the turn");
    expect(std::strcmp(set.GetTempTag("Turn"), "mine") == 0, "the turn");
    fillMapping(kNew, 1);
    expect(std::system((std::string(other) + " answer").c_str()) == 0, "the answer");
    checkMapping(2);
    expect(std::strcmp(set.GetTempTag("Turn"), "yours") == 0, "the turn");
}

void answer() {
    TagSet set;
    expect(set.SetPath("Exchange\\Shared", 1) == 0, "the turn");
    const char* turn = set.GetTempTag("Turn");
    expect(turn != nullptr && std::strcmp(turn, "mine") == 0 && set.SetTag("Turn", "yours") == 0, "the turn");
    checkMapping(1);
    fillMapping(KAL_MODE_UPDATE, 2);
}

} // namespace

int main(int count, char** arguments) {
    const std::string command = count > 1 ? arguments[1] : "";
    if (command == "write" || command == "check")
        everyForm(command == "write");
    else if (command == "share" && count > 2)
        share(arguments[2]);
    else if (command == "answer")
        answer();
    else
        return 2;
    return good ? 0 : 1;
}
