// kal resource: what it makes is read with the library, and what it lists is what it made.
#include "tests/support/faults.h"
#include "tests/tools/run_tool.h"

#include <kal.h>

namespace {

class ResourceTool : public FolderTest {
protected:
    static Outcome make(const std::string& script) {
        writeFile("script", bytesOf(script));
        return kal({"resource", "make", "out.res", "script"});
    }
};

TEST_F(ResourceTool, MakesTheDescribedExample) {
    writeFile("blob", {0xCA, 0xFE});
    EXPECT_EQ(make("# the example\n\n 1 text \"Open\" \"Close\"\r\n2\tfile blob\n").status, 0);
    EXPECT_EQ(readFile("out.res"), hexExample("docs/formats/resource-file.md"));
    EXPECT_EQ(kalSucceeds({"resource", "list", "out.res"}), "id  bytes  content\n"
                                                            " 1     12  text \"Open\" \"Close\"\n"
                                                            " 2      2  data\n");
    EXPECT_EQ(kalSucceeds({"resource", "list", "--json", "out.res"}),
              "[\n  {\"id\": 1, \"bytes\": 12, \"text\": [\"Open\", \"Close\"]},\n"
              "  {\"id\": 2, \"bytes\": 2}\n]\n");
    EXPECT_EQ(make("").status, 0);
    EXPECT_EQ(readFile("out.res"), Bytes(84));
    EXPECT_EQ(kalSucceeds({"resource", "list", "--json", "out.res"}), "[]\n");
}

TEST_F(ResourceTool, TheLibraryReadsWhatItMade) {
    // More than a new file has room for, of every size; a script in another folder names files beside it.
    ASSERT_EQ(std::system("mkdir folder"), 0);
    std::string script = "65534 text \"a \\\"b\\\" \\\\ \\x41\\n\" \"\xE4\"\n7 text \"\"\n";
    std::vector<Bytes> contents;
    for (uint32_t id = 100; id < 140; id++) {
        contents.push_back(randomBytes(id == 100 ? 65535 : (id - 101) * 31, id));
        writeFile("folder/f " + std::to_string(id), contents.back());
        script += std::to_string(id) + " file f " + std::to_string(id) + "\n";
    }
    writeFile("folder/script", bytesOf(script));
    kalSucceeds({"resource", "make", "out.res", "folder/script"});
    IFILE* file = nullptr;
    ASSERT_EQ(KalOpenRes(&file, "out.res", 0), 0);
    EXPECT_EQ(val(file->count), 42u);
    for (uint16_t id = 100; id < 140; id++) {
        void* data = nullptr;
        EXPECT_EQ(KalReadByteResData(file, id, &data), 0);
        const auto* bytes = static_cast<uint8_t*>(data);
        EXPECT_EQ(Bytes(bytes, bytes + KalSizeSMem(data)), contents[id - 100u]);
        KalDestroyRes(data);
    }
    char** strings = nullptr;
    ASSERT_EQ(KalGetTextResData(file, 65534, &strings), 0);
    EXPECT_STREQ(strings[0], "a \"b\" \\ A\n");
    EXPECT_STREQ(strings[1], "\xE4");
    KalDestroyTextRes(strings);
    KalCloseRes(file);
    const std::string table = kalSucceeds({"resource", "list", "out.res"});
    EXPECT_NE(table.find("65534     14  text \"a \\\"b\\\" \\\\ A\\x0A\" \"\\xE4\"\n"), std::string::npos)
        << table;
    EXPECT_NE(table.find("    7      2  text \"\"\n"), std::string::npos);
    const std::string json = kalSucceeds({"resource", "list", "--json", "out.res"});
    EXPECT_NE(json.find(R"("a \"b\" \\ A\u000a", "\u00e4")"), std::string::npos);
}

TEST_F(ResourceTool, WrongScriptsAreNamedByTheirLineAndLeaveTheOldFile) {
    writeFile("out.res", bytesOf("old"));
    writeFile("large", Bytes(65536));
    const std::string tooLong = "1 text \"" + std::string(65534, 'x') + "\"";
    std::string tooMany;
    for (int id = 0; id < 4086; id++)
        tooMany += std::to_string(id) + " text \"x\"\n";
    const struct {
        std::string script;
        const char* why;
    } cases[] = {
        {"\n65535 text \"x\"", "script:2: a line begins with an id"},
        {"-1 text \"x\"", "script:1: a line begins with an id"},
        {"1x text \"x\"", "a line begins with an id"},
        {"text \"x\"", "a line begins with an id"},
        {"1 bitmap x", "\"text\" or \"file\""},
        {"1", "\"text\" or \"file\""},
        {"1 text", "a text needs a string"},
        {"1 text x", "must stand in quotes"},
        {"1 text \"x", "no closing quote"},
        {"1 text \"x\\", "unknown escape"},
        {"1 text \"\\q\"", "unknown escape"},
        {"1 text \"\\x0\"", "two hexadecimal digits"},
        {"1 text \"\\x00\"", "two hexadecimal digits"},
        {"1 text \"\\x", "two hexadecimal digits"},
        {"1 text \"a\"\"b\"", "a blank must follow"},
        {"1 text \"a\" \"\"", "only the first string may be empty"},
        {tooLong, "larger than 65535"},
        {"1 file", "name of a file is missing"},
        {"1 file missing", "missing: No such file"},
        {"1 file .", "not a regular file"},
        {"1 file large", "larger than 65535"},
        {"1 text \"x\"\n1 text \"y\"", "script:2: the id stands in an earlier line"},
        {tooMany, "4085 resources are the most"},
    };
    for (const auto& each : cases) {
        expectFailure(make(each.script), 1, each.why);
        EXPECT_EQ(readFile("out.res"), bytesOf("old"));
    }
    EXPECT_EQ(filesIn("."), (std::vector<std::string>{"large", "out.res", "script"}));
    expectFailure(kal({"resource", "make", "out.res", "missing"}), 1, "missing: No such file");
    expectFailure(kal({"resource", "make", "out.res"}), 2, "SCRIPT");
    expectFailure(kal({"resource"}), 2, "kal");
    expectFailure(kal({"resource", "list", "missing"}), 1, "missing: No such file");
    expectFailure(kal({"resource", "list", "out.res"}), 1, "not a resource file");
    Bytes cut = hexExample("docs/formats/resource-file.md");
    cut.pop_back();
    writeFile("out.res", cut);
    const Outcome damaged = kal({"resource", "list", "out.res"});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_NE(damaged.out.find("\"Close\""), std::string::npos) << "what can be read is listed";
    EXPECT_NE(damaged.err.find("resource 2 is damaged"), std::string::npos);
}

} // namespace
