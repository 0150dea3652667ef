// Bitmap lists: rows in, rows out.
#include "tests/support/faults.h"
#include "tests/support/ops.h"

#include <kal/vmem.h>

#include <algorithm>

namespace {

class DibList : public FolderTest {
protected:
    DibList() {
        KalSetMaxVMem(64 << 20);
        EXPECT_EQ(KalOpenVMem(0), 0);
    }
    ~DibList() override {
        EXPECT_EQ(KalVMemUsed(), 0) << "blocks were left";
        EXPECT_EQ(KalCloseVMem(), 0);
    }
    HeapBalance balance_; // from before the manager to behind it
    static OpList* open(uint32_t blockSize = 0) {
        OpList* list = nullptr;
        EXPECT_EQ(KalTempOpList(&list, KAL_OPL_VMEM | KAL_OPL_DIB), 0);
        if (blockSize != 0)
            list->blockSize = blockSize;
        return list;
    }
};

// A picture as rows of exactly the bytes that its pixels need.
struct Picture {
    uint16_t width, height, depth;
    std::vector<Bytes> rows;
    uint32_t pixelBytes() const { return (uint32_t(width) * depth + 7) / 8; }
    uint32_t opLineBytes() const {
        return depth == 24 ? 4u * width : ((uint32_t(width) * depth + 15) >> 3) & ~1u;
    }
};

Picture randomPicture(uint16_t width, uint16_t height, uint16_t depth, uint32_t seed) {
    Picture picture = {width, height, depth, {}};
    for (uint32_t i = 0; i < height; i++)
        picture.rows.push_back(randomBytes(picture.pixelBytes(), seed + i));
    return picture;
}

// Lines of an op: as a list makes and takes them, from and to pixels.
Bytes opLine(const Picture& picture, const Bytes& row) {
    Bytes line(picture.opLineBytes());
    if (picture.depth != 24)
        std::copy(row.begin(), row.end(), line.begin());
    else
        for (size_t x = 0; x < picture.width; x++)
            std::copy_n(row.begin() + long(3 * x), 3, line.begin() + long(4 * x));
    return line;
}

Bytes pixelsOf(const Picture& picture, const uint8_t* line) {
    Bytes row(picture.pixelBytes());
    if (picture.depth != 24)
        std::copy_n(line, row.size(), row.begin());
    else
        for (size_t x = 0; x < picture.width; x++)
            std::copy_n(line + 4 * x, 3, row.begin() + long(3 * x));
    return row;
}

Op band(const Picture& picture, uint32_t first, uint32_t lines) {
    Bytes bytes(KAL_DIB_OP_HEADER);
    const uint16_t words[] = {0, uint16_t(first), picture.width, uint16_t(lines), picture.depth};
    std::memcpy(bytes.data(), words, sizeof words);
    for (uint32_t i = 0; i < lines; i++) {
        const Bytes line = opLine(picture, picture.rows[first + i]);
        bytes.insert(bytes.end(), line.begin(), line.end());
    }
    return {KAL_OP_DIB, bytes};
}

// All bands from the first line on.
std::vector<Bytes> readAll(OpList* list, const Picture& picture, uint16_t left, uint16_t top) {
    std::vector<Bytes> rows;
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, top, 0), 0);
    while (void* op = KalGetOp(list)) {
        const auto* bytes = static_cast<const uint8_t*>(op);
        uint16_t words[4];
        std::memcpy(words, bytes, sizeof words);
        EXPECT_EQ(KalOpType(op), KAL_OP_DIB);
        EXPECT_EQ(words[0], left);
        EXPECT_EQ(words[1], uint16_t(top + rows.size()));
        EXPECT_EQ(words[2], picture.width);
        EXPECT_EQ(bytes[8], picture.depth);
        for (uint32_t i = 0; i < words[3]; i++)
            rows.push_back(pixelsOf(picture, bytes + KAL_DIB_OP_HEADER + i * picture.opLineBytes()));
        KalFreeSMem(KalOpBlock(op));
    }
    EXPECT_EQ(KalGetOpError(list), 0);
    EXPECT_EQ(val(list->dib->curLine), 0) << "the end of the image";
    return rows;
}

} // namespace

TEST_F(DibList, LayoutsAndAddresses) {
    const struct {
        uint16_t width, depth, depthSet, rowBytes;
    } cases[] = {{10, 1, 1, 4},  {10, 24, 24, 32}, {3, 4, 4, 4},  {3, 3, 4, 4},  {3, 6, 8, 4},
                 {1, 16, 24, 4}, {1, 32, 24, 4},   {2, 0, 24, 8}, {33, 1, 1, 8}, {5, 24, 24, 16}};
    OpList* list = open(16384);
    for (const auto& each : cases) {
        ASSERT_EQ(KalSetupOpList(list, 0, 0, each.width, 7, each.depth, 0, 100), 0);
        EXPECT_EQ(val(list->dib->bitsPerPixel), each.depthSet);
        EXPECT_EQ(val(list->dib->rowBytes), each.rowBytes) << each.width << "x" << each.depth;
        EXPECT_EQ(val(list->curBlock->capacity), 7u * each.rowBytes + 36);
    }
    ASSERT_EQ(KalSetupOpList(list, 3, 1000, 400, 100, 8, 9, 1000), 0);
    EXPECT_EQ(val(list->blockCount), 3);
    auto* block = reinterpret_cast<opblock*>(list->blocks->first + 1);
    for (uint32_t capacity : {16000u, 16000u, 8036u}) {
        EXPECT_EQ(val(block->capacity), capacity);
        EXPECT_EQ(val(block->vmem), nullptr) << "no memory before the first row";
        block = static_cast<opblock*>(KalNextNode(block));
    }
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 1045, 2), 0);
    EXPECT_EQ(val(list->pos), 0x00100000u + 5 * 400 + 2);
    EXPECT_EQ(val(list->dib->curLine), 45);
    EXPECT_EQ(KalDIBPosToLineNumber(list), 45u);
    Bytes row(400, 1);
    EXPECT_EQ(KalGetDIBOpData(list, row.data(), 398), 0);
    EXPECT_EQ(Bytes(row.begin(), row.begin() + 398), Bytes(398)) << "never written: zeros";
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 999, 5), -300) << "below the top: stands at the first line";
    EXPECT_EQ(val(list->pos), 5u);
    EXPECT_EQ(KalGetOpError(list), 0);
    EXPECT_EQ(KalVMemUsed(), 0);
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 1100, 0), 0)
        << "the line past the last stands in the last block";
    EXPECT_EQ(KalGetDIBOpData(list, row.data(), 400), -300);
    EXPECT_EQ(KalGetOpError(list), -300);
    KalCloseOpList(list);
}

TEST_F(DibList, PicturesOfEveryKindComeBack) {
    std::mt19937 random(1);
    int tried = 0;
    for (uint16_t depth : Words{1, 4, 8, 24})
        for (uint16_t width : Words{1, 2, 3, 7, 8, 9, 31, 32, 33, 1000})
            for (uint16_t height : Words{1, 2, 61}) {
                const Picture picture = randomPicture(width, height, depth, random() & 0xFFFF);
                const auto left = uint16_t(random()), top = uint16_t(tried % 2 == 0 ? 0 : 65536 - height);
                const uint32_t rowBytes = ((uint32_t(width) * depth + 31) >> 3) & ~3u;
                OpList* list = open(++tried % 3 == 0 ? 0 : rowBytes * (1 + uint32_t(random() % 20)) + 3);
                const auto most = uint16_t(picture.opLineBytes() * 4 / 3 + 8 + random() % 9000);
                ASSERT_EQ(KalSetupOpList(list, left, top, width, height, depth, 0, most), 0);
                if (tried % 2 == 0) { // in bands of any height
                    for (uint32_t line = 0; line < height;) {
                        const uint32_t lines = std::min<uint32_t>(1 + uint32_t(random() % 9), height - line);
                        ASSERT_NE(putOp(list, band(picture, line, lines)), KAL_OP_FAILED);
                        line += lines;
                    }
                    ASSERT_EQ(KalSeekOp(list, 0), 0);
                } else { // row by row, in any order
                    std::vector<uint16_t> order(height);
                    for (uint16_t i = 0; i < height; i++)
                        order[i] = i;
                    std::shuffle(order.begin(), order.end(), random);
                    for (uint16_t line : order) {
                        Bytes row = picture.rows[line];
                        row.resize(rowBytes);
                        ASSERT_EQ(KalSeekDIBScanLineOffset(list, uint16_t(top + line), 0), 0);
                        ASSERT_NE(KalPutDIBOpData(list, row.data(), rowBytes), KAL_OP_FAILED);
                    }
                    ASSERT_EQ(KalSeekOp(list, 0), 0) << "its end op takes no row's place";
                }
                ASSERT_EQ(readAll(list, picture, left, top), picture.rows)
                    << width << "x" << height << "x" << depth;
                OpList* clone = nullptr;
                ASSERT_EQ(KalCloneOpList(list, &clone), 0);
                KalShrinkOpList(list);
                ASSERT_EQ(readAll(list, picture, left, top), picture.rows) << "shrunk";
                ASSERT_EQ(readAll(clone, picture, left, top), picture.rows) << "cloned";
                KalCloseOpList(clone);
                KalCloseOpList(list);
            }
}

TEST_F(DibList, BandsHoldWholeLinesUpToTheirSize) {
    OpList* list = open();
    const Picture picture = randomPicture(100, 25, 8, 1);
    ASSERT_EQ(KalSetupOpList(list, 0, 0, 100, 25, 8, 0, 1000), 0);
    putOp(list, band(picture, 0, 25));
    KalSeekOp(list, 0);
    for (uint32_t lines : {10u, 10u, 5u}) {
        void* op = KalGetOp(list);
        ASSERT_NE(op, nullptr);
        EXPECT_EQ(KalOpSize(op), 100 * lines + 12);
        KalFreeSMem(KalOpBlock(op));
    }
    EXPECT_EQ(KalGetOp(list), nullptr);
    list->dib->maxOpBytes = 99;
    KalSeekOp(list, 0);
    EXPECT_EQ(KalGetOp(list), nullptr) << "not one line fits";
    ASSERT_EQ(KalSetupOpList(list, 0, 0, 5, 2, 24, 0, 1000), 0);
    KalSeekOp(list, 0);
    void* op = KalGetOp(list);
    EXPECT_EQ(KalOpSize(op), 2 * 21 + 12) << "a line counts the row's padding too";
    KalFreeSMem(KalOpBlock(op));
    KalCloseOpList(list);
}

TEST_F(DibList, WiderAndShorterOpsAreBounded) {
    for (uint16_t depth : Words{1, 4, 8, 24}) {
        OpList* list = open();
        ASSERT_EQ(KalSetupOpList(list, 0, 0, 10, 4, depth, 0, 60000), 0);
        const Picture wide = randomPicture(50, 4, depth, depth);
        ASSERT_NE(putOp(list, band(wide, 0, 4)), KAL_OP_FAILED) << "clipped";
        Op lying = band(wide, 0, 2);
        lying.payload[6] = 255; // tells of more lines than it holds
        lying.payload[7] = 255;
        KalSeekDIBScanLineOffset(list, 2, 0);
        ASSERT_NE(putOp(list, lying), KAL_OP_FAILED);
        EXPECT_EQ(KalDIBPosToLineNumber(list), 4u);
        KalSeekDIBScanLineOffset(list, 0, 0);
        Picture narrow = {10, 4, depth, {}};
        const std::vector<Bytes> rows = readAll(list, narrow, 0, 0);
        ASSERT_EQ(rows.size(), 4u);
        const size_t whole = 10u * depth / 8;
        for (size_t i = 0; i < 4; i++)
            EXPECT_TRUE(std::equal(rows[i].begin(), rows[i].begin() + long(whole), wide.rows[i % 2].begin()))
                << i;
        EXPECT_EQ(putOp(list, {KAL_OP_DIB, Bytes(11)}), KAL_OP_FAILED) << "not even a header";
        KalCloseOpList(list);
    }
}

TEST_F(DibList, ListsThatAreNotSetUpAndLayoutsThatCannotBeAreRefused) {
    OpList* list = open(64);
    EXPECT_EQ(KalSeekOp(list, 0), 0);
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 5, 0), 0);
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 65535, 2, 24, 0, 1000), -105) << "a row past 16 bits";
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 100, 2, 8, 0, 1000), -101) << "a row longer than a block";
    EXPECT_EQ(val(list->blockCount), 0);
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 10, 2, 8, 0, 1000), 0) << "and can be set up after all";
    EXPECT_EQ(KalGetOpError(list), 0);
    KalCloseOpList(list);
    list = open();
    Bytes row(8);
    EXPECT_EQ(KalGetDIBOpData(list, row.data(), 8), -300);
    KalCloseOpList(list);
    for (int call = 0; call < 3; call++) {
        list = open();
        EXPECT_EQ(KalDIBPosToLineNumber(list), 0u);
        const bool refused = call == 0   ? putOp(list, {KAL_OP_DIB, Bytes(40)}) == KAL_OP_FAILED
                             : call == 1 ? KalGetDIBOp(list) == nullptr
                                         : KalGet24DIBOp(list) == nullptr;
        EXPECT_TRUE(refused) << call;
        EXPECT_EQ(KalGetOpError(list), -300);
        OpList* clone = list;
        EXPECT_EQ(KalCloneDIBOpList(list, &clone), -300);
        EXPECT_EQ(clone, nullptr);
        KalCloseOpList(list);
    }
}

TEST_F(DibList, ALargePictureUnderASmallLimitIsSetUpAgainAndCloned) {
    KalSetMaxVMem(4 << 20);
    OpList* list = open();
    for (uint16_t side : Words{2000, 10000}) {
        ASSERT_EQ(KalSetupOpList(list, 0, 0, side, side, 8, 0, 60000), 0);
        Bytes row(side);
        for (uint32_t line = 0; line < side; line += 7) {
            for (size_t x = 0; x < row.size(); x += 101)
                row[x] = uint8_t(line + x);
            ASSERT_EQ(KalSeekDIBScanLineOffset(list, uint16_t(line), 0), 0);
            ASSERT_NE(KalPutDIBOpData(list, row.data(), side), KAL_OP_FAILED);
        }
    }
    auto* attached = static_cast<char*>(KalAllocSMem(6));
    std::memcpy(attached, "notes", 6);
    list->dib->attachment = attached;
    OpList* clone = nullptr;
    ASSERT_EQ(KalCloneDIBOpList(list, &clone), 0);
    EXPECT_STREQ(static_cast<char*>(val(clone->dib->attachment)), "notes");
    for (OpList* each : {list, clone}) {
        Bytes row(10000);
        for (uint32_t line = 0; line < 10000; line += 7 * 50) {
            ASSERT_EQ(KalSeekDIBScanLineOffset(each, uint16_t(line), 0), 0);
            ASSERT_EQ(KalGetDIBOpData(each, row.data(), 10000), 0);
            ASSERT_EQ(row[101 * 20], uint8_t(line + 101 * 20));
        }
    }
    for (OpList* each : {list, clone}) {
        KalFreeSMem(each->dib->attachment); // its owner's
        KalCloseOpList(each);
    }
}

TEST(DibListTrouble, EachAllocationFailingGivesItsStatus) {
    const Picture picture = randomPicture(50, 40, 24, 1);
    withEachAllocationFailing([&](int n) {
        if (KalOpenVMem(0) != 0)
            return;
        OpList* list = nullptr;
        int16_t status = KalTempOpList(&list, KAL_OPL_VMEM | KAL_OPL_DIB);
        if (status == 0) {
            list->blockSize = 1000;
            status = KalSetupOpList(list, 0, 0, 50, 40, 24, 0, 2000);
        }
        EXPECT_TRUE(status == 0 || status == -100 || status == -105) << status << " at " << n;
        if (status == 0) {
            putOp(list, band(picture, 0, 40));
            KalSeekOp(list, 0);
            size_t bands = 0;
            while (void* op = KalGetOp(list)) {
                bands++;
                KalFreeSMem(KalOpBlock(op));
            }
            EXPECT_TRUE(bands == 5 || heapFaultHappened()) << bands;
            OpList* clone = nullptr;
            status = KalCloneOpList(list, &clone);
            EXPECT_TRUE(status == 0 || status == -100 || status == -101 || status == -105) << status;
            KalCloseOpList(clone);
        }
        KalCloseOpList(list);
        KalCloseVMem();
    });
}
