// Item files against a model: what each id holds. And what trouble leaves of them.
#include "tests/items/items.h"
#include "tests/support/faults.h"
#include "tests/support/trouble.h"

#include <cerrno>
#include <random>

namespace {

struct Layout {
    const char* name;
    uint16_t format;
    uint32_t base; // base offset of the item file in its stream
    uint16_t backEnd;
};

class ItemModel : public FolderTest, public ::testing::WithParamInterface<Layout> {
protected:
    void lay(uint16_t create) {
        stream_->mode = uint16_t((stream_->mode & ~KAL_MODE_CREATE) | create);
        ASSERT_EQ(KalMakeIFile(&file_, stream_, GetParam().format), 0);
    }
    Bytes wholeStream() const {
        EXPECT_EQ(stream_->seek(stream_, 0, KAL_SEEK_END), 0);
        Bytes all(stream_->pos);
        const uint32_t base = stream_->offset;
        KalSetOffset(stream_, 0);
        EXPECT_EQ(stream_->seek(stream_, 0, KAL_SEEK_START), 0);
        EXPECT_EQ(stream_->read(stream_, all.data(), uint32_t(all.size())), int32_t(all.size()));
        KalSetOffset(stream_, base);
        return all;
    }
    StoredItems stored() const {
        const Bytes all = wholeStream();
        return itemsIn(Bytes(all.begin() + GetParam().base, all.end()));
    }
    Bytes inPieces(uint16_t id, uint32_t piece) {
        Bytes all, part(piece);
        KalReadIFile(file_, part.data(), 0, id); // the stream stands at the item's start: it starts over
        while (const uint32_t got = KalIncReadIFile(file_, part.data(), piece, id))
            all.insert(all.end(), part.begin(), part.begin() + got);
        return all;
    }

    SFILE* stream_ = nullptr;
    IFILE* file_ = nullptr;
};

} // namespace

TEST_P(ItemModel, RandomSequencesMatchAndAnotherReaderFindsTheSame) {
    const auto [name, format, base, backEnd] = GetParam();
    for (uint32_t seed = 1; seed <= 6; seed++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        HeapBalance balance;
        std::mt19937 random(seed);
        const auto below = [&](uint32_t n) { return uint32_t(random() % n); };
        const Bytes before = randomBytes(base, seed);
        ASSERT_EQ(KalOpenFile(&stream_, "f", uint16_t(kNew | backEnd), 0), 0);
        stream_->write(stream_, before.data(), base);
        KalSetOffset(stream_, base);
        lay(KAL_MODE_CREATE);
        // Where room is made first, items may be larger than a flush can move.
        const bool roomy = (format & KAL_ITEMS_WIDE) != 0 && seed % 2 == 0;
        ASSERT_EQ(KalReserveItems(file_, roomy ? 150 : 0), 0);
        std::map<uint16_t, Bytes> model;
        for (int step = 0; step < 500; step++) {
            SCOPED_TRACE(::testing::Message() << "step " << step);
            const auto id = uint16_t(below(60));
            const uint32_t kind = below(9);
            const Bytes data = randomBytes(below(5) != 0             ? below(60)
                                           : roomy && below(30) == 0 ? 60000 + below(80000)
                                                                     : below(3000),
                                           uint32_t(random()));
            const auto length = uint32_t(data.size());
            if (kind < 3) {
                ASSERT_EQ(KalWriteIFile(file_, data.data(), length, id), length);
                model[id] = data;
            } else if (kind == 3) {
                const uint32_t added = KalAddIFile(file_, data.data(), length, id);
                ASSERT_TRUE(added == length || (added == 0 && model.count(id) != 0));
                if (added == length)
                    model[id].insert(model[id].end(), data.begin(), data.end());
            } else if (ItemIndex* entry = KalFindItem(file_, id); kind == 4 && entry != nullptr) {
                entry->narrow.id = KAL_ITEM_FREE;
                model.erase(id);
            } else if (kind == 5 && model.count(id) != 0) {
                ASSERT_EQ(inPieces(id, 1 + below(100)), model[id]);
            } else if (kind == 6) {
                const bool held = model.count(id) != 0;
                ASSERT_EQ(KalGetItemSize(file_, id), held ? int32_t(model[id].size()) : -1);
                ASSERT_EQ(bytesOf(item(file_, id)), held ? model[id] : bytesOf("none"));
            } else if (kind == 7 && below(5) == 0) {
                const auto entries = uint16_t(below(100));
                ASSERT_EQ(KalReserveItems(file_, entries), 0);
                const StoredItems now = stored();
                ASSERT_EQ(now.items, model);
                ASSERT_GE(now.lowest, 4 + entries * (format & KAL_ITEMS_WIDE ? 10u : 8u));
            } else if (kind == 8 && below(5) == 0) {
                const bool flushOnly = below(2) == 0;
                ASSERT_EQ(flushOnly ? KalFlushIFile(file_) : KalFreeIFile(file_), 0);
                ASSERT_EQ(stored().items, model);
                if (!flushOnly)
                    lay(0);
            }
            if (HasFailure())
                return;
        }
        ASSERT_EQ(KalFreeIFile(file_), 0);
        const Bytes all = wholeStream();
        EXPECT_EQ(Bytes(all.begin(), all.begin() + base), before)
            << "what stands before the base is not ours";
        ASSERT_EQ(stored().items, model);
        lay(0);
        for (const auto& [id, bytes] : model)
            ASSERT_EQ(bytesOf(item(file_, id)), bytes) << "id " << id;
        ASSERT_EQ(KalCloseIFile(file_), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, ItemModel,
                         ::testing::Values(Layout{"Narrow", 0x0001, 0, 0},
                                           Layout{"WideWithBase", 0x8001, 777, 0},
                                           Layout{"NarrowInMemory", 0x0001, 0, KAL_MODE_MEMORY},
                                           Layout{"WideInMemory", 0x8001, 0, KAL_MODE_MEMORY}),
                         [](const auto& tested) { return std::string(tested.param.name); });

class ItemTrouble : public FolderTest {};

TEST_F(ItemTrouble, LosesNoItemAndNeverSaysDoneTooEarly) {
    IFILE* made = openItems(kNew, 0);
    for (uint16_t id = 0; id < 10; id++)
        write(made, id, std::string(60, char('a' + id)));
    ASSERT_EQ(KalCloseIFile(made), 0);
    const std::string longer(200, 'L'); // fits no old place, whose bytes the old index still names
    walkTrouble({.run =
                     [&] {
                         IFILE* file = nullptr;
                         int status = KalOpenIFile(&file, "f", KAL_MODE_UPDATE, 0);
                         if (status != 0)
                             return status;
                         if (write(file, 3, longer) != longer.size() ||
                             write(file, 10, longer) != longer.size())
                             status = KAL_ERR_WRITE;
                         const int closed = KalCloseIFile(file);
                         return status != 0 ? status : closed;
                     },
                 .statuses = {KAL_ERR_MEMORY, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ, KAL_ERR_CLOSE,
                              KAL_ERR_DISK_FULL, KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END, -200 - EIO},
                 .check =
                     [&](int) {
                         IFILE* file = openItems(0, 0);
                         for (uint16_t id = 0; id < 10; id++) {
                             const std::string now = item(file, id);
                             EXPECT_TRUE(now == std::string(60, char('a' + id)) || (id == 3 && now == longer))
                                 << id << now;
                         }
                         KalCloseIFile(file);
                     },
                 .unfinished = {"f"}},
                kAllTrouble & ~kDiskFull); // the index is written over an old one, which takes no room
}
