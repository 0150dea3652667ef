// A bitmap list that an input describes, for the ops that are found in it.
#ifndef KAL_FUZZ_BITMAP_LIST_H
#define KAL_FUZZ_BITMAP_LIST_H

#include "fuzz/memory_host.h"

#include <kal/heap.h>
#include <kal/oplist.h>
#include <kal/verify.h>
#include <kal/vmem.h>

inline constexpr size_t kBitmapBytes = 14; // of an input, that describe it

struct Faults : FaultSink {
    void Fault(uint64_t, uint32_t, const char* text) override {
        require(text != nullptr && *text != 0, "a fault is told in words");
        count++;
    }
    int32_t count = 0;
};

class BitmapList {
public:
    explicit BitmapList(Input& input) {
        static const bool opened = (KalSetMaxVMem(1 << 19), KalOpenVMem(0) == KAL_OK);
        memoryHost::countsBlocks = false; // since VMem stays open, and opens its swap file when it must
        require(opened && KalTempOpList(&list, KAL_OPL_VMEM_DIB) == KAL_OK, "a bitmap list can be made");
        list->blockSize = 64u + input.word() / 4;
        const uint16_t left = input.word(), top = input.word(), width = input.word(), height = input.word();
        const uint8_t depth = input.byte(), choice = input.byte();
        // An op that fits no block goes through all of them: no more than 64 KiB of rows, or two.
        const uint32_t most = 2 + (1u << 16) / (KalDIBRowBytes(width, 24) + 1);
        KalSetupOpList(list, left, top, width, static_cast<uint16_t>(height < most ? height : most), depth,
                       choice, input.word());
    }
    ~BitmapList() {
        KalCloseOpList(list);
        require(KalVMemUsed() == 0, "a list leaves no block");
    }
    BitmapList(const BitmapList&) = delete;
    BitmapList& operator=(const BitmapList&) = delete;

    // Puts what a list gives from its position on, `enough` bytes at most, also as rows. False where that stops early.
    bool play(OpList* from, uint32_t enough, bool asRows) {
        for (uint32_t total = 0; total < enough; total += KAL_OP_HEADER) {
            void* op = KalGetOp(from);
            if (op == nullptr)
                return KalGetOpError(from) == KAL_OK;
            total += KalOpSize(op);
            KalPutOp(list, op);
            if (asRows)
                KalPutOpData(list, KAL_OP_ROW, op, KalOpSize(op));
            require(KalFreeSMem(KalOpBlock(op)) == KAL_OK, "an op is one block");
        }
        return true;
    }
    // All bands from a line on; each says the truth of itself.
    void read(uint16_t fromLine, uint16_t offset) {
        KalShrinkOpList(list);
        KalSeekDIBScanLineOffset(list, fromLine, offset);
        for (uint32_t bands = 0; bands < 20; bands++) {
            auto* band = static_cast<uint8_t*>(KalGetOp(list));
            if (band == nullptr)
                break;
            const auto lines = static_cast<uint32_t>(band[6] | band[7] << 8);
            const uint32_t line = KalDIBLineBytes(static_cast<uint32_t>(band[4] | band[5] << 8), band[8]);
            require(KalOpType(band) != KAL_OP_DIB || lines * line + KAL_DIB_OP_HEADER <= KalOpSize(band),
                    "a band holds the lines that it tells of");
            KalFreeSMem(KalOpBlock(band));
        }
        OpList* copy = nullptr;
        KalSeekOp(list, 0);
        if (list->dib->height < 500) // a copy goes through every row
            KalCloneDIBOpList(list, &copy);
        KalCloseOpList(copy);
    }

    OpList* list;
};

#endif
