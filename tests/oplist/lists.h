// What tests of lists share: the VMem manager open, and nothing of it left.
#ifndef KAL_TESTS_OPLIST_LISTS_H
#define KAL_TESTS_OPLIST_LISTS_H

#include "tests/support/faults.h"
#include "tests/support/ops.h"

#include <kal/vmem.h>

inline constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

class ListTest : public FolderTest {
protected:
    ListTest() {
        KalSetMaxVMem(2 << 20);
        EXPECT_EQ(KalOpenVMem(0), 0);
    }
    ~ListTest() override {
        EXPECT_EQ(KalVMemUsed(), 0) << "blocks were left";
        EXPECT_EQ(KalCloseVMem(), 0);
    }
    static OpList* open(uint16_t mode, uint32_t blockSize = 0) {
        OpList* list = nullptr;
        EXPECT_EQ(KalOpenOpList(&list, "f", mode), 0);
        if (blockSize != 0)
            list->blockSize = blockSize;
        return list;
    }
    static OpList* openBitmap(uint32_t blockSize = 0) {
        OpList* list = nullptr;
        EXPECT_EQ(KalTempOpList(&list, KAL_OPL_VMEM | KAL_OPL_DIB), 0);
        if (blockSize != 0)
            list->blockSize = blockSize;
        return list;
    }

    HeapBalance balance_; // from before the manager to behind it
};

#endif
