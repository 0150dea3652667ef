// Any bytes as a stored list, compressed or not, whose ops are put to a bitmap list. The first bytes describe that.
#include "fuzz/bitmap_list.h"

#include "tests/support/vector_stream.h"

namespace {

constexpr uint32_t kEnough = 1 << 14; // bytes of one list: a few hundred bytes can hold more
constexpr size_t kHead = kBitmapBytes + 4;

} // namespace

Layout layoutOf(const Bytes&) {
    std::vector<Field> words;
    for (size_t at = 0; at < kHead; at += 2)
        words.push_back({at, 2});
    return {words, kHead, {words.begin(), words.begin() + 6}, 4, {2, 2}, 4};
}

void fuzz(Input input) {
    BitmapList bitmap(input);
    const uint16_t choice = input.word(), line = input.word();
    const bool compressed = choice % 2 != 0;
    const Bytes bytes = input.rest();
    memoryHost::file("/list") = bytes;

    VectorStream stream(bytes);
    Faults faults;
    const int32_t told = KalVerifyOpList(stream.file(), compressed, faults);
    require(told == faults.count, "each fault is told");

    OpList* list;
    const auto mode = static_cast<uint16_t>(compressed ? KAL_OPL_COMPRESSED : 0);
    require(KalOpenOpList(&list, "/list", mode) == KAL_OK, "a list that is there opens");
    const bool whole = bitmap.play(list, kEnough, true);
    require(told != 0 || whole, "what is called whole reads to its end");
    KalIsOpListEmpty(list);
    KalSeekOp(list, choice);
    bitmap.play(list, kEnough, true);
    KalCloseOpList(list);
    require(memoryHost::file("/list") == bytes, "reading changes nothing");
    bitmap.read(line, choice);
}
