// Compound files, resource files and settings as a person uses them.
#include "tests/support/registry_test.h"
#include "tests/support/storage.h"
#include "tests/tools/tool_test.h"

#include <kal.h>

#include <cstdlib>

namespace {

class Compound : public FolderTest {};
class ResourceFile : public FolderTest {};
class Settings : public RegistryTest {};

TEST_F(Compound, PutCatAndListAgree) {
    Ref<IStorage> root, inner;
    ASSERT_EQ(createFile("nested.ole", root), S_OK);
    ASSERT_EQ(root->CreateStorage(L"inner", kUpdate, 0, 0, inner.out()), S_OK);
    EXPECT_EQ(putStream(inner.get(), L"x", bytesOf("deep")), S_OK);
    inner.reset();
    runScript("fails 1 'nested.ole: in use' kal compound list nested.ole --wait 0");
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
kal compound put new.ole s text
refuses <<'END'
2||compound
2|STREAM|compound cat text
1|none: No such file|compound list none
1|text: not a compound file|compound list text
1|text: not a compound file|compound put text s text
1|none: No such file|compound put other.ole s none
1|not a name for a stream|compound put other.ole a:b text
1|t: there is no such stream|compound cat new.ole t
END
for name in s t; do (ulimit -f 50; fails 1 'no room' kal compound put new.ole $name large); done
kal compound list new.ole | cmp - <(printf 'kind    bytes  name\nstream     16  s\n')
kal compound cat new.ole s | cmp - text)sh");
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
    runScript(R"sh(
echo old >out.res; head -c 65536 /dev/zero >large
refuses <<'END'
1|none: No such file|resource make out.res none
2|SCRIPT|resource make out.res
2||resource
1|none: No such file|resource list none
1|out.res: not a resource file|resource list out.res
END
while IFS='|' read -r why lines; do
    printf %b "$lines" >script
    refuses <<<"1|$why|resource make out.res script"
done <<END
:2: a line begins with an id|\\n65535 text "x"
:1: a line begins with an id|-1 text "x"
:1: a line begins with an id|1x text "x"
:1: a line begins with an id|text "x"
"text" or "file"|1 bitmap x
"text" or "file"|1
a text needs a string|1 text
must stand in quotes|1 text x
no closing quote|1 text "x
unknown escape|1 text "x\\\\
unknown escape|1 text "\\\\q"
two hexadecimal digits|1 text "\\\\x0"
two hexadecimal digits|1 text "\\\\x00"
two hexadecimal digits|1 text "\\\\x
a blank must follow|1 text "a""b"
only the first string may be empty|1 text "a" ""
larger than 65535|1 text "$(head -c 65534 /dev/zero | tr '\0' x)"
name of a file is missing|1 file
missing: No such file|1 file missing
not a regular file|1 file .
larger than 65535|1 file large
:2: the id stands in an earlier line|1 text "x"\\n1 text "y"
4085 resources are the most|$(printf '%d text "x"\\n' {0..4085})
END
)sh");
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
kal settings set App 'p?ttern' x; kal settings tree >before
refuses <<'END'
2||settings
2|TAG|settings get App
1|there is no such set|settings list None
1|there is no such set|settings list 'App\\x'
1|there is no such set|settings get 'None\Such' t
1|there is no tag t|settings get App t
1|there is no tag pattern|settings unset App pattern
1|there is no such set|settings unset Missing t
1|unset|settings set App t ''
1|no tag can be named|settings set App $(printf 't%.0s' {1..256}) v
1|cannot be opened|settings set $(printf 'p%.0s' {1..300}) t v
END
kal settings tree | cmp - before
KAL_REGISTRY=before/registry fails 1 'settings App: the settings cannot be opened' kal settings set App t v)sh");
}

} // namespace
