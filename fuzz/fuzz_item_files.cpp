// Any bytes as an item file, its items as resources and as lists, whose ops are put to a bitmap list: an archive of
// pictures is one of these. The first bytes describe the bitmap and choose the size of the reads.
#include "fuzz/bitmap_list.h"

#include "tests/support/vector_stream.h"

#include <kal/resource.h>
#include <kal/verify.h>

#include <algorithm>

namespace {

constexpr uint16_t kMostItems = 40;   // looked at
constexpr uint32_t kEnough = 1 << 18; // bytes of one list: a few hundred bytes can hold more

struct Faults : FaultSink {
    void Fault(uint64_t, uint32_t, const char* text) override {
        require(text != nullptr && *text != 0, "a fault is told in words");
        count++;
    }
    int32_t count = 0;
};

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

void readList(IOPFILE* file, uint16_t id, bool whole, OpList* bitmap) {
    OpList* list;
    if (KalOpenGetIOpList(file, id, &list) != KAL_OK)
        return require(!whole, "a list that is there opens");
    uint32_t total = 0;
    while (total < kEnough) {
        void* op = KalGetOp(list);
        if (op == nullptr)
            break;
        total += KAL_OP_HEADER + KalOpSize(op);
        KalPutOp(bitmap, op);
        require(KalFreeSMem(KalOpBlock(op)) == KAL_OK, "an op is one block");
    }
    require(!whole || total >= kEnough || KalGetOpError(list) == KAL_OK, "a whole list has no error");
    require(KalCloseGetIOpList(file) == KAL_OK, "a list closes");
}

} // namespace

std::vector<Field> fieldsOf(const Bytes& input) {
    constexpr size_t header = kBitmapBytes + 1;
    if (input.size() < header + 4)
        return {};
    const bool wide = (input[header + 1] & 0x80) != 0;
    std::vector<Field> fields = {{header + 2, 2}};
    for (size_t at = header + 4; fields.size() < 60 && at + 10 <= input.size(); at += wide ? 10 : 8)
        fields.insert(fields.end(), {{at, 2}, {at + 2, wide ? 4u : 2u}, {at + (wide ? 6 : 4), 4}});
    return fields;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    memoryHost::start();
    Input input(data, size);
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
    const uint16_t format = bytes.size() < 2 ? 0 : static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
    if (KalMakeIOpFile(&file, stream.file(), format) != KAL_OK) {
        require(!wholeItems, "a whole file opens");
        return 0;
    }
    const size_t entryBytes =
        (format & KAL_ITEMS_WIDE) != 0 ? sizeof(ItemIndexWide) : sizeof(ItemIndexNarrow);
    for (uint16_t number = 0; number < std::min(file->ifile->count, kMostItems); number++) {
        const uint8_t* entry = reinterpret_cast<const uint8_t*>(file->ifile->index) + number * entryBytes;
        const auto id = static_cast<uint16_t>(entry[0] | entry[1] << 8);
        if (id == KAL_ITEM_FREE)
            continue;
        readItem(file->ifile, id, piece, wholeItems);
        readList(file, id, wholeLists, bitmap.list);
    }
    require(KalFreeIOpFile(file) == KAL_OK, "reading changes nothing that could not be written");
    require(stream.bytes == bytes, "reading writes nothing");
    bitmap.read(0, 0);
    return 0;
}
