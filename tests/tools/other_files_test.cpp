// Compound files, resource files and settings as a person uses them.
#include "tests/support/registry_test.h"
#include "tests/support/storage.h"
#include "tests/tools/run_tool.h"

#include <kal.h>

#include <cstdlib>

namespace {

class Compound : public FolderTest {};
class ResourceFile : public FolderTest {};
class Settings : public RegistryTest {};

TEST_F(Compound, PutCatAndListAgree) {
    Ref<IStorage> root, inner;
    Ref<IStream> stream;
    ASSERT_EQ(createFile("nested.ole", root), S_OK);
    ASSERT_EQ(root->CreateStorage(L"inner", kUpdate, 0, 0, inner.out()), S_OK);
    ASSERT_EQ(makeStream(inner.get(), L"x", stream), S_OK);
    writeAll(stream.get(), bytesOf("deep"));
    stream.reset();
    inner.reset();
    expectRefusals({{{"compound", "list", "nested.ole", "--wait", "0"}, "nested.ole: in use"}});
    root.reset();
    writeFile("letter.doc", readFile(KAL_SOURCE_DIR "/tests/data/compound/letter.doc"));
    // Names are the host's own: neither a drive nor a separator.
    runScript(R"sh(
head -c 100000 /dev/urandom >large; printf small >small; printf 'no compound file' >text
kal compound put 'c:a\b.ole' '\x05Info' large; kal compound put 'c:a\b.ole' Äpfel - <small
kal compound cat 'c:a\b.ole' '\x05Info' | cmp - large
[ "$(kal compound cat 'c:a\b.ole' äPFEL)" = small ]
kal compound list 'c:a\b.ole' | diff - <(printf '%s\n' 'kind     bytes  name' 'stream  100000  \x05Info' 'stream       5  Äpfel')
kal compound put letter.doc WordDocument small # shorter than what was there
[ "$(kal compound cat letter.doc WordDocument)" = small ]
kal compound list --json letter.doc | grep -qF '{"name": "\\x05SummaryInformation", "kind": "stream", "bytes": 172}'
kal compound put nested.ole inner/y small
[ "$(kal compound cat nested.ole inner/x)" = deep ]
kal compound list nested.ole | tail -3 | diff - <(printf '%s\n' 'storage      0  inner' 'stream       4  inner/x' 'stream       5  inner/y')
kal compound put new.ole s text)sh");
    expectRefusals({{{"compound"}, "", 2},
                    {{"compound", "cat", "text"}, "STREAM", 2},
                    {{"compound", "list", "none"}, "none: No such file"},
                    {{"compound", "list", "text"}, "text: not a compound file"},
                    {{"compound", "put", "text", "s", "text"}, "text: not a compound file"},
                    {{"compound", "put", "other.ole", "s", "none"}, "none: No such file"},
                    {{"compound", "put", "other.ole", "a:b", "text"}, "not a name for a stream"},
                    {{"compound", "cat", "new.ole", "t"}, "t: there is no such stream"}});
    const FileSizeLimit full(50000);
    for (const char* put : {"s", "t"})
        expectFailure(kal({"compound", "put", "new.ole", put, "large"}), 1, "no room");
    EXPECT_EQ(kalSucceeds({"compound", "list", "new.ole"}), "kind    bytes  name\nstream     16  s\n");
    EXPECT_EQ(kalSucceeds({"compound", "cat", "new.ole", "s"}), "no compound file");
}

TEST_F(ResourceFile, IsWhatItsScriptSays) {
    const Bytes example = hexExample("docs/formats/resource-file.md");
    writeFile("example", example);
    writeFile("cut", Bytes(example.begin(), example.end() - 1));
    runScript(R"sh(
printf '\xCA\xFE' >blob
printf '# the example\n\n 1 text "Open" "Close"\r\n2\tfile blob\n' | kal resource make - - | cmp - example
kal resource list example | diff - <(printf '%s\n' 'id  bytes  content' ' 1     12  text "Open" "Close"' ' 2      2  data')
kal resource list --json example | diff - <(cat <<'END'
[
  {"id": 1, "bytes": 12, "text": ["Open", "Close"]},
  {"id": 2, "bytes": 2}
]
END
)
kal resource make empty /dev/null 2>/dev/null || kal resource make empty - </dev/null
cmp empty <(head -c 84 /dev/zero)
# More than a new file has room for, of every size; a script in another folder names files beside it.
mkdir folder; cd folder
printf '65534 text "a \\"b\\" \\\\ \\x41\\n" "\xE4"\n7 text ""\n' >script
for id in {100..139}; do
    head -c $((id == 100 ? 65535 : (id - 101) * 31)) /dev/urandom >"f $id"; echo "$id file f $id" >>script
done
cd ..; kal resource make out.res folder/script
kal resource list out.res | grep -qF '65534     14  text "a \"b\" \\ A\x0A" "\xE4"'
kal resource list out.res | grep -qF '    7      2  text ""'
kal resource list --json out.res | grep -qF '"a \"b\" \\ A\u000a", "\u00e4"'
fails 1 'resource 2 is damaged' kal resource list cut
{ kal resource list cut 2>/dev/null || true; } | grep -q Close)sh");
    IFILE* file = nullptr;
    ASSERT_EQ(KalOpenRes(&file, "out.res", 0), 0);
    for (uint16_t id = 100; id < 140; id++) {
        void* data = nullptr;
        EXPECT_EQ(KalReadByteResData(file, id, &data), 0);
        const auto* bytes = static_cast<uint8_t*>(data);
        EXPECT_EQ(Bytes(bytes, bytes + KalSizeSMem(data)), readFile("folder/f " + std::to_string(id)));
        KalDestroyRes(data);
    }
    KalCloseRes(file);
}

TEST_F(ResourceFile, OfAWrongScriptIsNotMade) {
    writeFile("out.res", bytesOf("old"));
    writeFile("large", Bytes(65536));
    std::string tooMany;
    for (int id = 0; id < 4086; id++)
        tooMany += std::to_string(id) + " text \"x\"\n";
    std::vector<Refusal> refusals = {{{"resource", "make", "out.res", "none"}, "none: No such file"},
                                     {{"resource", "make", "out.res"}, "SCRIPT", 2},
                                     {{"resource"}, "", 2},
                                     {{"resource", "list", "none"}, "none: No such file"},
                                     {{"resource", "list", "out.res"}, "out.res: not a resource file"}};
    for (const auto& [script, why] : std::vector<std::pair<std::string, const char*>>{
             {"\n65535 text \"x\"", ":2: a line begins with an id"},
             {"-1 text \"x\"", ":1: a line begins with an id"},
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
             {"1 text \"" + std::string(65534, 'x') + "\"", "larger than 65535"},
             {"1 file", "name of a file is missing"},
             {"1 file missing", "missing: No such file"},
             {"1 file .", "not a regular file"},
             {"1 file large", "larger than 65535"},
             {"1 text \"x\"\n1 text \"y\"", ":2: the id stands in an earlier line"},
             {tooMany, "4085 resources are the most"}}) {
        const std::string name = "script" + std::to_string(refusals.size());
        writeFile(name, bytesOf(script));
        refusals.push_back({{"resource", "make", "out.res", name}, why});
    }
    expectRefusals(refusals);
}

TEST_F(Settings, AreListedChangedAndRemoved) {
    runScript(R"sh(
[ "$(kal settings list)" = '' ]
long=$(head -c 3000 /dev/zero | tr '\0' l)
kal settings set 'Maker\App' Colour blue; kal settings set 'maker\app' Long $long
kal settings set 'Maker\App' 'A?C' pattern; kal settings set 'Maker\App' $'odd\nname' $'a\tb\\\xe4"'
[ "$(kal settings get 'Maker\App' COLOUR) $(kal settings get 'Maker\App' abc)" = 'blue pattern' ]
kal settings list 'MAKER\APP' | diff - <(printf '%s\n' 'Colour = blue' "Long = $long" $'odd\\x0Aname = a\\x09b\\\\\xe4"' 'A?C = pattern')
kal settings unset 'Maker\App' long
kal settings tree | diff - <(printf '%s\n' Maker '  App' '    Colour = blue' $'    odd\\x0Aname = a\\x09b\\\\\xe4"' '    Wildcards' '      A?C = pattern')
kal settings unset 'Maker\App' colour
kal settings list --json 'Maker\App' | diff - <(cat <<'END'
[
  {"tag": "odd\u000aname", "value": "a\u0009b\\\u00e4\""},
  {"tag": "A?C", "value": "pattern"}
]
END
)
kal settings unset 'Maker\App' 'a?c'
fails 1 'there is no tag abc' kal settings get 'Maker\App' abc
# A parent that a set names is not the set.
kal settings set Common Font serif; kal settings set App Parent Common; kal settings set Common Parent App
[ "$(kal settings list App)" = 'Parent = Common' ]
fails 1 'no tag' kal settings get App Font
kal settings set App 'p?ttern' x; kal settings tree >before)sh");
    expectRefusals({{{"settings"}, "", 2},
                    {{"settings", "get", "App"}, "TAG", 2},
                    {{"settings", "list", "None"}, "there is no such set"},
                    {{"settings", "list", "App\\\\x"}, "there is no such set"},
                    {{"settings", "get", "None\\Such", "t"}, "there is no such set"},
                    {{"settings", "get", "App", "t"}, "there is no tag t"},
                    {{"settings", "unset", "App", "pattern"}, "there is no tag pattern"},
                    {{"settings", "unset", "Missing", "t"}, "there is no such set"},
                    {{"settings", "set", "App", "t", ""}, "unset"},
                    {{"settings", "set", "App", std::string(256, 't'), "v"}, "no tag can be named"},
                    {{"settings", "set", std::string(300, 'p'), "t", "v"}, "cannot be opened"}});
    runScript(
        "kal settings tree | cmp - before; KAL_REGISTRY=before/registry fails 1 'settings App: the settings "
        "cannot be opened' kal settings set App t v");
}

} // namespace
