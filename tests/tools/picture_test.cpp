// Which BMP files are stored, and that they come back byte for byte.
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/resource.h>

namespace {

class Picture : public FolderTest {};

void expectRoundTrip(const std::vector<BmpKind>& kinds, bool plain) {
    Arguments store = {"store", "a.kal"};
    if (plain)
        store.push_back("--plain");
    std::vector<Bytes> files;
    for (const BmpKind& kind : kinds) {
        files.push_back(makeBmp(kind, static_cast<uint32_t>(files.size())));
        store.push_back(std::to_string(files.size()) + ".bmp");
        writeFile(store.back(), files.back());
    }
    kalSucceeds(store);
    const std::vector<Listed> rows = listed("a.kal");
    ASSERT_EQ(rows.size(), files.size());
    for (size_t i = 0; i < files.size(); i++) {
        SCOPED_TRACE(::testing::Message()
                     << kinds[i].width << "x" << kinds[i].height << " " << kinds[i].bits << " bits, header "
                     << kinds[i].headerBytes << ", gap " << kinds[i].gap << ", rest " << kinds[i].rest);
        EXPECT_EQ(rows[i].id, i + 1);
        EXPECT_EQ(rows[i].width, kinds[i].width);
        EXPECT_EQ(rows[i].height, static_cast<unsigned>(std::abs(kinds[i].height)));
        EXPECT_EQ(rows[i].bits, kinds[i].bits);
        EXPECT_EQ(rows[i].topDown, kinds[i].height < 0);
        EXPECT_EQ(rows[i].bytes, files[i].size());
        EXPECT_NEAR(rows[i].ratio, static_cast<double>(rows[i].stored) / rows[i].bytes, 1e-4);
        if (!slowBuild || i % 3 == 0) {
            EXPECT_TRUE(extracted("a.kal", rows[i].id) == files[i]);
        }
    }
}

TEST_F(Picture, ComesBackAtEveryDepthOrderAndRowEnd) {
    std::vector<BmpKind> kinds;
    uint32_t turn = 0;
    for (uint32_t bits : {1U, 4U, 8U, 24U})
        for (uint32_t width : {1U, 2U, 3U, 7U, 9U, 17U, 34U})
            for (int32_t height : {1, -5}) {
                BmpKind kind = {width, height, bits};
                kind.loudPadding = turn % 3 == 0;
                kind.gap = turn % 4 == 1 ? turn : 0;
                kind.rest = turn % 5 == 2 ? turn : 0;
                kinds.push_back(kind);
                turn++;
            }
    expectRoundTrip(kinds, false);
}

TEST_F(Picture, ComesBackWithAnyHeaderPaletteAndSize) {
    const std::vector<BmpKind> kinds = {
        {5, 4, 8, 12},
        {5, 4, 1, 12, 7, 9, true},
        {6, 4, 24, 12, 0, 0, true},
        {5, -4, 4, 16},
        {5, 4, 8, 64},
        {5, -4, 8, 108, 3},
        {5, 4, 24, 124, 0, 70000},        // a colour profile behind the rows, longer than an operation
        {5, 4, 8, 40, 140000},            // a gap longer than two operations
        {5, 4, 8, 40, 0, 0, false, 3},    // few colours
        {5, 4, 8, 40, 0, 0, false, 300},  // more than the depth has
        {5, 4, 24, 40, 0, 0, false, 256}, // colours that 24 bits do not need
        {16378, -2, 24, 40, 0, 0, true},  // the longest row that fits an operation
        {65518, 2, 8},                    // and at 8 bits
        {65535, 3, 1, 40, 0, 1, true},
        {1, 65535, 1, 40, 0, 0, true}, // several bands, and the most rows
        {301, -700, 8, 40, 0, 0, true},
        {200, 300, 24},
    };
    expectRoundTrip(kinds, false);
}

TEST_F(Picture, ComesBackFromAPlainArchive) {
    expectRoundTrip({{33, 7, 1}, {33, -7, 4, 40, 5, 5, true}, {301, 300, 8}, {99, 99, 24, 40, 0, 3, true}},
                    true);
}

TEST_F(Picture, IsNeverHeldWhole) {
    constexpr uint32_t width = 4000;
    const uint32_t height = slowBuild ? 1000 : 20000;
    const Bytes headers = makeBmp({width, 1, 24});
    std::ofstream file("p.bmp", std::ios::binary);
    file.write(reinterpret_cast<const char*>(headers.data()), static_cast<std::streamsize>(headers.size()));
    file.seekp(22);
    file.write(reinterpret_cast<const char*>(&height), sizeof height);
    file.close();
    std::filesystem::resize_file("p.bmp", 54 + uint64_t{3} * width * height); // rows of zeros, 240 MB
    // What the program may have of its own: less than a fourth of the picture, a thread's stack included.
    rlimit before;
    getrlimit(RLIMIT_DATA, &before);
    const rlimit little = {slowBuild ? before.rlim_cur : 48U << 20, before.rlim_max};
    for (const Arguments& command :
         {Arguments{"store", "a.kal", "p.bmp"}, Arguments{"store", "--dib", "b.kal", "p.bmp"},
          Arguments{"extract", "a.kal", "1", "-o", "out.bmp"}}) {
        setrlimit(RLIMIT_DATA, &little);
        const Outcome outcome = kal(command);
        setrlimit(RLIMIT_DATA, &before);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
    }
    EXPECT_EQ(std::system("cmp p.bmp out.bmp"), 0);
}

TEST_F(Picture, WithAPaletteCutShortByItsRowsComesBack) {
    Bytes file = makeBmp({40, 40, 8});
    set32(file, 10, 14 + 40 + 64);
    writeFile("p.bmp", file);
    kalSucceeds({"store", "a.kal", "p.bmp"});
    EXPECT_TRUE(extracted("a.kal", 1) == file);
}

TEST_F(Picture, OfAnotherKindIsRefused) {
    using Change = std::function<void(Bytes&)>;
    const auto field32 = [](size_t offset, uint32_t number) -> Change {
        return [=](Bytes& file) { set32(file, offset, number); };
    };
    const auto field16 = [](size_t offset, uint32_t number) -> Change {
        return [=](Bytes& file) { set16(file, offset, number); };
    };
    const struct {
        const char* why;
        Change change;
    } cases[] = {
        {"neither a BMP nor a PNG file", field16(0, 0x4142)},
        {"inside its headers", field32(10, 20)},
        {"inside its headers", field32(10, 0)},
        {"behind its end", field32(10, UINT32_MAX)},
        {"inside its pixels", field32(10, 119)},
        {"header of 0 bytes", field32(14, 0)},
        {"header of 13 bytes", field32(14, 13)},
        {"header of 4294967295 bytes", field32(14, UINT32_MAX)},
        {"inside its headers", field32(14, 4000)},
        {"measures 0 x 3", field32(18, 0)},
        {"measures -9 x 3", field32(18, static_cast<uint32_t>(-9))},
        {"inside its pixels", field32(18, 65536)},
        {"measures 9 x 0", field32(22, 0)},
        {"inside its pixels", field32(22, static_cast<uint32_t>(INT_MIN))},
        {"inside its pixels", field32(22, INT_MAX)},
        {"inside its pixels", field32(22, static_cast<uint32_t>(-65535))},
        {"0 colour planes", field16(26, 0)},
        {"15 bits per pixel", field16(28, 15)},
        {"0 bits per pixel", field16(28, 0)},
        {"method 1", field32(30, 1)},
        {"palette of 4294967295 colours", field32(46, UINT32_MAX)},
        {"palette of 1073741825 colours", field32(46, 0x40000001)}, // four bytes each come to 4 in 32 bits
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.why);
        Bytes file = makeBmp({9, 3, 4});
        each.change(file);
        writeFile("p.bmp", file);
        expectFailure(kal({"store", "a.kal", "p.bmp"}), 1, each.why);
    }
    writeFile("p.bmp", makeBmp({16380, 1, 24}));
    expectFailure(kal({"store", "--dib", "a.kal", "p.bmp"}), 1, "does not fit DIB operations");
    expectFailure(kal({"store", "a.kal", "none.bmp"}), 1, "none.bmp: No such file");
    expectFailure(kal({"store", "a.kal", "."}), 1, "not a regular file");
    expectFailure(kal({"store", "a.kal", std::string(5000, 'p')}), 1, "File name too long");
    EXPECT_EQ(filesIn("."), (std::vector<std::string>{"p.bmp"})) << "a failed store left something behind";
}

TEST_F(Picture, CutAnywhereIsRefused) {
    const Bytes file = makeBmp({9, 3, 1});
    for (size_t length = 0; length < file.size(); length += slowBuild ? 7 : 1) {
        writeFile("p.bmp", Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length)));
        const Outcome outcome = kal({"store", "a.kal", "p.bmp"});
        expectFailure(outcome, 1, "p.bmp: ");
        ASSERT_EQ(outcome.status, 1) << "cut at " << length;
    }
    EXPECT_FALSE(fileExists("a.kal"));
}

} // namespace
