// Bitmap lists against a model: the rows, by line.
#include "tests/oplist/lists.h"

#include <algorithm>

namespace {

class DibList : public ListTest {};

uint32_t lineBytesOf(uint32_t width, uint32_t depth) {
    return depth == 24 ? 4 * width : (width * depth + 15) / 16 * 2;
}

// A row as it is stored, from a line of an op.
Bytes rowOf(const uint8_t* line, uint32_t width, uint32_t depth, uint32_t rowBytes) {
    Bytes row(rowBytes);
    if (depth == 24)
        for (size_t x = 0; x < width; x++)
            std::copy_n(line + 4 * x, 3, row.begin() + long(3 * x));
    else
        std::copy_n(line, std::min(rowBytes, lineBytesOf(width, depth)), row.begin());
    return row;
}

Op bandOf(uint16_t line, uint16_t width, uint16_t lines, uint16_t depth, uint32_t seed) {
    Op band = {KAL_OP_DIB, randomBytes(KAL_DIB_OP_HEADER + lines * lineBytesOf(width, depth), seed)};
    const uint16_t words[] = {0, line, width, lines, depth};
    std::memcpy(band.payload.data(), words, sizeof words);
    return band;
}

} // namespace

TEST_F(DibList, RandomRowsAndBandsMatch) {
    for (uint32_t seed = 1; seed <= 60; seed++) {
        std::mt19937 random(seed);
        const auto below = [&](uint32_t n) { return uint32_t(random() % n); };
        const uint16_t depth = (Words{1, 4, 8, 24}).begin()[seed % 4];
        const auto width = uint16_t(1 + below(seed % 3 == 0 ? 900 : 40)), height = uint16_t(1 + below(70));
        const auto left = uint16_t(random()), top = uint16_t(seed % 2 == 0 ? 5 : 65536 - height);
        const uint32_t rowBytes = (width * depth + 31u) / 32 * 4, lineBytes = lineBytesOf(width, depth);
        SCOPED_TRACE(::testing::Message()
                     << "seed " << seed << ": " << width << "x" << height << "x" << depth);
        OpList* list = openBitmap(seed % 5 == 0 ? 0 : rowBytes * (1 + below(20)) + below(rowBytes));
        const auto most = uint16_t(lineBytes * 4 / 3 + 8 + below(3000));
        ASSERT_EQ(KalSetupOpList(list, left, top, width, height, depth, 0, most), 0);
        std::vector<Bytes> rows(height, Bytes(rowBytes));
        std::vector<bool> put(height);
        uint32_t last = 0; // one past the last line put
        bool owed = false; // an end op
        const auto standAt = [&](uint32_t line) {
            ASSERT_EQ(KalSeekDIBScanLineOffset(list, uint16_t(top + line), 0), 0);
            ASSERT_EQ(KalDIBPosToLineNumber(list), line);
            ASSERT_EQ(val(list->dib->curLine), line);
        };
        const auto check = [&](uint32_t line, const uint8_t* row, size_t count) {
            EXPECT_TRUE(!put[line] || std::equal(row, row + count, rows[line].begin())) << "line " << line;
        };
        const auto readBands = [&](OpList* tested, uint32_t line) {
            while (void* op = KalGetOp(tested)) {
                const auto* bytes = static_cast<const uint8_t*>(op);
                uint16_t words[4];
                std::memcpy(words, bytes, sizeof words);
                const uint32_t counted = depth == 24 ? rowBytes * 4 / 3 : lineBytes;
                const uint32_t lines = std::min<uint32_t>(most / counted, height - line);
                EXPECT_EQ(KalOpSize(op), lines * counted + KAL_DIB_OP_HEADER);
                EXPECT_EQ(std::vector<uint16_t>(words, words + 4),
                          (std::vector<uint16_t>{left, uint16_t(top + line), width, uint16_t(lines)}));
                EXPECT_EQ(bytes[8], depth);
                for (uint32_t i = 0; i < lines; i++, line++) {
                    const Bytes row =
                        rowOf(bytes + KAL_DIB_OP_HEADER + i * lineBytes, width, depth, rowBytes);
                    check(line, row.data(), std::min(size_t(rowBytes), size_t(width) * depth / 8));
                }
                KalFreeSMem(KalOpBlock(op));
            }
            EXPECT_EQ(line, height);
            EXPECT_EQ(val(tested->dib->curLine), 0);
        };
        for (int step = 0; step < 60; step++) {
            SCOPED_TRACE(::testing::Message() << "step " << step);
            const uint32_t line = below(height);
            const uint32_t what = below(10);
            Bytes row = randomBytes(rowBytes, uint32_t(random()));
            if (what < 3) {
                standAt(line);
                ASSERT_NE(KalPutDIBOpData(list, row.data(), rowBytes), KAL_OP_FAILED);
                rows[line] = row;
                put[line] = true;
                last = std::max(last, line + 1);
                owed = true;
            } else if (what < 5) {
                const auto lines = uint16_t(1 + below(std::min<uint32_t>(9, height - line)));
                const Op band = bandOf(uint16_t(line), width, lines, depth, uint32_t(random()));
                standAt(line);
                void* op = KalCreateOp(KAL_OP_DIB, uint32_t(band.payload.size()));
                std::memcpy(op, band.payload.data(), band.payload.size());
                ASSERT_NE(what == 3 ? KalPutDIBOp(list, op) : KalPutOp(list, op), KAL_OP_FAILED);
                KalFreeSMem(KalOpBlock(op));
                for (uint32_t i = 0; i < lines; i++) {
                    rows[line + i] =
                        rowOf(&band.payload[KAL_DIB_OP_HEADER + i * lineBytes], width, depth, rowBytes);
                    put[line + i] = true;
                }
                last = std::max(last, line + lines);
                owed = true;
            } else if (what == 5) {
                standAt(line);
                ASSERT_EQ(KalGetDIBOpData(list, row.data(), uint16_t(rowBytes)), 0);
                check(line, row.data(), rowBytes);
            } else if (what == 6) {
                standAt(line);
                readBands(list, line);
                owed = false;
            } else if (what == 7) { // the end op goes behind the last line, whatever was done since
                ASSERT_EQ(KalSeekEndOp(list), 0);
                if (owed && last < height) {
                    ASSERT_EQ(KalDIBPosToLineNumber(list), last);
                }
                owed = false;
            } else if (what == 8) {
                KalShrinkOpList(list);
            } else if (below(5) == 0) {
                OpList* clone = nullptr;
                ASSERT_EQ(KalCloneOpList(list, &clone), 0);
                ASSERT_EQ(KalSeekDIBOp(clone, 0), 0);
                readBands(clone, 0);
                KalCloseOpList(clone);
            }
            ASSERT_EQ(KalGetOpError(list), 0);
            if (HasFailure())
                return KalCloseOpList(list);
        }
        Bytes row(rowBytes);
        const auto blocks = list->blockCount;
        KalSeekDIBScanLineOffset(list, uint16_t(top + height - 1), 0);
        ASSERT_NE(KalPutDIBOpData(list, row.data(), rowBytes), KAL_OP_FAILED);
        EXPECT_EQ(KalPutDIBOpData(list, row.data(), rowBytes), KAL_OP_FAILED) << "past the last line";
        EXPECT_EQ(KalGetOpError(list), -300);
        EXPECT_EQ(val(list->blockCount), blocks);
        KalCloseOpList(list);
    }
}

TEST_F(DibList, LayoutsAndAddresses) {
    const struct {
        uint16_t width, depth, depthSet, rowBytes;
    } cases[] = {{10, 1, 1, 4},  {10, 24, 24, 32}, {3, 4, 4, 4},  {3, 3, 4, 4},  {3, 6, 8, 4},
                 {1, 16, 24, 4}, {2, 0, 24, 8},    {33, 1, 1, 8}, {5, 9, 24, 16}};
    OpList* list = openBitmap(16384);
    for (const auto& each : cases) {
        ASSERT_EQ(KalSetupOpList(list, 0, 0, each.width, 7, each.depth, 0, 100), 0);
        EXPECT_EQ(val(list->dib->bitsPerPixel), each.depthSet);
        EXPECT_EQ(val(list->dib->rowBytes), each.rowBytes) << each.width << "x" << each.depth;
        EXPECT_EQ(val(list->curBlock->capacity), 7u * each.rowBytes + 36);
    }
    ASSERT_EQ(KalSetupOpList(list, 3, 1000, 400, 100, 8, 9, 1000), 0);
    EXPECT_EQ(val(list->dib->userWord), 9);
    auto* block = reinterpret_cast<opblock*>(list->blocks->first + 1);
    for (uint32_t capacity : {16000u, 16000u, 8036u}) {
        EXPECT_EQ(val(block->capacity), capacity);
        EXPECT_EQ(val(block->vmem), nullptr) << "no memory before the first row";
        block = static_cast<opblock*>(KalNextNode(block));
    }
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 1045, 2), 0);
    EXPECT_EQ(val(list->pos), 0x00100000u + 5 * 400 + 2);
    Bytes row(400, 1);
    EXPECT_EQ(KalGetDIBOpData(list, row.data(), 398), 0);
    EXPECT_EQ(row[397] | row[398] << 1, 2) << "never written: zeros";
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 999, 5), -300) << "below the top: stands at the first line";
    EXPECT_EQ(val(list->pos), 5u);
    EXPECT_EQ(KalGetOpError(list), 0);
    EXPECT_EQ(KalVMemUsed(), 0);
    KalPutDIBOpData(list, row.data(), 400);
    KalShrinkOpList(list);
    EXPECT_EQ(val(list->curBlock->capacity), 16000u) << "only the last block is cut";
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 1099, 0), 0);
    EXPECT_EQ(KalPutDIBOpData(list, row.data(), 400), 0x00200000u + 19 * 400);
    KalSeekOp(list, 0);
    EXPECT_EQ(val(list->endPos), 0x00200000u + 8000) << "in the spare bytes";
    KalShrinkOpList(list);
    block = reinterpret_cast<opblock*>(list->blocks->last + 1);
    EXPECT_EQ(val(block->capacity), 8004u);
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 1100, 0), 0)
        << "the line past the last stands in the last block";
    EXPECT_EQ(KalGetDIBOpData(list, row.data(), 400), -300);
    EXPECT_EQ(KalGetOpError(list), -300);
    KalCloseOpList(list);
}

TEST_F(DibList, OpsOfOtherSizesAreBoundedAndThoseThatFitNoneAreTold) {
    for (uint16_t depth : Words{1, 4, 8, 24}) {
        OpList* list = openBitmap();
        ASSERT_EQ(KalSetupOpList(list, 0, 0, 10, 4, depth, 0, 60000), 0);
        Op wide = bandOf(0, 50, 2, depth, depth);
        wide.payload[6] = wide.payload[7] = 255; // tells of more lines than it holds
        if (depth == 1)
            wide.type = KAL_OP_DIB1;
        ASSERT_NE(putOp(list, wide), KAL_OP_FAILED) << "clipped";
        EXPECT_EQ(KalDIBPosToLineNumber(list), 2u);
        Bytes row(val(list->dib->rowBytes));
        KalSeekDIBScanLineOffset(list, 1, 0);
        EXPECT_EQ(KalGetDIBOpData(list, row.data(), uint16_t(row.size())), 0);
        const Bytes line = rowOf(&wide.payload[KAL_DIB_OP_HEADER + lineBytesOf(50, depth)],
                                 depth == 24 ? 10 : 50, depth, uint32_t(row.size()));
        EXPECT_EQ(row, line);
        list->dib->maxOpBytes = uint16_t(lineBytesOf(10, depth) - 1);
        KalSeekOp(list, 0);
        EXPECT_EQ(KalGetOp(list), nullptr) << "not one line is wanted";
        EXPECT_EQ(KalGetOpError(list), 0);
        EXPECT_EQ(putOp(list, {KAL_OP_DIB, Bytes(11)}), KAL_OP_FAILED) << "not even a header";
        KalCloseOpList(list);
    }
    const struct {
        uint16_t width, depth;
        int16_t status;
    } lines[] = {{65518, 8, 0}, {65520, 8, -105}, {16378, 24, 0}, {16380, 24, -105}};
    for (const auto& each : lines) {
        OpList* list = openBitmap();
        ASSERT_EQ(KalSetupOpList(list, 0, 0, each.width, 2, each.depth, 0, 65535), 0);
        KalSeekOp(list, 0);
        EXPECT_EQ(restOf(list).size(), each.status == 0 ? 2u : 0u) << each.width;
        EXPECT_EQ(KalGetOpError(list), each.status);
        KalCloseOpList(list);
    }
}

TEST_F(DibList, ListsThatAreNotSetUpAndLayoutsThatCannotBeAreRefused) {
    OpList* list = openBitmap(64);
    EXPECT_EQ(KalSeekOp(list, 0), 0);
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 5, 0), 0);
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 65535, 2, 24, 0, 1000), -105) << "a row past 16 bits";
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 100, 2, 8, 0, 1000), -101) << "a row longer than a block";
    EXPECT_EQ(val(list->blockCount), 0);
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 10, 2, 8, 0, 1000), 0) << "and can be set up after all";
    auto* attached = static_cast<char*>(KalAllocSMem(6));
    std::memcpy(attached, "notes", 6);
    list->dib->attachment = attached;
    OpList* clone = nullptr;
    ASSERT_EQ(KalCloneDIBOpList(list, &clone), 0);
    EXPECT_STREQ(static_cast<char*>(val(clone->dib->attachment)), "notes");
    for (OpList* each : {list, clone}) {
        KalFreeSMem(each->dib->attachment); // its owner's
        KalCloseOpList(each);
    }
    for (int call = 0; call < 4; call++) {
        list = openBitmap();
        Bytes row(8);
        EXPECT_EQ(KalDIBPosToLineNumber(list), 0u);
        EXPECT_TRUE(call == 0   ? putOp(list, {KAL_OP_DIB, Bytes(40)}) == KAL_OP_FAILED
                    : call == 1 ? KalGetDIBOp(list) == nullptr
                    : call == 2 ? KalGet24DIBOp(list) == nullptr
                                : KalGetDIBOpData(list, row.data(), 8) == -300)
            << call;
        EXPECT_EQ(KalGetOpError(list), -300);
        EXPECT_EQ(KalCloneDIBOpList(list, &clone), -300);
        EXPECT_EQ(clone, nullptr);
        KalCloseOpList(list);
    }
}

TEST_F(DibList, EachAllocationFailingGivesItsStatus) {
    const Op band = bandOf(0, 50, 40, 24, 1);
    KalCloseVMem();
    withEachAllocationFailing([&](int n) {
        if (KalOpenVMem(0) != 0)
            return;
        OpList* list = nullptr;
        OpList* clone = nullptr;
        int16_t status = KalTempOpList(&list, KAL_OPL_VMEM | KAL_OPL_DIB);
        if (status == 0) {
            list->blockSize = 1000;
            status = KalSetupOpList(list, 0, 0, 50, 40, 24, 0, 2000);
        }
        if (status == 0) {
            const bool put = putOp(list, band) != KAL_OP_FAILED;
            KalSeekOp(list, 0);
            const size_t bands = restOf(list).size();
            status = KalGetOpError(list);
            EXPECT_TRUE(bands == 5 || status != 0 || !put) << bands << " bands at " << n;
            if (status == 0)
                status = KalCloneOpList(list, &clone);
        }
        EXPECT_TRUE(status == 0 || status == -100 || status == -101 || status == -105)
            << status << " at " << n;
        KalCloseOpList(clone);
        KalCloseOpList(list);
        KalCloseVMem();
    });
    EXPECT_EQ(KalOpenVMem(0), 0);
}
