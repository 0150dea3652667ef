// The typical request of an imaging program, from start to end: operations are recorded in movable memory, stored
// as a compressed list in a file, and read back from there.
#include <cstdio>
#include <cstring>
#include <kal.h>

namespace {

constexpr uint16_t opStroke = 100;
constexpr uint16_t listId = 7;
constexpr char fileName[] = "typical_request.kal";

// Records strokes in a list in VMem.
bool record(OpList* list, uint32_t count) {
    for (uint32_t i = 0; i < count; i++) {
        void* op = KalCreateOp(opStroke, 200);
        if (op == nullptr)
            return false;
        std::memset(op, static_cast<int>(i % 256), 200);
        const uint32_t position = KalPutOp(list, op);
        KalFreeSMem(KalOpBlock(op));
        if (position == KAL_OP_FAILED)
            return false;
    }
    return KalSeekOp(list, 0) == 0; // which ends the list
}

bool store(OpList* list) {
    IOPFILE* file;
    const uint16_t format = KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED;
    if (KalOpenIOpFile(&file, fileName, KAL_MODE_CREATE | KAL_MODE_UPDATE, format) != 0)
        return false;
    // A list this large is not moved out of the index's way later, so the index gets the room for more lists now.
    const bool stored = KalReserveItems(file->ifile, 100) == 0 && KalPutIOpList(file, listId, list) == 0;
    return KalCloseIOpFile(file) == 0 && stored;
}

bool load(OpList* list) {
    IOPFILE* file;
    if (KalOpenIOpFile(&file, fileName, 0, 0) != 0)
        return false;
    const bool loaded = KalGetIOpList(file, listId, list) == 0;
    KalCloseIOpFile(file);
    return loaded && KalSeekOp(list, 0) == 0;
}

bool sameOp(void* left, void* right) {
    if (left == nullptr || right == nullptr)
        return left == right;
    const bool same = KalOpType(left) == KalOpType(right) && KalOpSize(left) == KalOpSize(right) &&
                      std::memcmp(left, right, KalOpSize(left)) == 0;
    KalFreeSMem(KalOpBlock(left));
    KalFreeSMem(KalOpBlock(right));
    return same;
}

// How many ops the lists share before they both end; -1 when they differ.
long countSame(OpList* left, OpList* right) {
    KalSeekOp(left, 0);
    for (long count = 0;; count++) {
        void* op = KalGetOp(left);
        const bool ended = op == nullptr;
        if (!sameOp(op, KalGetOp(right)))
            return -1;
        if (ended)
            return count;
    }
}

} // namespace

int main() {
    KalSetHome("C:\\usr\\bin\\typical_request");
    KalSetMaxVMem(4 << 20); // far less than the list will take, so that it is swapped while it is used
    if (KalOpenVMem(0) != 0)
        return 1;
    OpList* recorded = nullptr;
    OpList* loaded = nullptr;
    long same = -1;
    if (KalTempOpList(&recorded, KAL_OPL_VMEM) == 0 && KalTempOpList(&loaded, KAL_OPL_VMEM) == 0 &&
        record(recorded, 100000) && store(recorded) && load(loaded))
        same = countSame(recorded, loaded);
    std::printf("%ld operations stored, read back and equal; %d bytes in VMem at most\n", same, KalMaxVMem());
    KalCloseOpList(recorded);
    KalCloseOpList(loaded);
    KalCloseVMem();
    KalSetHome(nullptr);
    std::remove(fileName);
    return same == 100000 ? 0 : 1;
}
