// What tests of lists share: the VMem manager open, and nothing of it left.
#ifndef KAL_TESTS_OPLIST_LISTS_H
#define KAL_TESTS_OPLIST_LISTS_H

#include "tests/items/items.h"
#include "tests/support/faults.h"
#include "tests/support/ops.h"

// An op of lines of a bitmap, of which `pixels` may be too few or too many.
inline Op bandOf(uint16_t line, uint16_t width, uint16_t lines, uint16_t depth, const Bytes& pixels) {
    Op band = {KAL_OP_DIB, Bytes(KAL_DIB_OP_HEADER)};
    const uint16_t words[] = {0, line, width, lines, depth};
    std::memcpy(band.payload.data(), words, sizeof words);
    band.payload.insert(band.payload.end(), pixels.begin(), pixels.end());
    return band;
}

class ListTest : public FolderTest {
protected:
    ListTest() : FolderTest(kInMemory) {
        KalSetMaxVMem(2 << 20);
        KalOpenVMem(0);
    }
    ~ListTest() override { EXPECT_EQ(KalVMemUsed(), 0) << "blocks were left"; }
    static OpList* open(uint16_t mode, uint32_t blockSize = 0) {
        OpList* list = nullptr;
        EXPECT_EQ(KalOpenOpList(&list, "f", mode), KAL_OK);
        list->blockSize = blockSize != 0 ? blockSize : list->blockSize;
        return list;
    }
    // A bitmap list with its first line at `top`; it is not set up where `width` is 0.
    static OpList* openBitmap(uint16_t width, uint16_t height, uint16_t depth, uint32_t blockSize = 1 << 20,
                              uint16_t most = 1000, uint16_t top = 0) {
        OpList* list = nullptr;
        EXPECT_EQ(KalTempOpList(&list, KAL_OPL_VMEM_DIB), KAL_OK);
        list->blockSize = blockSize;
        EXPECT_NE(val(list->dib), nullptr);
        EXPECT_EQ(width == 0 ? 0 : KalSetupOpList(list, 7, top, width, height, depth, 9, most), KAL_OK);
        return list;
    }
    // Closes a list of that status, no block of which may have stayed locked.
    static void close(OpList* list, int status = KAL_OK) {
        EXPECT_EQ(KalGetOpError(list), status);
        for (auto* node = list->blocks != nullptr ? list->blocks->first : nullptr; node; node = node->next) {
            void* const block = reinterpret_cast<opblock*>(node + 1)->vmem;
            EXPECT_EQ(KalReAllocVMem(block, 0), block);
        }
        KalCloseOpList(list);
    }
    static IOPFILE* openFile(const char* name, uint16_t mode, uint16_t format) {
        IOPFILE* file = nullptr;
        EXPECT_EQ(KalOpenIOpFile(&file, name, mode, format), KAL_OK);
        return file;
    }
    static int store(IOPFILE* file, uint16_t id, const std::vector<Op>& ops) {
        OpList* list = nullptr;
        if (const int status = KalOpenPutIOpList(file, id, &list); status != KAL_OK)
            return status;
        int status = KAL_OK;
        for (const auto& op : ops)
            status = putOpData(list, op) != KAL_OP_FAILED ? status : KalGetOpError(list);
        const int closed = KalClosePutIOpList(file);
        return status != KAL_OK ? status : closed;
    }
    static std::vector<Op> load(IOPFILE* file, uint16_t id) {
        OpList* list = nullptr;
        EXPECT_EQ(KalOpenGetIOpList(file, id, &list), KAL_OK);
        std::vector<Op> ops = list != nullptr ? restOf(list) : std::vector<Op>();
        EXPECT_EQ(KalGetOpError(list), KAL_OK);
        EXPECT_EQ(KalCloseGetIOpList(file), KAL_OK);
        return ops;
    }
};

#endif
