// What stands in an archive, and what storing and failing to store leave of it.
#include "tests/support/faults.h"
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <kal.h>

#include <algorithm>
#include <sys/mount.h>

namespace {

class Archive : public FolderTest {
protected:
    void writePicture(const std::string& name, uint32_t seed, uint32_t width = 40) {
        writeFile(name, makeBmp({width, 30, 8}, seed));
    }
};

uint32_t number(const Bytes& bytes, size_t offset, int size) {
    uint32_t result = 0;
    while (size-- > 0)
        result = result << 8 | bytes.at(offset + static_cast<size_t>(size));
    return result;
}

struct Entry {
    uint32_t id, size, offset;
};

// The index as it stands on disk, and the format flags before it.
std::vector<Entry> indexOf(const Bytes& archive, uint32_t format) {
    EXPECT_EQ(number(archive, 0, 2), format);
    std::vector<Entry> entries(number(archive, 2, 2));
    for (size_t i = 0; i < entries.size(); i++) {
        const size_t at = 4 + 10 * i;
        entries[i] = {number(archive, at, 2), number(archive, at + 2, 4), number(archive, at + 6, 4)};
    }
    return entries;
}

TEST_F(Archive, HoldsHeadersPaletteRowsAndRestAsOperations) {
    const BmpKind kind = {151, 200, 24, 40, 5, 6, true};
    const Bytes file = makeBmp(kind);
    writeFile("p.bmp", file);
    for (const bool plain : {false, true}) {
        const std::string name = plain ? "plain.kal" : "packed.kal";
        Arguments store = {"store", "--dib", name, "p.bmp"};
        if (plain)
            store.push_back("--plain");
        kalSucceeds(store);
        const uint16_t format = plain ? 0x8000 : 0xC000;
        EXPECT_EQ(indexOf(readFile(name), format).back().size, listed(name).back().stored);

        IOPFILE* lists = nullptr;
        ASSERT_EQ(KalOpenIOpFile(&lists, name.c_str(), 0, format), 0);
        OpList* list = nullptr;
        ASSERT_EQ(KalOpenGetIOpList(lists, 1, &list), 0);
        uint32_t line = 0, bands = 0;
        Bytes pixels, before, after;
        for (void* op; (op = KalGetOp(list)) != nullptr; KalFreeSMem(KalOpBlock(op))) {
            const auto* bytes = static_cast<const uint8_t*>(op);
            const Bytes payload(bytes, bytes + KalOpSize(op));
            EXPECT_LE(payload.size(), 65531u);
            if (KalOpType(op) != KAL_OP_DIB) {
                Bytes& side = bands == 0 ? before : after;
                if (KalOpType(op) == 0x102 || KalOpType(op) == 0x106)
                    side.insert(side.end(), payload.begin(), payload.end());
                continue;
            }
            EXPECT_EQ(number(payload, 0, 2), 0u);
            EXPECT_EQ(number(payload, 2, 2), line);
            EXPECT_EQ(number(payload, 4, 2), 151u);
            const uint32_t lines = number(payload, 6, 2);
            EXPECT_EQ(number(payload, 8, 4), 24u);
            ASSERT_EQ(payload.size(), 12 + lines * 604);
            line += lines;
            bands++;
            pixels.insert(pixels.end(), payload.begin() + 12, payload.begin() + 12 + lines * 604);
        }
        EXPECT_EQ(KalGetOpError(list), 0);
        KalCloseGetIOpList(lists);
        KalCloseIOpFile(lists);

        EXPECT_EQ(before, Bytes(file.begin(), file.begin() + 54 + 5));
        EXPECT_EQ(after, Bytes(file.end() - 6, file.end()));
        EXPECT_EQ(line, 200u);
        EXPECT_EQ(bands, 2u);
        const uint8_t* row = &file[59];
        for (size_t i = 0; i < pixels.size(); i++)
            ASSERT_EQ(pixels[i], i % 4 == 3 ? 0 : row[i / 604 * rowBytes(kind) + i % 604 / 4 * 3 + i % 4])
                << i;
    }
}

TEST_F(Archive, IsAddedToWithIdsCountingOn) {
    writePicture("p.bmp", 1);
    writePicture("q.bmp", 2, 41);
    EXPECT_EQ(kalSucceeds({"store", "a.kal", "p.bmp", "q.bmp"}), "1\tp.bmp\n2\tq.bmp\n");
    EXPECT_EQ(kalSucceeds({"store", "a.kal", "q.bmp"}), "3\tq.bmp\n");
    EXPECT_TRUE(extracted("a.kal", 1) == readFile("p.bmp"));
    EXPECT_TRUE(extracted("a.kal", 2) == readFile("q.bmp"));
    EXPECT_TRUE(extracted("a.kal", 3) == readFile("q.bmp"));
    const std::string table = kalSucceeds({"list", "a.kal"});
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 4);
    EXPECT_NE(table.find("41x30"), std::string::npos);

    // What stands at the output's place is replaced; where that is a link, the file that it leads to.
    writeFile("old.bmp", bytesOf("old"));
    ASSERT_EQ(::symlink("old.bmp", "link.bmp"), 0);
    kalSucceeds({"extract", "a.kal", "1", "-o", "link.bmp"});
    EXPECT_TRUE(readFile("old.bmp") == readFile("p.bmp"));
}

TEST_F(Archive, IsAsBeforeWhenAStoreFails) {
    writePicture("p.bmp", 1);
    writeFile("wrong.bmp", bytesOf("BM, but no more"));
    kalSucceeds({"store", "packed.kal", "p.bmp"});
    kalSucceeds({"store", "--plain", "plain.kal", "p.bmp"});
    for (const std::string name : {"packed.kal", "plain.kal"}) {
        const Bytes before = readFile(name);
        expectFailure(kal({"store", name, "p.bmp", "p.bmp", "wrong.bmp"}), 1, "wrong.bmp: ");
        EXPECT_TRUE(readFile(name) == before);
    }
    expectFailure(kal({"store", "--plain", "packed.kal", "p.bmp"}), 1, "packed.kal: ");
    EXPECT_EQ(kalSucceeds({"store", "plain.kal", "p.bmp"}), "2\tp.bmp\n");

    writeFile("foreign.kal", randomBytes(40000, 3));
    writeFile("empty.kal", {});
    for (const std::string name : {"foreign.kal", "empty.kal", "p.bmp"}) {
        const Bytes before = readFile(name);
        for (const Arguments& arguments :
             {Arguments{"store", name, "p.bmp"}, {"list", name}, {"extract", name, "1", "-o", "out.bmp"}})
            expectFailure(kal(arguments), 1, name + ": not a picture archive");
        EXPECT_TRUE(readFile(name) == before);
    }
    for (const char* id : {"0", "2", "65534", "65535", "65536", "4294967295"})
        expectFailure(kal({"extract", "packed.kal", id, "-o", "out.bmp"}), 1, "there is no picture");
    expectFailure(kal({"list", "none.kal"}), 1, "No such file");
    expectFailure(kal({"store", "none/a.kal", "p.bmp"}), 1, "No such file");
    expectFailure(kal({"extract", "packed.kal", "1", "-o", "none/out.bmp"}), 1, "No such file");
    expectFailure(kal({"extract", "packed.kal", "1", "-o", "/dev/null"}), 1, "not a regular file");
    EXPECT_EQ(filesIn("."), (std::vector<std::string>{"empty.kal", "foreign.kal", "p.bmp", "packed.kal",
                                                      "plain.kal", "wrong.bmp"}));
}

TEST_F(Archive, TakesThousandsOfPicturesOneAtATime) {
    // Past the 409th the index outgrows a page, which the slow build sees too.
    const unsigned count = slowBuild ? 440 : 3000;
    const auto picture = [](unsigned id) { return makeBmp({1 + id % 7, 1, 1}, id); };
    unsigned stored = 0;
    if (slowBuild) {
        Arguments store = {"store", "a.kal"};
        for (; stored < 400; stored++) {
            store.push_back(std::to_string(stored + 1) + ".bmp");
            writeFile(store.back(), picture(stored + 1));
        }
        kalSucceeds(store);
    }
    while (stored < count) {
        writeFile("p.bmp", picture(++stored));
        const Outcome outcome = kal({"store", "a.kal", "p.bmp"});
        ASSERT_EQ(outcome.out, std::to_string(stored) + "\tp.bmp\n") << outcome.err;
    }
    ASSERT_EQ(listed("a.kal").size(), count);
    for (unsigned id = 1; id <= count; id += id < 20 ? 1 : 97)
        ASSERT_TRUE(extracted("a.kal", id) == picture(id)) << id;
    // Every item lies behind the room that the index may still need.
    for (const Entry& entry : indexOf(readFile("a.kal"), 0xC000))
        EXPECT_GE(entry.offset, 32664u);
}

TEST_F(Archive, IsFullAtTheMostThatAnIndexHolds) {
    writeFile("p.bmp", makeBmp({1, 1, 1}));
    Arguments all(3265, "p.bmp");
    all.insert(all.begin(), {"store", "a.kal"});
    // One that no flush can move must not stand in the way of the entries to come.
    writePicture("big.bmp", 1, 4000);
    all[2] = "big.bmp";
    kalSucceeds(all);
    const Bytes before = readFile("a.kal");
    expectFailure(kal({"store", "a.kal", "p.bmp"}), 1, "it is full");
    EXPECT_TRUE(readFile("a.kal") == before);
    EXPECT_EQ(listed("a.kal").back().id, 3265u);
    EXPECT_TRUE(extracted("a.kal", 3265) == readFile("p.bmp"));
    all.push_back("p.bmp");
    all[1] = "b.kal";
    expectFailure(kal(all), 1, "it is full");
    EXPECT_FALSE(fileExists("b.kal"));
}

// Runs every command that writes where there is no room for what it writes.
void expectFullDiskIsSurvived(const std::string& full) {
    const Bytes before = readFile(full + "/a.kal");
    const std::vector<std::string> files = filesIn(full);
    const char* why = ": ";
    expectFailure(kal({"store", full + "/a.kal", "small.bmp", "big.bmp"}), 1, why);
    EXPECT_TRUE(readFile(full + "/a.kal") == before);
    expectFailure(kal({"store", full + "/new.kal", "big.bmp"}), 1, why);
    expectFailure(kal({"extract", "big.kal", "1", "-o", full + "/out.bmp"}), 1, why);
    EXPECT_EQ(filesIn(full), files);
    EXPECT_EQ(listed(full + "/a.kal").size(), 1u);
    EXPECT_TRUE(extracted(full + "/a.kal", 1) == readFile("small.bmp"));
}

TEST_F(Archive, SurvivesAFullDisk) {
    writePicture("small.bmp", 1);
    writePicture("big.bmp", 2, 9000);
    kalSucceeds({"store", "big.kal", "big.bmp"});
    ASSERT_EQ(::mkdir("limited", 0700), 0);
    kalSucceeds({"store", "limited/a.kal", "small.bmp"});
    {
        const FileSizeLimit limit(150000);
        expectFullDiskIsSurvived("limited");
    }
    const TinyFileSystem tiny("tiny", 160000);
    if (!tiny.mounted())
        GTEST_SKIP() << "no right to mount";
    kalSucceeds({"store", "tiny/a.kal", "small.bmp"});
    expectFullDiskIsSurvived("tiny");

    // The room ends anywhere: in the list, in the signature's move, in the index.
    const Bytes before = readFile("tiny/a.kal");
    Arguments twelve(12, "small.bmp");
    twelve.insert(twelve.begin(), {"store", "tiny/a.kal"});
    for (uint32_t taken = 0; taken < 120000; taken += slowBuild ? 16384 : 4096) {
        writeFile("tiny/filler", Bytes(taken));
        const Outcome outcome = kal(twelve);
        if (outcome.status == 0) {
            EXPECT_EQ(listed("tiny/a.kal").size(), 13u);
            writeFile("tiny/a.kal", before);
        } else {
            expectFailure(outcome, 1, "a.kal: ");
            ASSERT_TRUE(readFile("tiny/a.kal") == before) << "after " << taken << " bytes were taken";
        }
    }
    // Read-only: it is read as ever and takes nothing.
    ASSERT_EQ(::mount("none", "tiny", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(listed("tiny/a.kal").size(), 1u);
    kalSucceeds({"extract", "tiny/a.kal", "1", "-o", "out.bmp"});
    expectFailure(kal({"store", "tiny/a.kal", "small.bmp"}), 1, "Read-only file system");
    expectFailure(kal({"extract", "tiny/a.kal", "1", "-o", "tiny/out.bmp"}), 1, "Read-only file system");
}

} // namespace
