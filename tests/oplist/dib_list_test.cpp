// Bitmap lists against a model: the rows, by line.
#include "tests/oplist/lists.h"

namespace {

// A row as it is stored, from a line of an op.
Bytes rowOf(const uint8_t* line, uint32_t width, uint32_t depth, uint32_t rowBytes) {
    Bytes row(rowBytes);
    if (depth == 24)
        for (size_t x = 0; x < std::min(width, rowBytes / 3); x++)
            std::copy_n(line + 4 * x, 3, row.begin() + long(3 * x));
    else
        std::copy_n(line, std::min(rowBytes, KalDIBLineBytes(width, depth)), row.begin());
    return row;
}

// Of random lines.
Op randomBand(uint32_t line, uint16_t width, uint16_t lines, uint16_t depth, uint32_t seed) {
    return bandOf(uint16_t(line), width, lines, depth,
                  randomBytes(lines * KalDIBLineBytes(width, depth), seed));
}

class DibList : public ListTest {
protected:
    // Sets a list up in a way of the seed's.
    void setUp(uint32_t seed) {
        random_.seed(seed);
        depth_ = (Words{1, 4, 8, 24}).begin()[seed % 4];
        width_ = uint16_t(1 + below(seed % 3 == 0 ? 900 : 40));
        height_ = uint16_t(1 + below(70));
        top_ = uint16_t(seed % 2 == 0 ? 5 : 65536 - height_);
        rowBytes_ = KalDIBRowBytes(width_, depth_);
        const uint32_t whole = rowBytes_ * height_ + 36,
                       part = rowBytes_ * (1 + below(20)) + below(rowBytes_);
        const uint32_t blockSize = seed % 5 == 0 ? whole : seed % 7 == 0 && rowBytes_ > 8 ? rowBytes_ : part;
        perBlock_ = blockSize < whole ? blockSize / rowBytes_ : height_ + 1u;
        most_ = uint16_t(KalDIBLineBytes(width_, depth_) * 4 / 3 + 8 + below(3000));
        list_ = openBitmap(width_, height_, depth_, blockSize, most_, top_);
        EXPECT_EQ(list_->blockCount == 1, blockSize >= whole);
        rows_.assign(height_, Bytes());
        last_ = 0;
    }
    uint32_t below(uint32_t n) { return uint32_t(random_() % n); }
    void standAt(uint32_t line) {
        ASSERT_EQ(KalSeekDIBScanLineOffset(list_, uint16_t(top_ + line), 0), KAL_OK);
        ASSERT_EQ(val(list_->pos), line / perBlock_ * 0x100000 + line % perBlock_ * rowBytes_);
        ASSERT_EQ(KalDIBPosToLineNumber(list_), line);
        ASSERT_EQ(val(list_->dib->curLine), line);
    }
    void wasPut(uint32_t line, Bytes row) {
        rows_[line] = std::move(row);
        last_ = std::max(last_, line + 1);
    }
    // Of a row never put nothing is said.
    void check(uint32_t line, const Bytes& row, size_t count) {
        EXPECT_TRUE(rows_[line].empty() || std::equal(&row[0], &row[0] + count, &rows_[line][0])) << line;
    }
    void checkBands(OpList* list, uint32_t line) {
        const uint32_t lineBytes = KalDIBLineBytes(width_, depth_);
        const uint32_t counted = depth_ == 24 ? rowBytes_ * 4 / 3 : lineBytes;
        for (const Op& op : restOf(list)) {
            const uint32_t lines = std::min<uint32_t>(most_ / counted, height_ - line);
            ASSERT_EQ(op.payload.size(), lines * counted + KAL_DIB_OP_HEADER);
            uint16_t words[5];
            std::memcpy(words, op.payload.data(), sizeof words);
            EXPECT_EQ(std::vector<uint32_t>(words, words + 5),
                      (std::vector<uint32_t>{7, uint16_t(top_ + line), width_, lines, depth_}));
            for (uint32_t i = 0; i < lines; i++, line++)
                check(line, rowOf(&op.payload[KAL_DIB_OP_HEADER + i * lineBytes], width_, depth_, rowBytes_),
                      size_t(width_) * depth_ / 8);
        }
        EXPECT_EQ(line, height_);
        EXPECT_EQ(val(list->dib->curLine), 0);
    }
    void step() {
        const uint32_t line = below(height_), what = below(10);
        Bytes row = randomBytes(rowBytes_, uint32_t(random_()));
        if (what < 7)
            standAt(line);
        if (what < 3) {
            ASSERT_NE(KalPutDIBOpData(list_, row.data(), rowBytes_), KAL_OP_FAILED);
            wasPut(line, row);
        } else if (what < 5) {
            const auto lines = uint16_t(1 + below(std::min<uint32_t>(9, height_ - line)));
            const auto width = uint16_t(width_ + below(3) * 20); // clipped
            Op band = randomBand(line, width, lines, depth_, uint32_t(random_()));
            band.type = depth_ == 1 && below(2) == 0 ? KAL_OP_DIB1 : KAL_OP_DIB;
            band.payload[7] = uint8_t(band.payload[7] | below(2) * 255); // tells of more lines than it holds
            ASSERT_NE(putOp(list_, band, what == 3 ? KalPutDIBOp : KalPutOp), KAL_OP_FAILED);
            ASSERT_EQ(val(list_->putPending), 1);
            for (uint32_t i = 0; i < lines; i++)
                wasPut(line + i, rowOf(&band.payload[KAL_DIB_OP_HEADER + i * KalDIBLineBytes(width, depth_)],
                                       width, depth_, rowBytes_));
        } else if (what == 5) {
            ASSERT_EQ(KalGetDIBOpData(list_, row.data(), uint16_t(rowBytes_)), KAL_OK);
            check(line, row, rowBytes_);
        } else if (what == 6) {
            checkBands(list_, line);
        } else if (what == 7) { // the end op goes behind the last line, whatever was done since
            const bool owed = list_->putPending != 0;
            ASSERT_EQ(KalSeekEndOp(list_), KAL_OK);
            // An end op takes 8 bytes of a block.
            EXPECT_TRUE(!owed || last_ == height_ || rowBytes_ < 8 || KalDIBPosToLineNumber(list_) == last_);
        } else if (what == 8) {
            KalShrinkOpList(list_);
        } else if (below(5) == 0) {
            OpList* clone = nullptr;
            ASSERT_EQ(KalCloneOpList(list_, &clone), KAL_OK);
            ASSERT_EQ(KalSeekDIBOp(clone, 0), KAL_OK);
            checkBands(clone, 0);
            close(clone);
        }
        ASSERT_EQ(KalGetOpError(list_), KAL_OK);
    }

    std::mt19937 random_;
    OpList* list_ = nullptr;
    uint16_t depth_, width_, height_, top_, most_;
    uint32_t rowBytes_, perBlock_;
    std::vector<Bytes> rows_;
    uint32_t last_; // one past the last line put
};

} // namespace

TEST_F(DibList, RandomRowsAndBandsMatch) {
    for (uint32_t seed = firstSeed(), end = seed + 60; seed != end && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        setUp(seed);
        const auto blocks = list_->blockCount;
        for (int i = 0; i < 60 && !HasFailure(); i++)
            step();
        standAt(height_ - 1u);
        const Bytes row(rowBytes_);
        EXPECT_NE(KalPutDIBOpData(list_, row.data(), rowBytes_), KAL_OP_FAILED);
        EXPECT_EQ(KalPutDIBOpData(list_, row.data(), rowBytes_), KAL_OP_FAILED) << "past the last line";
        // One is added where the end op fits in none.
        EXPECT_LE(val(list_->blockCount), blocks + (list_->blockSize < 2 * KAL_OP_HEADER ? 1 : 0));
        close(list_, KAL_ERR_POSITION);
    }
}

TEST_F(DibList, LayoutsAndAddresses) {
    // Width, depth, and what becomes of the depth and of the bytes of a row.
    for (const auto& [width, depth, depthSet, rowBytes] : std::initializer_list<std::array<uint16_t, 4>>{
             {10, 1, 1, 4}, {33, 1, 1, 8}, {3, 3, 4, 4}, {3, 6, 8, 4}, {5, 9, 24, 16}, {2, 0, 24, 8}}) {
        OpList* list = openBitmap(width, 7, depth);
        EXPECT_EQ(KalSetupOpList(list, 7, 0, width, 7, depth, 9, 1000), KAL_OK);
        EXPECT_EQ(list->blockCount, 1) << "set up anew";
        EXPECT_EQ(val(list->dib->bitsPerPixel), depthSet);
        EXPECT_EQ(val(list->dib->rowBytes), rowBytes) << width << "x" << depth;
        EXPECT_EQ(val(list->curBlock->capacity), 7u * rowBytes + 36);
        close(list);
    }
    OpList* list = openBitmap(400, 100, 8, 16384, 1000, 1000); // blocks of 40, 40 and 20 lines
    Bytes row(400, 1);
    EXPECT_EQ(val(list->dib->userWord), 9);
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 1045, 2) + val(list->pos), 0x00100000u + 5 * 400 + 2);
    EXPECT_EQ(KalGetDIBOpData(list, row.data(), 398), KAL_OK);
    EXPECT_EQ(row[397] | row[398] << 1, 2) << "never written: zeros";
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 999, 5), KAL_ERR_POSITION) << "below the top: the first line";
    EXPECT_EQ(val(list->pos) + val(list->curBlock->index) + uint32_t(KalVMemUsed()), 5u);
    const auto put = [&] { return KalPutDIBOpData(list, row.data(), 400); };
    const auto capacity = [&] { return val(list->curBlock->capacity); };
    EXPECT_NE(put(), KAL_OP_FAILED);
    KalShrinkOpList(list);
    EXPECT_EQ(capacity(), 16000u) << "only the last block is cut";
    KalSeekDIBScanLineOffset(list, 1099, 0);
    EXPECT_EQ(put(), 0x00200000u + 19 * 400);
    KalShrinkDIBOpList(list);
    EXPECT_EQ(capacity(), 8008u) << "with room for the end op and one more header";
    KalSeekOp(list, 0);
    EXPECT_EQ(val(list->endPos), 0x00200000u + 8000) << "in the spare bytes";
    KalShrinkOpList(list);
    EXPECT_EQ(KalSeekDIBScanLineOffset(list, 1100, 0), KAL_OK) << "the line past the last";
    EXPECT_EQ(capacity(), 8004u);
    EXPECT_EQ(KalGetDIBOpData(list, row.data(), 400), KAL_ERR_POSITION);
    close(list, KAL_ERR_POSITION);
}

TEST_F(DibList, LinesThatFitNoOpAreTold) {
    OpList* small = openBitmap(10, 4, 8, 1 << 20, 9);
    EXPECT_TRUE(restOf(small).empty()) << "not one line is wanted";
    close(small);
    const std::pair<uint16_t, uint16_t> fit[] = {{65518, 8}, {16378, 24}, {65520, 8}, {16380, 24}};
    for (const auto& [width, depth] : fit) {
        const bool fits = width % 4 != 0;
        OpList* list = openBitmap(width, 2, depth, 1 << 20, 65535);
        EXPECT_EQ(restOf(list).size(), fits ? 2u : 0u) << width;
        close(list, fits ? int{KAL_OK} : int{KAL_ERR_BUFFER});
    }
}

TEST_F(DibList, ListsThatAreNotSetUpAndLayoutsThatCannotBeAreRefused) {
    OpList *list = openBitmap(0, 0, 0, 20), *clone = nullptr;
    EXPECT_EQ(KalSeekOp(list, 0) | KalSeekDIBScanLineOffset(list, 5, 0), KAL_OK);
    EXPECT_EQ(KalGetOp(list), nullptr);
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 65535, 2, 24, 0, 1000), KAL_ERR_BUFFER) << "a row past 16 bits";
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 0, 2, 8, 0, 1000), KAL_ERR_BUFFER) << "rows without bytes";
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 100, 2, 8, 0, 1000), KAL_ERR_VMEM) << "a row longer than a block";
    EXPECT_EQ(KalCloneDIBOpList(list, &clone), KAL_ERR_POSITION);
    EXPECT_EQ(KalSetupOpList(list, 0, 0, 10, 2, 8, 0, 1000), KAL_OK) << "and can be set up after all";
    list->dib->attachment = KalAllocSMem(6);
    std::strcpy(static_cast<char*>(val(list->dib->attachment)), "notes");
    ASSERT_EQ(KalCloneDIBOpList(list, &clone), KAL_OK);
    EXPECT_STREQ(static_cast<char*>(val(clone->dib->attachment)), "notes");
    for (OpList* each : {list, clone}) {
        KalFreeSMem(each->dib->attachment); // its owner's
        close(each);
    }
    for (int call = 0; call < 5; call++) {
        list = openBitmap(call == 0 ? 10 : 0, 4, 8);
        Bytes row(8);
        EXPECT_TRUE(call == 0   ? putOp(list, {KAL_OP_DIB, Bytes(11)}) == KAL_OP_FAILED // not even a header
                    : call == 1 ? putOp(list, {KAL_OP_DIB, Bytes(40)}) == KAL_OP_FAILED
                    : call == 2 ? KalGetDIBOp(list) == nullptr
                    : call == 3 ? KalGet24DIBOp(list) == nullptr
                                : KalGetDIBOpData(list, row.data(), 8) == KAL_ERR_POSITION);
        EXPECT_EQ(KalSeekOp(list, 0), KAL_OK);
        EXPECT_EQ(KalDIBPosToLineNumber(list), 0u);
        EXPECT_TRUE(call == 0 || KalCloneDIBOpList(list, &clone) == KAL_ERR_POSITION);
        close(list, KAL_ERR_POSITION);
    }
}
