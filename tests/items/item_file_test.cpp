// Item files against a model: what each id holds.
#include "tests/items/items.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <cstring>
#include <map>
#include <random>

namespace {

struct Layout {
    uint16_t format;
    uint32_t base; // base offset of the item file in its stream
};

class ItemFileModel : public FolderTest, public ::testing::WithParamInterface<Layout> {};

Bytes inPieces(IFILE* file, uint16_t id, uint32_t piece) {
    Bytes all;
    Bytes part(piece);
    KalReadIFile(file, part.data(), 0, id); // the stream stands at the item's start: it starts over
    while (const uint32_t got = KalIncReadIFile(file, part.data(), piece, id))
        all.insert(all.end(), part.begin(), part.begin() + got);
    return all;
}

} // namespace

TEST_P(ItemFileModel, RandomSequencesMatchAlsoAfterReopening) {
    const auto [format, base] = GetParam();
    for (uint32_t seed = 1; seed <= 4; seed++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        HeapBalance balance;
        std::mt19937 random(seed);
        auto below = [&](uint32_t n) { return uint32_t(random() % n); };
        const Bytes before = randomBytes(base, seed);
        writeFile("f", before);
        std::map<uint16_t, Bytes> model;
        SFILE* stream = nullptr;
        IFILE* file = nullptr;
        auto open = [&](uint16_t create) {
            ASSERT_EQ(KalOpenFile(&stream, "f", KAL_MODE_UPDATE, 0), 0);
            KalSetOffset(stream, base);
            stream->mode = uint16_t(stream->mode | create); // make a new item file behind the base
            ASSERT_EQ(KalMakeIFile(&file, stream, format), 0);
        };
        open(KAL_MODE_CREATE);
        for (int step = 0; step < 700; step++) {
            const auto id = uint16_t(below(60));
            const Bytes data = randomBytes(below(5) == 0 ? below(3000) : below(60), random() & 0xFFFF);
            const auto length = uint32_t(data.size());
            switch (below(6)) {
            case 0:
            case 1:
                ASSERT_EQ(KalWriteIFile(file, data.data(), length, id), length);
                model[id] = data;
                break;
            case 2: {
                const uint32_t added = KalAddIFile(file, data.data(), length, id);
                ASSERT_TRUE(added == length || (added == 0 && model.count(id) != 0)) << "step " << step;
                if (added == length)
                    model[id].insert(model[id].end(), data.begin(), data.end());
                break;
            }
            case 3: // an item taken out by its entry
                if (ItemIndex* entry = KalFindItem(file, id)) {
                    const uint16_t freed = KAL_ITEM_FREE;
                    std::memcpy(entry, &freed, sizeof freed);
                    model.erase(id);
                }
                break;
            case 4:
                if (model.count(id) != 0)
                    ASSERT_EQ(inPieces(file, id, 1 + below(100)), model[id]) << "step " << step;
                else
                    ASSERT_EQ(KalIncReadIFile(file, nullptr, 10, id), 0u);
                break;
            default:
                if (below(10) == 0) {
                    ASSERT_EQ(KalFlushIFile(file), 0);
                } else if (below(10) == 0) {
                    ASSERT_EQ(KalFreeIFile(file), 0);
                    ASSERT_EQ(stream->close(stream), 0);
                    open(0);
                }
            }
            if (HasFatalFailure())
                return;
        }
        for (int pass = 0; pass < 2; pass++) { // as it stands, and reopened
            for (uint16_t id = 0; id < 60; id++) {
                const bool held = model.count(id) != 0;
                ASSERT_EQ(KalGetItemSize(file, id), held ? int32_t(model[id].size()) : -1);
                ASSERT_EQ(bytesOf(item(file, id)), held ? model[id] : bytesOf("none")) << "id " << id;
            }
            ASSERT_EQ(KalFreeIFile(file), 0);
            ASSERT_EQ(stream->close(stream), 0);
            open(0);
        }
        ASSERT_EQ(KalCloseIFile(file), 0);
        const Bytes all = readFile("f");
        EXPECT_EQ(Bytes(all.begin(), all.begin() + base), before)
            << "what stands before the base is not ours";
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, ItemFileModel,
                         ::testing::Values(Layout{0x0001, 0}, Layout{0x8001, 0}, Layout{0x0001, 777},
                                           Layout{0x8001, 777}),
                         [](const auto& tested) {
                             return std::string(tested.param.format & 0x8000 ? "Wide" : "Narrow") +
                                    (tested.param.base != 0 ? "WithBase" : "Plain");
                         });

class ItemFile : public FolderTest {};

TEST_F(ItemFile, RewritesTakeTheSmallestFreeExtent) {
    IFILE* file = openItems(kNew, 0);
    auto offset = [&](uint16_t id) { return KalFindItem(file, id)->narrow.offset; };
    auto write = [&](uint16_t id, uint32_t length) {
        const Bytes data(length, uint8_t(id));
        ASSERT_EQ(KalWriteIFile(file, data.data(), length, id), length);
    };
    for (auto [id, length] : {std::pair{1, 100}, {2, 50}, {3, 50}, {4, 80}})
        write(uint16_t(id), uint32_t(length));
    EXPECT_EQ(offset(1), 84u) << "behind the room for ten entries";
    write(1, 90); // no longer than before: its own place
    EXPECT_EQ(offset(1), 84u);
    EXPECT_EQ(KalGetItemSize(file, 1), 90);
    const uint32_t second = offset(2), third = offset(3);
    write(2, 300); // to the end; its 50 bytes are free now
    write(3, 400);
    EXPECT_EQ(offset(2), 84u + 280);
    EXPECT_EQ(file->count, 6);
    write(5, 50); // two free extents of equal size: the earlier in the index
    EXPECT_EQ(offset(5), second);
    write(6, 40);
    EXPECT_EQ(offset(6), third);
    EXPECT_EQ(file->count, 6) << "free entries keep their place and are taken again";
    EXPECT_EQ(KalWriteIFile(file, "x", 1, KAL_ITEM_FREE), 0u) << "not a usable id";
    EXPECT_EQ(KalCloseIFile(file), 0);
}

TEST_F(ItemFile, AdditionsGrowInPlaceOnly) {
    IFILE* file = nullptr;
    ASSERT_EQ(KalOpenTempIFile(&file), 0);
    KalWriteIFile(file, "aaa", 3, 1);
    KalWriteIFile(file, "bbb", 3, 2);
    EXPECT_EQ(KalAddIFile(file, "xx", 2, 1), 0u) << "another item stands behind it";
    EXPECT_EQ(KalAddIFile(file, "xx", 2, 2), 2u);
    EXPECT_EQ(KalAddIFile(file, "new", 3, 3), 3u);
    EXPECT_EQ(item(file, 1), "aaa");
    EXPECT_EQ(item(file, 2), "bbbxx");
    const Bytes filler(65533, 'f');
    EXPECT_EQ(KalAddIFile(file, filler.data(), 65533, 3), 0u) << "a narrow size holds 65,535";
    EXPECT_EQ(item(file, 3), "new");
    EXPECT_EQ(KalAddIFile(file, filler.data(), 65532, 3), 65532u);
    EXPECT_EQ(KalGetItemSize(file, 3), 65535);
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_TRUE(filesIn(".").empty()) << "a temporary file goes";
}

TEST_F(ItemFile, PiecesStartOverWhenTheStreamWasUsedOtherwise) {
    IFILE* file = openItems(kNew, KAL_ITEMS_WIDE);
    KalWriteIFile(file, "0123456789", 10, 1);
    KalWriteIFile(file, "abc", 3, 2);
    char piece[8] = "";
    EXPECT_EQ(KalIncReadIFile(file, piece, 4, 1), 4u);
    EXPECT_EQ(KalIncReadIFile(file, piece, 4, 1), 4u);
    EXPECT_EQ(std::string(piece, 4), "4567");
    EXPECT_EQ(KalIncReadIFile(file, piece, 4, 1), 2u);
    EXPECT_EQ(KalIncReadIFile(file, piece, 4, 1), 0u) << "exhausted";
    EXPECT_EQ(KalReadIFile(file, piece, 8, 2), 3u);
    EXPECT_EQ(KalIncReadIFile(file, piece, 4, 1), 4u);
    EXPECT_EQ(std::string(piece, 4), "0123") << "started over";
    EXPECT_EQ(KalReadIFile(file, piece, 8, 9), 0u);
    EXPECT_EQ(KalCloseIFile(file), 0);
}
