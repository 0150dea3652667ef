// A tag set by itself, and what it leaves in the registry.
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/traps.h"

#include <kal/tagset.h>

#include <clocale>
#include <cmath>
#include <cstring>

namespace {

const std::string kRoot = KAL_SETTINGS_ROOT;

// The members that other members use.
class OpenTagSet : public TagSet {
public:
    using TagSet::CurBuf;
    using TagSet::ForTags;
    using TagSet::GetReady;
    using TagSet::GetWildTag;
    using TagSet::NextBuf;
    using TagSet::SetTempPath;
};

std::string read(TagSet& set, const char* tag) {
    char text[300] = "untouched";
    return set.GetTag(tag, text, sizeof text) == 0 ? text : "(none)";
}

} // namespace

using Tags = RegistryTest;

TEST_F(Tags, KeepTheLayoutOfTheRegistry) {
    {
        TagSet set;
        EXPECT_EQ(set.GetPath(), nullptr);
        ASSERT_EQ(set.SetPath("Maker\\App", 1), 0);
        EXPECT_STREQ(set.GetPath(), "Maker\\App");
        EXPECT_EQ(set.SetTag("Colour", "blue"), 0);
        EXPECT_EQ(set.SetTag("A?C", "pattern"), 0);
        EXPECT_EQ(set.SetTag("Colour", "hidden", "Alternative"), 0);
        EXPECT_EQ(set.GetTag("colour", nullptr, 0, "none such"), 0) << "the tag is there, whatever the value";
        char text[20];
        EXPECT_EQ(set.GetTag("COLOUR", text, sizeof text, "ALTERNATIVE"), 0);
        EXPECT_STREQ(text, "hidden");
    }
    const std::string tree = persistentTree() + "/morvek.image/settings/maker/app";
    EXPECT_EQ(readFile(tree + "/colour/@"), bytesOf(std::string("blue\0", 5)));
    EXPECT_EQ(readFile(tree + "/colour/.name"), bytesOf("Colour"));
    EXPECT_EQ(readFile(tree + "/wildcards/a?c/@"), bytesOf(std::string("pattern\0", 8)));
    EXPECT_EQ(filesIn(tree), (std::vector<std::string>{".name", "colour", "wildcards"}));
    EXPECT_EQ(textOf(kRoot + "Maker\\App\\Colour"), "blue");
    HKEY key = makeTestKey(kRoot + "Maker\\App\\Wildcards");
    char className[10];
    uint32_t size = sizeof className;
    EXPECT_EQ(RegQueryInfoKeyA(key, className, &size, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr),
              0);
    EXPECT_STREQ(className, "string");
    RegCloseKey(key);

    TagSet again;
    ASSERT_EQ(again.SetPath("maker\\app", 1), 0);
    EXPECT_EQ(read(again, "Colour"), "blue");
    EXPECT_EQ(again.SetTag("Colour", ""), 0) << "removes the tag with all its values";
    EXPECT_EQ(read(again, "Colour"), "(none)");
    EXPECT_FALSE(fileExists(tree + "/colour"));
    EXPECT_EQ(again.SetTag("a?c", nullptr), 0);
    EXPECT_EQ(read(again, "abc"), "(none)");
    EXPECT_EQ(again.SetTag("never there", nullptr), 0);
}

TEST_F(Tags, AnswerForPatternsOfTheirLengthAndExactNamesFirst) {
    OpenTagSet set;
    ASSERT_EQ(set.SetPath("App", 1), 0);
    set.SetTag("A?C", "1");
    set.SetTag("?\xe4?", "2");
    set.SetTag("exact", "3");
    set.SetTag("EXAC?", "4");
    const struct {
        const char* tag;
        const char* value;
    } cases[] = {{"abc", "1"},    {"AXC", "1"},         {"ab", "(none)"}, {"abcd", "(none)"}, {"a?c", "1"},
                 {"x\xe4y", "2"}, {"x\xc4y", "(none)"}, {"???", "2"},     {"exact", "3"},     {"exacz", "4"},
                 {"", "(none)"},  {"wildcards", ""},    {"a?d", "2"},     {"?b?", "1"}};
    for (const auto& [tag, value] : cases) {
        char text[20] = "";
        const int16_t status = set.GetTag(tag, text, sizeof text);
        EXPECT_EQ(status, std::strcmp(value, "(none)") == 0 ? KAL_ERR_TAG_MISSING : 0) << tag;
        EXPECT_STREQ(text, status == 0 ? value : "") << tag;
    }
    char text[20];
    EXPECT_EQ(set.GetWildTag("exact", text, sizeof text, nullptr), 0);
    EXPECT_STREQ(text, "4");
    EXPECT_EQ(set.GetRawTag("abc", text, sizeof text), KAL_ERR_TAG_MISSING);
}

TEST_F(Tags, ResultBuffersRotateAndNeverShowAnotherTagsText) {
    OpenTagSet set;
    ASSERT_EQ(set.SetPath("App", 1), 0);
    set.SetTag("a", "first");
    set.SetTag("long", std::string(300, 'x').c_str());
    set.SetTag("fits", std::string(255, 'y').c_str());
    char* const first = set.GetTempTag("a");
    char* results[21] = {first};
    for (int i = 1; i < 21; i++) {
        results[i] = set.GetTempTag("a");
        EXPECT_STREQ(results[i], "first");
        EXPECT_EQ(results[i] == first, i == 20) << i;
    }
    EXPECT_EQ(set.CurBuf(), first);
    EXPECT_EQ(set.NextBuf(), results[1]);
    for (int i = 0; i < 20; i++)
        set.GetTempTag("fits");
    EXPECT_STREQ(set.GetTempTag("long"), "") << "not what the buffer held before";
    EXPECT_EQ(set.GetTempTag("missing"), nullptr);
    char text[4] = "abc";
    EXPECT_EQ(set.GetTag("a", text, 3), 0);
    EXPECT_STREQ(text, "abc") << "a value that does not fit leaves the buffer alone";
    EXPECT_EQ(set.GetTag("a", text, -1), 0);

    // A value that another program stored without its zero, as long as the buffer.
    HKEY key = makeTestKey(kRoot + "App\\raw");
    const std::string raw(256, 'z');
    for (const uint32_t size : {256u, 3u}) {
        RegSetValueExA(key, nullptr, 0, 3, reinterpret_cast<const uint8_t*>(raw.data()), size);
        for (int i = 0; i < 20; i++) {
            const char* result = set.GetTempTag("raw");
            EXPECT_EQ(std::strlen(result), std::min(size, 255u));
        }
    }
    RegCloseKey(key);
}

TEST_F(Tags, NumbersAreTextAndZeroIsAbsence) {
    TagSet set;
    ASSERT_EQ(set.SetPath("App", 1), 0);
    for (const int value : {1, -1, 42, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(set.SetIntTag("n", value), 0);
        EXPECT_EQ(set.GetIntTag("n"), value);
        EXPECT_EQ(read(set, "n"), std::to_string(value));
    }
    EXPECT_EQ(set.SetIntTag("n", 0), 0);
    EXPECT_EQ(read(set, "n"), "(none)");
    EXPECT_EQ(set.GetIntTag("n"), 0);
    set.SetTag("n", " 12 apples");
    EXPECT_EQ(set.GetIntTag("n"), 12);
    EXPECT_EQ(set.GetFloatTag("n"), 12.0);
    set.SetTag("n", "+-3");
    EXPECT_EQ(set.GetFloatTag("n"), 0.0);

    std::setlocale(LC_ALL,
                   "de_DE.UTF-8"); // where there is such a locale: its comma must not get into the settings
    for (const double value : {0.1, -2.5, 1e300, -1.2345678901234567e-300, 3.0, 1e-5})
        for (const int digits : {17, 30, 1000}) {
            EXPECT_EQ(set.SetFloatTag("f", value, digits), 0);
            EXPECT_EQ(set.GetFloatTag("f"), value) << digits;
        }
    std::setlocale(LC_ALL, "C");
    set.SetFloatTag("f", 3.14159, 3);
    EXPECT_EQ(read(set, "f"), "3.14");
    set.SetFloatTag("f", 1234567.0, -5);
    EXPECT_EQ(set.GetFloatTag("f"), 1e6);
    set.SetTag("f", "1e999");
    EXPECT_TRUE(std::isinf(set.GetFloatTag("f")));
    EXPECT_EQ(set.SetFloatTag("f", 0.0, 5), 0);
    EXPECT_EQ(read(set, "f"), "(none)");
    EXPECT_EQ(set.GetFloatTag("f"), 0.0);
}

TEST_F(Tags, ASetWithoutPathIsTemporaryAndLeavesNothing) {
    {
        TagSet unused;
        OpenTagSet first, second;
        EXPECT_EQ(first.GetTag("x", nullptr, 0), KAL_ERR_TAG_MISSING);
        EXPECT_STREQ(first.GetPath(), "Temp\\0");
        second.GetReady();
        EXPECT_STREQ(second.GetPath(), "Temp\\1");
        EXPECT_EQ(textOf(kRoot + "NextTemp"), "2");
        first.SetTag("tag", "1");
        first.SetTag("p?", "1");
        second.SetTag("p?", "2");
        EXPECT_TRUE(fileExists(volatileTree() + "/morvek.image/settings/temp/0/tag/@"));
        EXPECT_EQ(unused.GetPath(), nullptr);
    }
    EXPECT_TRUE(subkeysOf(kRoot + "Temp").empty());
    EXPECT_FALSE(fileExists(persistentTree() + "/morvek.image"));

    setText(kRoot + "Temp\\2", "taken", REG_OPTION_VOLATILE);
    TagSet third;
    EXPECT_EQ(third.SetTag("t", "3"), 0);
    EXPECT_STREQ(third.GetPath(), "Temp\\3") << "a taken number is drawn again";
    for (const char* counter : {"2147483647", "words", "-5", "a\\b"}) {
        setText(kRoot + "NextTemp", counter);
        TagSet odd;
        odd.SetTag("t", "v");
        EXPECT_EQ(read(odd, "t"), "v");
        EXPECT_EQ(odd.GetPath(), std::string("Temp\\") + counter);
    }
    TagSet passing;
    ASSERT_EQ(passing.SetPath("Passing", 0), 0);
    passing.SetTag("t", "v");
    ASSERT_EQ(passing.SetPath("Kept", 1), 0);
    EXPECT_EQ(subkeysOf(kRoot), (std::vector<std::string>{"Kept", "NextTemp", "Temp"}));
}

TEST_F(Tags, LongPathsAndNamesAreRefusedAndNeverCut) {
    const size_t room = 256 - kRoot.size();
    TagSet longest, tooLong;
    const std::string path(room - 1, 'p');
    EXPECT_EQ(longest.SetPath(path.c_str(), 1), 0);
    EXPECT_EQ(tooLong.SetPath((path + "p").c_str(), 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(tooLong.SetPath(std::string(5000, 'p').c_str(), 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(tooLong.SetPath(nullptr, 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(tooLong.SetPath("a\\\\b", 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(tooLong.SetTag("then temporary", "x"), 0);
    EXPECT_STREQ(tooLong.GetPath(), "Temp\\0");

    for (const size_t length : {249u, 250u, 255u, 256u, 259u, 260u, 5000u}) {
        const std::string tag(length, 't');
        const std::string pattern = "?" + tag.substr(1);
        EXPECT_EQ(longest.SetTag(tag.c_str(), "exact"), 0);
        EXPECT_EQ(read(longest, tag.c_str()), length <= 255 ? "exact" : "(none)") << length;
        EXPECT_EQ(longest.SetTag(tag.c_str(), nullptr), 0);
        EXPECT_EQ(longest.SetTag(pattern.c_str(), "pattern"), 0);
        EXPECT_EQ(read(longest, tag.c_str()), length <= 249 ? "pattern" : "(none)") << length;
        EXPECT_EQ(longest.SetTag(pattern.c_str(), nullptr), 0);
    }
    EXPECT_EQ(longest.SetTag(nullptr, "x"), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(longest.GetTempTag(nullptr), nullptr);
    EXPECT_EQ(longest.SetTag("", "x"), 0);
    EXPECT_TRUE(subkeysOf(kRoot + path).size() <= 1) << "only the patterns' key is left";
}

TEST_F(Tags, ATreeThatCannotBeWrittenGivesStatusesAndNothingCrashes) {
    writeFile(path("plain"), bytesOf("a file"));
    setenv("KAL_REGISTRY", path("plain/registry").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", path("plain").c_str(), 1);
    HeapBalance balance;
    OpenTagSet set;
    EXPECT_EQ(set.SetPath("App", 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(set.SetTempPath(), KAL_ERR_TAG_KEY);
    EXPECT_EQ(set.SetTag("t", "v"), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(set.SetFloatTag("t", 1.5, 3), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(set.GetTag("t", nullptr, 0), KAL_ERR_TAG_MISSING);
    EXPECT_EQ(set.GetTempTag("t"), nullptr);
    EXPECT_EQ(set.GetPath(), nullptr);
    TagSet* child = set.CreateChild();
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->SetTag("t", "v"), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(child->FuseWithParent(), 0);
    EXPECT_EQ(TagSearch(child, "").NextTag(), nullptr);
    EXPECT_EQ(set.ClearTags(), 0);
    set.DestroyChild();

    // The set's key can be opened but its tags cannot be written.
    setenv("KAL_REGISTRY", persistentTree().c_str(), 1);
    setenv("XDG_RUNTIME_DIR", path("runtime").c_str(), 1);
    TagSet opened;
    ASSERT_EQ(opened.SetPath("App", 1), 0);
    opened.SetTag("held", "v");
    {
        HostCallGuard guard;
        hostCalls.renameat = [](int, const char*, int, const char*) {
            errno = EROFS;
            return -1;
        };
        EXPECT_EQ(opened.SetTag("held", "w"), KAL_ERR_TAG_WRITE);
    }
    EXPECT_EQ(read(opened, "held"), "v");
}

TEST_F(Tags, ShortMemoryIsAStatus) {
    const int runs = withEachAllocationFailing([&](int n) {
        setenv("XDG_RUNTIME_DIR", path("runtime" + std::string(n % 2 == 0 ? 0u : 1u, '/')).c_str(), 1);
        TagSet set;
        set.SetPath("App", 1);
        set.SetTag("t", "v");
        TagSet* child = set.CreateChild();
        if (child != nullptr)
            child->SetTag(("u" + std::to_string(n)).c_str(), std::string(300, 'x').c_str());
        if (child != nullptr)
            child->FuseWithParent();
        set.DestroyChild();
    });
    EXPECT_GT(runs, 10);
}
