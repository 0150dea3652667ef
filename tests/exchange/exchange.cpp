// What builds of different word sizes hand to each other. See between_builds, which runs this program of each build.
//
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

std::vector<uint8_t> content(uint32_t count, uint32_t seed) {
    std::vector<uint8_t> bytes(count);
    for (uint8_t& byte : bytes)
        byte = uint8_t((seed = seed * 1664525 + 1013904223) >> 24);
    return bytes;
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
    if (command == "share" && count > 2) {
        turn(0, 3);
        expect(std::system((std::string(arguments[2]) + " answer").c_str()) == 0, "the answer");
        turn(7, 9);
    } else {
        expect(command == "answer", "no such command");
        turn(3, 7);
    }
    return good ? 0 : 1;
}
