// Any bytes as an item file, its items as resources and as lists, whose ops are put to a bitmap list: an archive of
// pictures is one of these. The first bytes describe the bitmap and choose the size of the reads.
#include "fuzz/bitmap_list.h"

#include "tests/support/vector_stream.h"

#include <kal/resource.h>

namespace {

constexpr uint16_t kMostItems = 40;   // looked at
constexpr uint32_t kEnough = 1 << 18; // bytes of one list: a few hundred bytes can hold more

void readItem(IFILE* file, uint16_t id, uint32_t piece, bool whole) {
    const int32_t size = KalGetItemSize(file, id);
    require(size >= 0 || !whole, "a whole file knows its items' sizes");
    Bytes bytes(piece);
    const uint32_t got = KalReadIFile(file, bytes.data(), piece, id);
    require(got <= piece, "no more is read than asked for");
    require(!whole || got == std::min(piece, uint32_t(size)), "a whole item is read whole");
    void* block = nullptr;
    char** texts = nullptr;
    for (uint16_t kind : {KAL_RES_BYTES, KAL_RES_WORDS})
        if (KalGetRes(file, id, kind, &block); block != nullptr)
            require(KalDestroyRes(block) == KAL_OK, "a resource is one block");
    if (KalGetTextResData(file, id, &texts) == KAL_OK)
        require(KalDestroyTextRes(texts) == KAL_OK, "so are a text's");
}

void readList(IOPFILE* file, uint16_t id, bool whole, BitmapList& bitmap) {
    OpList* list;
    if (KalOpenGetIOpList(file, id, &list) != KAL_OK)
        return require(!whole, "a list that is there opens");
    require(bitmap.play(list, kEnough, false) || !whole, "a whole list has no error");
    require(KalCloseGetIOpList(file) == KAL_OK, "a list closes");
}

} // namespace

Layout layoutOf(const Bytes& input) {
    constexpr size_t header = kBitmapBytes + 1;
    const bool wide = (numberAt(input, header, 2) & KAL_ITEMS_WIDE) != 0;
    const size_t place = wide ? 6 : 4;
    return {{{header + 2, 2}}, header + 4, {{0, 2}, {2, place - 2}, {place, 4}}, place + 4, {}, 0, 20};
}

void fuzz(Input input) {
    BitmapList bitmap(input);
    const uint32_t piece = 1 + input.byte() * 7u;
    const Bytes bytes = input.rest();
    VectorStream stream(bytes);
    stream.file()->mode = 0; // without write access nothing is written back
    Faults ofItems, ofLists;
    const bool wholeItems = KalVerifyIFile(stream.file(), ofItems) == 0;
    stream.rewind();
    const bool wholeLists = KalVerifyIOpFile(stream.file(), ofLists) == 0;
    require((ofItems.count == 0) == wholeItems && (ofLists.count == 0) == wholeLists, "each fault is told");
    require(wholeItems || !wholeLists, "whole lists are whole items");
    stream.rewind();
    IOPFILE* file;
    const auto format = static_cast<uint16_t>(numberAt(bytes, 0, 2));
    if (KalMakeIOpFile(&file, stream.file(), format) != KAL_OK) {
        require(!wholeItems, "a whole file opens");
        return;
    }
    const size_t entryBytes =
        (format & KAL_ITEMS_WIDE) != 0 ? sizeof(ItemIndexWide) : sizeof(ItemIndexNarrow);
    for (uint16_t number = 0; number < std::min(file->ifile->count, kMostItems); number++) {
        const uint8_t* entry = reinterpret_cast<const uint8_t*>(file->ifile->index) + number * entryBytes;
        const auto id = static_cast<uint16_t>(entry[0] | entry[1] << 8);
        if (id == KAL_ITEM_FREE)
            continue;
        readItem(file->ifile, id, piece, wholeItems);
        readList(file, id, wholeLists, bitmap);
    }
    require(KalFreeIOpFile(file) == KAL_OK, "reading changes nothing that could not be written");
    require(stream.bytes == bytes, "reading writes nothing");
    bitmap.read(0, 0);
}
