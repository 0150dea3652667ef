// Archives cut short and with wrong bytes: a picture comes back whole or not at all.
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <cstring>
#include <random>

namespace {

class Damage : public FolderTest {
protected:
    void makeArchive(bool plain) {
        Arguments store = {"store", "a.kal"};
        if (plain)
            store.push_back("--plain");
        for (const BmpKind& kind :
             {BmpKind{30, 20, 1}, {25, -20, 4, 40, 3, 5, true}, {80, 60, 8}, {40, 30, 24}}) {
            pictures_.push_back(makeBmp(kind, static_cast<uint32_t>(pictures_.size())));
            writeFile("p" + std::to_string(pictures_.size()), pictures_.back());
            store.push_back("p" + std::to_string(pictures_.size()));
        }
        kalSucceeds(store);
        archive_ = readFile("a.kal");
    }

    // Gives how many pictures could not be had.
    int expectWholeOrNothing(const Bytes& damaged) {
        writeFile("a.kal", damaged);
        const Outcome list = kal({"list", "a.kal"});
        if (list.status != 0)
            expectFailure(list, 1, "a.kal: ");
        int lost = 0;
        for (unsigned id = 1; id <= pictures_.size(); id++) {
            const Outcome outcome = kal({"extract", "a.kal", std::to_string(id), "-o", "out"});
            if (outcome.status == 0) {
                EXPECT_TRUE(readFile("out") == pictures_[id - 1]) << "picture " << id;
                ::unlink("out");
            } else {
                expectFailure(outcome, 1, "");
                lost++;
            }
            EXPECT_EQ(filesIn(".").size(), 1 + pictures_.size()) << "a failed extract left something";
        }
        return lost;
    }

    std::vector<Bytes> pictures_;
    Bytes archive_;
};

constexpr int rounds = slowBuild ? 8 : 40;

TEST_F(Damage, OfRandomBytesIsFound) {
    for (const bool plain : {false, true}) {
        pictures_.clear();
        ::unlink("a.kal");
        makeArchive(plain);
        EXPECT_EQ(expectWholeOrNothing(archive_), 0);
        std::mt19937 random(plain ? 1 : 2);
        int lost = 0;
        for (int round = 0; round < rounds; round++) {
            SCOPED_TRACE(::testing::Message() << (plain ? "plain" : "compressed") << ", round " << round);
            Bytes damaged = archive_;
            // The index, or the pictures behind the signature's padding.
            const size_t first = round % 4 == 0 ? 0 : 32768;
            const size_t room = round % 4 == 0 ? 130 : damaged.size() - first;
            for (int flips = 1 + round % 3; flips > 0; flips--)
                damaged[first + random() % room] ^= static_cast<uint8_t>(1 << random() % 8);
            lost += expectWholeOrNothing(damaged);
        }
        EXPECT_GT(lost, rounds / 2) << "the damage hardly showed";
    }
}

TEST_F(Damage, OfACutIsFound) {
    makeArchive(false);
    std::mt19937 random(3);
    for (int round = 0; round < rounds / 2; round++) {
        const size_t length = round % 3 == 0 ? random() % 200 : random() % archive_.size();
        SCOPED_TRACE(::testing::Message() << "cut at " << length);
        EXPECT_GT(
            expectWholeOrNothing({archive_.begin(), archive_.begin() + static_cast<std::ptrdiff_t>(length)}),
            0);
    }
}

TEST_F(Damage, OfOnePictureLeavesTheOthers) {
    makeArchive(true);
    uint32_t second = 0; // its offset, in the third entry of ten bytes
    std::memcpy(&second, &archive_[4 + 2 * 10 + 6], sizeof second);
    archive_[second] ^= 0xFF;
    writeFile("a.kal", archive_);
    const Outcome list = kal({"list", "a.kal"});
    expectFailure(list, 1, "picture 2 is damaged");
    EXPECT_NE(list.out.find("30x20"), std::string::npos);
    EXPECT_NE(list.out.find("80x60"), std::string::npos);
    EXPECT_TRUE(extracted("a.kal", 3) == pictures_[2]);
    expectFailure(kal({"extract", "a.kal", "2", "-o", "out"}), 1, "picture 2");
}

} // namespace
