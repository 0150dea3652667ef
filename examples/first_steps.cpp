#include <cstdio>
#include <kal.h>

// Records two notes as a compressed operation list in a file, then reads them back.
int main() {
    IOPFILE* file;
    if (KalOpenIOpFile(&file, "notes.kal", KAL_MODE_CREATE | KAL_MODE_UPDATE, KAL_IOP_COMPRESSED) != 0)
        return 1;
    OpList* list;
    if (KalOpenPutIOpList(file, 1, &list) == 0) {
        KalPutOpData(list, 100, "hello", 6);
        KalPutOpData(list, 101, "world", 6);
        KalClosePutIOpList(file);
    }
    if (KalOpenGetIOpList(file, 1, &list) == 0) {
        for (void* op; (op = KalGetOp(list)) != nullptr; KalFreeSMem(KalOpBlock(op)))
            std::printf("type %u: %s\n", KalOpType(op), static_cast<char*>(op));
        KalCloseGetIOpList(file);
    }
    return KalCloseIOpFile(file);
}
