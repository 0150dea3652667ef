// Item files against a model: what each id holds. And what trouble leaves of them.
#include "tests/items/items.h"
#include "tests/support/faults.h"
#include "tests/support/trouble.h"

namespace {

class ItemModel : public FolderTest {
protected:
    void lay(uint16_t format, uint16_t create) {
        stream_->mode = uint16_t((stream_->mode & ~KAL_MODE_CREATE) | create);
        ASSERT_EQ(KalMakeIFile(&file_, stream_, format), KAL_OK);
    }
    void expectStored(const std::map<uint16_t, Bytes>& model, size_t least = 0) const {
        stream_->seek(stream_, 0, KAL_SEEK_END);
        Bytes all(stream_->pos - stream_->offset);
        stream_->seek(stream_, 0, KAL_SEEK_START);
        EXPECT_EQ(stream_->read(stream_, all.data(), uint32_t(all.size())), int32_t(all.size()));
        size_t lowest = 0;
        EXPECT_EQ(itemsIn(all, &lowest), model);
        EXPECT_GE(lowest, std::min(least, all.size()));
        EXPECT_EQ(faultsIn(stream_), "");
    }
    void randomSteps(uint16_t format, uint32_t seed) {
        std::mt19937 random(seed);
        const auto below = [&](uint32_t n) { return uint32_t(random() % n); };
        lay(format, KAL_MODE_CREATE);
        std::map<uint16_t, Bytes> model;
        for (int step = 0; step < 500 && !HasFailure(); step++) {
            SCOPED_TRACE("step " + std::to_string(step));
            const auto id = uint16_t(below(60));
            const bool held = model.count(id) != 0;
            const uint32_t kind = below(9), once = below(5);
            const Bytes data = randomBytes(below(once == 0 ? 3000 : 60), uint32_t(random()));
            const auto length = uint32_t(data.size());
            if (kind < 3) {
                ASSERT_EQ(KalWriteIFile(file_, data.data(), length, id), length);
                model[id] = data;
            } else if (kind == 3) {
                const uint32_t added = KalAddIFile(file_, data.data(), length, id);
                ASSERT_TRUE(added == length || (added == 0 && held));
                model[id].insert(model[id].end(), data.begin(), data.begin() + added);
            } else if (kind == 4 && held) {
                KalFindItem(file_, id)->narrow.id = KAL_ITEM_FREE;
                model.erase(id);
            } else if (kind == 5 && held) {
                Bytes all, piece(1 + below(100));
                KalReadIFile(file_, piece.data(), 0, id); // at the item's start it starts over
                while (const uint32_t got = KalIncReadIFile(file_, piece.data(), uint32_t(piece.size()), id))
                    all.insert(all.end(), piece.begin(), piece.begin() + got);
                ASSERT_EQ(all, model[id]);
            } else if (kind == 6) {
                ASSERT_EQ(KalGetItemSize(file_, id), held ? int32_t(model[id].size()) : -1);
                ASSERT_EQ(bytesOf(item(file_, id)), held ? model[id] : bytesOf("none"));
            } else if (kind == 7 && once == 0) {
                ASSERT_EQ(KalReserveItems(file_, uint16_t(length % 100)), KAL_OK);
                expectStored(model, 4 + length % 100 * (format & KAL_ITEMS_WIDE ? 10 : 8));
            } else if (kind == 8 && once < 2) {
                ASSERT_EQ(once == 0 ? KalFlushIFile(file_) : KalFreeIFile(file_), KAL_OK);
                expectStored(model);
                if (once != 0)
                    lay(format, 0);
            }
        }
        ASSERT_EQ(KalFreeIFile(file_), KAL_OK);
        expectStored(model);
    }

    SFILE* stream_ = nullptr;
    IFILE* file_ = nullptr;
};

} // namespace

TEST_F(ItemModel, RandomSequencesMatchAndAnotherReaderFindsTheSame) {
    for (uint32_t seed = firstSeed(), end = seed + 24; seed != end && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const uint16_t format = seed % 2 != 0 ? 0x0001 : 0x8001, where = seed % 4 < 2 ? 0 : KAL_MODE_MEMORY;
        const Bytes before = randomBytes(where == 0 && seed % 3 != 0 ? 777 : 0, seed); // in front of it
        Bytes after = before;
        ASSERT_EQ(KalOpenFile(&stream_, "f", kNew | where, 0), KAL_OK);
        stream_->write(stream_, before.data(), uint32_t(before.size()));
        KalSetOffset(stream_, uint32_t(before.size()));
        randomSteps(format, seed);
        KalSetOffset(stream_, 0);
        stream_->seek(stream_, 0, KAL_SEEK_START);
        stream_->read(stream_, after.data(), uint32_t(after.size()));
        EXPECT_EQ(after, before);
        EXPECT_EQ(stream_->close(stream_), KAL_OK);
    }
}

// The items 0 to 9 stay, but for 3, which may have become longer; and done is not said too early.
TEST_F(ItemModel, TroubleLosesNoItem) {
    IFILE* made = openItems(kNew, 0);
    for (uint16_t id = 0; id < 10; id++)
        write(made, id, std::string(60, char('a' + id)));
    ASSERT_EQ(KalCloseIFile(made), KAL_OK);
    const std::string longer(200, 'L'); // fits no old place, whose bytes the old index still names
    const std::function<int(IFILE*)> works[] = {
        [&](IFILE* file) {
            return write(file, 3, longer) + write(file, 10, longer) == 400 ? 0 : KAL_ERR_WRITE;
        },
        [](IFILE* file) { return KalReserveItems(file, 30); }};
    const auto check = [&](int) {
        IFILE* file = openItems(0, 0);
        for (uint16_t id = 0; id < 10; id++)
            EXPECT_TRUE(item(file, id) == std::string(60, char('a' + id)) ||
                        (id == 3 && item(file, 3) == longer));
        KalCloseIFile(file);
    };
    for (const auto& work : works) {
        const auto run = [&work] {
            IFILE* file = nullptr;
            const int opened = KalOpenIFile(&file, "f", KAL_MODE_UPDATE, 0);
            const int done = opened == KAL_OK ? work(file) : opened;
            const int closed = KalCloseIFile(file);
            return done != KAL_OK ? done : closed;
        };
        walkTrouble({.run = run,
                     .statuses = {KAL_ERR_MEMORY, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ, KAL_ERR_CLOSE,
                                  KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END, KAL_ERR_OPEN - EIO},
                     .check = check,
                     .unfinished = {"f"}},
                    kAllTrouble & ~kDiskFull); // the index is written over an old one, which takes no room
    }
}
