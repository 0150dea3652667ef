// Any bytes as a stored list, compressed or not, whose ops are put to a bitmap list. The first bytes describe that.
#include "fuzz/bitmap_list.h"

#include "tests/support/vector_stream.h"

#include <kal/verify.h>

namespace {

constexpr uint32_t kEnough = 1 << 14; // bytes of one list: a few hundred bytes can hold more
constexpr size_t kHead = kBitmapBytes + 4;

struct Faults : FaultSink {
    void Fault(uint64_t, uint32_t, const char*) override { count++; }
    int32_t count = 0;
};

// Gets what the list gives from its position on, and puts it to the bitmap too. False where it stops early.
bool play(OpList* list, OpList* bitmap) {
    for (uint32_t total = 0; total < kEnough; total += KAL_OP_HEADER) {
        void* op = KalGetOp(list);
        if (op == nullptr)
            return KalGetOpError(list) == KAL_OK;
        total += KalOpSize(op);
        KalPutOp(bitmap, op);
        KalPutOpData(bitmap, KAL_OP_ROW, op, KalOpSize(op));
        require(KalFreeSMem(KalOpBlock(op)) == KAL_OK, "an op is one block");
    }
    return true;
}

} // namespace

std::vector<Field> fieldsOf(const Bytes& input) {
    if (input.size() <= kHead)
        return {};
    std::vector<Field> fields;
    for (size_t at = 0; at + 2 <= kHead; at += 2)
        fields.push_back({at, 2});
    for (size_t at = kHead; at + 16 <= input.size(); at += 4u + input[at + 2] + 256u * input[at + 3])
        for (size_t field = 0; field < 12; field += 2)
            fields.push_back({at + field, 2});
    return fields;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    memoryHost::start();
    Input input(data, size);
    BitmapList bitmap(input);
    const uint16_t choice = input.word(), line = input.word();
    const bool compressed = choice % 2 != 0;
    const Bytes bytes = input.rest();
    memoryHost::setContent("/list", bytes);

    VectorStream stream(bytes);
    Faults faults;
    const int32_t told = KalVerifyOpList(stream.file(), compressed, faults);
    require(told == faults.count, "each fault is told");

    OpList* list;
    const auto mode = static_cast<uint16_t>(compressed ? KAL_OPL_COMPRESSED : 0);
    require(KalOpenOpList(&list, "/list", mode) == KAL_OK, "a list that is there opens");
    const bool whole = play(list, bitmap.list);
    require(told != 0 || whole, "what is called whole reads to its end");
    KalIsOpListEmpty(list);
    KalSeekOp(list, choice);
    play(list, bitmap.list);
    KalCloseOpList(list);
    require(memoryHost::content("/list") == bytes, "reading changes nothing");
    bitmap.read(line, choice);
    return 0;
}
