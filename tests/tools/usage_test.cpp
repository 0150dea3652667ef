#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

namespace {

class Usage : public FolderTest {};

TEST_F(Usage, ErrorsEndWithStatusTwo) {
    const std::vector<Arguments> cases = {
        {},
        {"frobnicate"},
        {"store"},
        {"store", "a.kal"},
        {"list"},
        {"list", "a.kal", "b.kal"},
        {"list", "a.kal", "--xml"},
        {"extract", "a.kal", "1"},
        {"extract", "a.kal", "-o", "out.bmp"},
        {"extract", "a.kal", "one", "-o", "out.bmp"},
        {"extract", "a.kal", "-1", "-o", "out.bmp"},
        {"extract", "a.kal", "99999999999", "-o", "out.bmp"},
    };
    for (const Arguments& arguments : cases) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const Outcome outcome = kal(arguments);
        expectFailure(outcome, 2, "kal");
        EXPECT_EQ(outcome.out, "");
    }
    EXPECT_TRUE(filesIn(".").empty());
}

TEST_F(Usage, HelpAndVersionAreData) {
    EXPECT_NE(kalSucceeds({"--help"}).find("extract"), std::string::npos);
    EXPECT_NE(kalSucceeds({"store", "--help"}).find("--plain"), std::string::npos);
    EXPECT_EQ(kalSucceeds({"--version"}).rfind("kal ", 0), 0u);
}

TEST_F(Usage, NamesAreTheHostsOwn) {
    // Letter case, drives and backslashes are only characters here.
    const std::vector<std::string> names = {"A.kal",  "a.kal", "c:a.kal", "x\\a.kal",
                                            "a.kal.", "-- x",  "ä\n.kal"};
    for (const std::string& name : names) {
        const Bytes file = makeBmp({static_cast<uint32_t>(name.size()), 1, 8});
        writeFile("p.bmp", file);
        kalSucceeds({"store", "--", name, "p.bmp"});
        EXPECT_TRUE(fileExists(name)) << name;
        kalSucceeds({"extract", "-o", "p\n.bmp", "--", name, "1"});
        EXPECT_TRUE(readFile("p\n.bmp") == file) << name;
    }
    EXPECT_EQ(filesIn(".").size(), names.size() + 2);
    expectFailure(kal({"list", "new\nline.kal"}), 1, "new?line.kal");
}

TEST_F(Usage, OutputThatCannotBeWrittenIsAFailure) {
    writeFile("p.bmp", makeBmp({5, 5, 8}));
    kalSucceeds({"store", "a.kal", "p.bmp"});
    const std::string full = std::string(KAL_TOOL) + " list a.kal > /dev/full 2> err";
    EXPECT_NE(std::system(full.c_str()), 0);
    EXPECT_EQ(bytesOf("kal: standard output: cannot be written\n"), readFile("err"));
    // A closed standard output must not become the archive that is read or written.
    const Bytes archive = readFile("a.kal");
    const std::string closed = std::string(KAL_TOOL) + " list a.kal >&- 2> err; true";
    EXPECT_EQ(std::system(closed.c_str()), 0);
    EXPECT_TRUE(readFile("a.kal") == archive);
}

} // namespace
