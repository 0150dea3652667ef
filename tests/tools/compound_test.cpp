#include "tests/support/storage.h"
#include "tests/tools/run_tool.h"

namespace {

class CompoundCommand : public FolderTest {};

TEST_F(CompoundCommand, PutCatAndListAgree) {
    const Bytes large = randomBytes(100000, 1);
    writeFile("large", large);
    writeFile("small", bytesOf("small"));
    // Names are the host's own: neither a drive nor a separator.
    const std::string file = "c:a\\b.ole";
    EXPECT_EQ(kalSucceeds({"compound", "put", file, "\\x05Info", "large"}), "");
    EXPECT_EQ(kalSucceeds({"compound", "put", file, "\u00C4pfel", "small"}), "");
    EXPECT_EQ(bytesOf(kalSucceeds({"compound", "cat", file, "\\x05Info"})), large);
    EXPECT_EQ(kalSucceeds({"compound", "cat", file, "\u00E4PFEL"}), "small");
    EXPECT_EQ(kalSucceeds({"compound", "list", file}),
              "kind     bytes  name\nstream  100000  \\x05Info\nstream       5  \u00C4pfel\n");
    // Replaced by a shorter one, in a file that others made.
    writeFile("doc", readFile(KAL_SOURCE_DIR "/tests/data/compound/letter.doc"));
    kalSucceeds({"compound", "put", "doc", "WordDocument", "small"});
    EXPECT_EQ(kalSucceeds({"compound", "cat", "doc", "WordDocument"}), "small");
    EXPECT_NE(kalSucceeds({"compound", "list", "--json", "doc"})
                  .find(R"({"name": "\\x05SummaryInformation", "kind": "stream", "bytes": 172})"),
              std::string::npos);
}

TEST_F(CompoundCommand, StoragesInsideAreReached) {
    {
        Ref<IStorage> root, inner;
        Ref<IStream> stream;
        ASSERT_EQ(createFile("nested.ole", root), S_OK);
        ASSERT_EQ(root->CreateStorage(L"inner", kUpdate, 0, 0, inner.out()), S_OK);
        ASSERT_EQ(makeStream(inner.get(), L"x", stream), S_OK);
        writeAll(stream.get(), bytesOf("deep"));
    }
    writeFile("more", bytesOf("more"));
    kalSucceeds({"compound", "put", "nested.ole", "inner/y", "more"});
    EXPECT_EQ(kalSucceeds({"compound", "cat", "nested.ole", "inner/x"}), "deep");
    EXPECT_EQ(
        kalSucceeds({"compound", "list", "nested.ole"}),
        "kind     bytes  name\nstorage      0  inner\nstream       4  inner/x\nstream       4  inner/y\n");
}

TEST_F(CompoundCommand, FailuresAreNamedAndLeaveNothing) {
    writeFile("text", bytesOf("no compound file"));
    expectFailure(kal({"compound"}), 2, "kal");
    expectFailure(kal({"compound", "cat", "text"}), 2, "STREAM");
    expectFailure(kal({"compound", "list", "none"}), 1, "none: there is no such file");
    expectFailure(kal({"compound", "list", "text"}), 1, "text: not a compound file");
    expectFailure(kal({"compound", "put", "text", "s", "text"}), 1, "text: not a compound file");
    expectFailure(kal({"compound", "put", "new.ole", "s", "none"}), 1, "none: there is no such file");
    expectFailure(kal({"compound", "put", "new.ole", "a:b", "text"}), 1, "not a name for a stream");
    EXPECT_FALSE(fileExists("new.ole"));
    kalSucceeds({"compound", "put", "new.ole", "s", "text"});
    expectFailure(kal({"compound", "cat", "new.ole", "t"}), 1, "t: there is no such stream");
    writeFile("large", Bytes(300000));
    for (const char* stream : {"s", "t"}) {
        FileSizeLimit full(100000);
        expectFailure(kal({"compound", "put", "new.ole", stream, "large"}), 1, "no room");
    }
    EXPECT_EQ(kalSucceeds({"compound", "list", "new.ole"}), "kind    bytes  name\nstream     16  s\n");
    EXPECT_EQ(kalSucceeds({"compound", "cat", "new.ole", "s"}), "no compound file");
    Ref<IStorage> storage;
    ASSERT_EQ(openFile("new.ole", kUpdate, storage), S_OK);
    expectFailure(kal({"compound", "list", "new.ole", "--wait", "0"}), 1, "new.ole: in use");
    EXPECT_EQ(readFile("text"), bytesOf("no compound file"));
}

} // namespace
