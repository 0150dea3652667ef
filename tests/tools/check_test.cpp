// kal check on files of every kind, whole and damaged; what it saves; and the bar of long work on a terminal.
#include "tests/support/registry_test.h"
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <kal.h>

#include <algorithm>
#include <filesystem>
#include <regex>

namespace {

class CheckTool : public RegistryTest {
protected:
    // A file of each kind, with three things in it, and where the second of them can be damaged.
    void makeFiles() {
        for (const char* name : {"1", "2", "3"})
            writeFile(name, bytesOf(std::string(5000, *name)));
        for (const int32_t height : {10, 20, 30})
            writeFile(std::to_string(height) + ".bmp", makeBmp({30, height, 8}));
        kalSucceeds({"store", "--plain", "archive", "10.bmp", "20.bmp", "30.bmp"});
        writeFile("script", bytesOf("1 file 1\n2 file 2\n3 file 3\n"));
        kalSucceeds({"resource", "make", "resources", "script"});
        for (const char* name : {"1", "2", "3"}) {
            kalSucceeds({"compound", "put", "compound", name, name});
            kalSucceeds({"settings", "set", "App", name, name});
        }
        std::filesystem::copy_file(persistentTree() + "/log", "registry.log");
        IOPFILE* lists = nullptr;
        ASSERT_EQ(KalOpenIOpFile(&lists, "lists", KAL_MODE_CREATE | KAL_MODE_UPDATE, KAL_ITEMS_WIDE), 0);
        for (uint16_t id = 1; id <= 3; id++) {
            OpList* list = nullptr;
            ASSERT_EQ(KalOpenPutIOpList(lists, id, &list), 0);
            KalPutOpData(list, 7, "text", 4);
            KalClosePutIOpList(lists);
        }
        KalCloseIOpFile(lists);
    }
    static void expectIn(const std::string& text, const std::string& part) {
        EXPECT_NE(text.find(part), std::string::npos) << text << "lacks " << part;
    }
};

TEST_F(CheckTool, FindsDamageOfEveryKindAndSavesTheRest) {
    makeFiles();
    const auto place = [](const char* file, const std::string& bytes, size_t within) {
        const Bytes all = readFile(file);
        const auto found = std::search(all.begin(), all.end(), bytes.begin(), bytes.end());
        EXPECT_NE(found, all.end()) << file;
        return static_cast<size_t>(found - all.begin()) + within;
    };
    const struct {
        const char* kind;
        const char* words;
        size_t place; // of a byte
        uint8_t value;
        const char* fault;
        const char* saved; // and lost
    } cases[] = {
        {"archive", "picture archive", 0, 0, " 2  ", "saved 2, lost 1"},
        {"lists", "operation-list file", place("lists", "text", 8 + 2), 9, "  2  an op runs past",
         "saved 2, lost 1"},
        {"resources", "resource file", 4 + 8 + 3, 0xFF, "  2  it runs past the end of the file",
         "saved 2, lost 1"},
        {"compound", "compound file", 512 + 80, 1, "a sector of another", "saved 2, lost 1"},
        {"registry", "log of the registry", 4096 + 20, '!', "  0  a record is not what was written",
         "lost 1"},
    };
    for (auto test : cases) {
        SCOPED_TRACE(test.kind);
        const std::string file = fileExists(std::string(test.kind) + ".log") ? "registry.log" : test.kind;
        expectIn(kalSucceeds({"check", file}), std::string(" ") + test.words + ", whole\n");
        EXPECT_EQ(kalSucceeds({"check", "--quiet", file}), "");
        Bytes bytes = readFile(file);
        if (test.place == 0) { // into the rows of the second picture, whose entry is the third
            const uint32_t offset = bytes.at(30) | bytes.at(31) << 8 | bytes.at(32) << 16;
            test.place = offset + 1400;
            test.value = static_cast<uint8_t>(~bytes.at(test.place));
        }
        bytes.at(test.place) = test.value;
        writeFile("damaged", bytes);
        const std::string out = std::string("saved-") + test.kind;
        const Outcome outcome = kal({"check", "damaged", "--as", test.kind, "--recover", out});
        expectFailure(outcome, 1, std::string("damaged: a damaged ") + test.words);
        expectIn(outcome.out, test.fault);
        expectIn(outcome.out, test.saved);
        kalSucceeds({"check", out, "--as", test.kind});
        expectFailure(kal({"check", "damaged", "--as", test.kind, "--recover", out}), 1, "exists");
    }
    EXPECT_EQ(readFile("10.bmp"), extracted("saved-archive", 1));
    EXPECT_EQ(readFile("30.bmp"), extracted("saved-archive", 3));
    EXPECT_EQ(bytesOf(kalSucceeds({"compound", "cat", "saved-compound", "3"})), readFile("3"));
    std::filesystem::create_directory("again");
    std::filesystem::copy_file("saved-registry", "again/log");
    setenv("KAL_REGISTRY", path("again").c_str(), 1);
    EXPECT_EQ(kalSucceeds({"settings", "list", "App"}), "1 = 1\n2 = 2\n3 = 3\n");
}

TEST_F(CheckTool, SaysWhatItCannotTell) {
    writeFile("text", bytesOf("just some text, which is no file of ours"));
    expectFailure(kal({"check", "text"}), 1, "text: cannot tell what kind of file it is");
    expectFailure(kal({"check", "text", "--as", "picture"}), 2, "--as");
    const Outcome nothing = kal({"check", "text", "--as", "compound", "--recover", "out"});
    expectFailure(nothing, 1, "not a compound file");
    expectIn(nothing.out, "the file ends inside its header"); // told all the same
    EXPECT_FALSE(fileExists("out"));
}

TEST_F(CheckTool, EveryMemberOfJsonIsDocumented) {
    makeFiles();
    const Bytes page = readFile(KAL_SOURCE_DIR "/docs/json.md");
    const std::string text(page.begin(), page.end());
    Bytes damaged = readFile("resources");
    damaged.at(4 + 8 + 3) = 0xFF;
    writeFile("damaged", damaged);
    for (const Arguments& command : {Arguments{"list", "archive"},
                                     {"stat", "archive"},
                                     {"dump", "archive", "1"},
                                     {"check", "damaged", "--recover", "out"},
                                     {"resource", "list", "resources"},
                                     {"compound", "list", "compound"},
                                     {"settings", "list", "App"}}) {
        Arguments arguments = command;
        arguments.push_back("--json");
        const std::string json = kal(arguments).out;
        const std::string heading = "## " + command[0] + (command[1] == "list" ? " list\n" : "\n");
        const size_t start = text.find(heading);
        ASSERT_NE(start, std::string::npos) << heading;
        const std::string section = text.substr(start, text.find("\n## ", start + 1) - start);
        const std::regex member("\"([A-Za-z]+)\": ");
        int members = 0;
        for (std::sregex_iterator at(json.begin(), json.end(), member), end; at != end; ++at, members++)
            expectIn(section, "`" + (*at)[1].str() + "`");
        EXPECT_GT(members, 1) << json;
    }
}

TEST_F(CheckTool, LongWorkShowsABarOnATerminalAlone) {
    Bytes headers = makeBmp({3000, 1, 24});
    headers.resize(54);
    for (uint32_t height = 4000; height <= 64000; height *= 2) {
        setNumber(headers, 22, 4, height);
        writeFile(std::to_string(height), headers);
    }
    runScript(R"sh(
for height in 4000 8000 16000 32000 64000; do
    rm -f a.kal; mv $height large.bmp; truncate -s $((54 + height * 9000)) large.bmp
    script -qec 'kal store a.kal large.bmp' /dev/null >shown </dev/null
    grep -qaF $'\r\e[K[#' shown && break
done
grep -qaP '\r\e\[K\[#*-*\] +(100|\d\d?)%  [\d.]+ [KMG]iB  [\d.]+ [KMG]?i?B/s  \d+:\d\d left  large.bmp' shown
[ $(wc -l <shown) = 1 ]; tail -c 17 shown | cmp - <(printf '\r\e[K1\tlarge.bmp\r\n')
[ "$(grep -caP '\e\[[\d;]*m' shown || true)" = 0 ] # colours
[ "$(script -qec 'kal store --quiet b.kal large.bmp' /dev/null </dev/null)" = $'1\tlarge.bmp\r' ]
[ "$(kal store c.kal large.bmp 2>&1)" = $'1\tlarge.bmp' ])sh");
}

} // namespace
