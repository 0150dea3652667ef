// Tag sets in one process: by themselves, layered, and what they leave in the registry.
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/trouble.h"

#include <kal/tagset.h>

#include <clocale>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <random>

namespace {

const std::string kRoot = KAL_SETTINGS_ROOT;

// The members that other members use.
class OpenTagSet : public TagSet {
public:
    using TagSet::CurBuf;
    using TagSet::GetReady;
    using TagSet::GetWildTag;
    using TagSet::NextBuf;
    using TagSet::SetTempPath;
};

std::string read(TagSet& set, const std::string& tag, const char* valueName = nullptr) {
    char text[300] = "untouched";
    return set.GetTag(tag.c_str(), text, sizeof text, valueName) == 0 ? text : "(none)";
}

std::string found(TagSet& set, const char* prefix) {
    std::string all;
    TagSearch search(&set, prefix);
    while (const char* rest = search.NextTag())
        all += rest + std::string("=") + (rest + std::strlen(rest) + 1) + " ";
    return all;
}

// What the rules make of sets over each other, the deepest last: each a map of tags and one of patterns.
struct Model {
    using Tags = std::map<std::string, std::string>;
    std::vector<Tags> exact, patterns;

    void set(size_t at, const std::string& tag, const std::string& value) {
        Tags& tags = (tag.find('?') != std::string::npos ? patterns : exact)[at];
        value.empty() ? void(tags.erase(tag)) : void(tags[tag] = value);
    }
    std::string read(const std::string& tag) const {
        for (size_t i = exact.size(); i-- > 0;)
            if (const auto held = exact[i].find(tag); held != exact[i].end())
                return held->second;
        const auto matches = [&](const std::string& pattern) {
            bool all = pattern.size() == tag.size();
            for (size_t c = 0; all && c < tag.size(); c++)
                all = pattern[c] == tag[c] || pattern[c] == '?';
            return all;
        };
        for (size_t i = patterns.size(); i-- > 0;)
            for (const auto& [pattern, value] : patterns[i])
                if (matches(pattern))
                    return value;
        return "(none)";
    }
};

} // namespace

using Tags = RegistryTest;

TEST_F(Tags, AChainReadsAsAModelWhateverChanges) {
    const uint32_t seed = firstSeed();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (const size_t depth : {size_t(1), size_t(3), size_t(12)}) {
        const std::string name = "D" + std::to_string(depth) + "\\S";
        std::vector<std::unique_ptr<TagSet>> sets;
        const auto pathOf = [&](size_t i) { return name + std::to_string(i); };
        for (size_t i = 0; i < depth; i++) {
            sets.push_back(std::make_unique<TagSet>());
            ASSERT_EQ(sets[i]->SetPath(pathOf(i).c_str(), 1), 0);
            if (i % 2 == 1)
                sets[i]->SetParent(sets[i - 1].get());
            else if (i > 0)
                sets[i - 1]->SetChild(sets[i].get());
        }
        Model model{std::vector<Model::Tags>(depth), std::vector<Model::Tags>(depth)};
        static const char* const kTags[] = {"aa", "ab", "bb", "a?", "?b", "??", "long"};
        for (int step = 0; step < 1500; step++) {
            const size_t at = random() % depth;
            const std::string tag = kTags[random() % std::size(kTags)];
            const std::string value = random() % 3 == 0 ? "" : tag + std::to_string(step % 40);
            const size_t how = random() % 6;
            if (how == 0) { // not through this set
                const std::string key = kRoot + pathOf(at) + (tag.find('?') == 2 ? "" : "") +
                                        (tag.find('?') != std::string::npos ? "\\Wildcards\\" : "\\") + tag;
                value.empty() ? RegDeleteKeyA(HKEY_CLASSES_ROOT, key.c_str()) : setText(key, value);
                model.set(at, tag, value);
            } else if (how == 1) {
                ASSERT_EQ(sets[at]->SetTag(tag.c_str(), value.c_str()), 0);
                model.set(depth - 1, tag, value);
            } else if (how == 2) {
                ASSERT_EQ(sets[at]->SetGlobalTag(tag.c_str(), value.c_str()), 0);
                model.set(0, tag, value);
            } else {
                ASSERT_EQ(sets[at]->SetRawTag(tag.c_str(), value.empty() ? nullptr : value.c_str()), 0);
                model.set(at, tag, value);
            }
            for (const char* asked : {"aa", "ab", "bb", "zz", "long", "longer"}) {
                std::string spelled = asked;
                spelled[0] = random() % 2 == 0 ? char(std::toupper(spelled[0])) : spelled[0];
                ASSERT_EQ(read(*sets[random() % depth], spelled), model.read(asked))
                    << "depth " << depth << ", step " << step << ", tag " << spelled;
            }
        }
        // The links on disk bring the chain back.
        TagSet again;
        ASSERT_EQ(again.SetPath(pathOf(depth - 1).c_str(), 1), 0);
        EXPECT_EQ(read(again, "aa"), model.read("aa"));
        size_t above = 0;
        for (TagSet* set = again.GetParent(); set != nullptr; above++) {
            EXPECT_EQ(set->GetPath(), pathOf(depth - 2 - above));
            TagSet* const next = set->GetParent();
            delete set;
            set = next;
        }
        EXPECT_EQ(above, depth - 1);
        again.SetParent(nullptr);
        for (size_t i = depth; i-- > 0;) { // cut from its parents, a set reads its own
            sets[i]->SetParent(nullptr);
            sets[i]->SetChild(nullptr);
            EXPECT_EQ(read(*sets[i], "long"),
                      model.exact[i].count("long") != 0 ? model.exact[i]["long"] : "(none)");
        }
    }
}

TEST_F(Tags, PatternsValuesAndResultBuffersKeepTheirRules) {
    OpenTagSet set;
    ASSERT_EQ(set.SetPath("Maker\\App", 1), 0);
    EXPECT_STREQ(set.GetPath(), "Maker\\App");
    for (const auto& [tag, value] : {std::pair("A?C", "1"), {"?\xe4?", "2"}, {"exact", "3"}, {"EXAC?", "4"}})
        EXPECT_EQ(set.SetTag(tag, value), 0);
    for (int twice = 0; twice < 2; twice++) // found, and then known
        for (const auto& [tag, value] : {std::pair("abc", "1"),
                                         {"AXC", "1"},
                                         {"ab", "(none)"},
                                         {"abcd", "(none)"},
                                         {"a?c", "1"},
                                         {"x\xe4y", "2"},
                                         {"x\xc4y", "(none)"},
                                         {"???", "2"},
                                         {"exact", "3"},
                                         {"exacz", "4"},
                                         {"", "(none)"},
                                         {"a?d", "2"},
                                         {"wildcards", "untouched"},
                                         {"?b?", "1"}})
            EXPECT_EQ(read(set, tag), value) << tag;
    char text[20];
    EXPECT_EQ(set.GetWildTag("exact", text, sizeof text, nullptr), 0);
    EXPECT_STREQ(text, "4");
    EXPECT_EQ(set.GetRawTag("abc", text, sizeof text), KAL_ERR_TAG_MISSING);
    set.SetTag("exact", "hidden", "Alternative");
    EXPECT_EQ(read(set, "exact", "ALTERNATIVE"), "hidden");
    EXPECT_EQ(read(set, "exact", "none such"), "untouched") << "the tag is there, whatever the value";
    EXPECT_EQ(textOf(kRoot + "maker\\app\\Wildcards\\A?C"), "1");
    set.SetTag("a?c", "");
    EXPECT_EQ(read(set, "abc"), "(none)");

    set.SetTag("long", std::string(300, 'x').c_str());
    set.SetTag("fits", std::string(255, 'y').c_str());
    char* results[21];
    for (char*& result : results)
        EXPECT_STREQ(result = set.GetTempTag("exact"), "3");
    EXPECT_EQ(std::find(results + 1, results + 21, results[0]) - results, 20);
    EXPECT_EQ(set.CurBuf(), results[0]);
    EXPECT_EQ(set.NextBuf(), results[1]);
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(std::strlen(set.GetTempTag("fits")), 255u);
    EXPECT_STREQ(set.GetTempTag("long"), "") << "not what the buffer held before";
    EXPECT_EQ(set.GetTempTag("missing"), nullptr);
    for (const auto& [size, expected] : {std::pair(2, "3"), {1, "abc"}, {0, "abc"}, {-1, "abc"}})
        for (int twice = 0; twice < 2; twice++) {
            char small[4] = "abc";
            EXPECT_EQ(set.GetTag("exact", small, size), 0);
            EXPECT_STREQ(small, expected) << "a value that does not fit leaves the buffer alone";
        }
    EXPECT_EQ(set.GetTag("exact", nullptr, 20), 0);
    HKEY key = makeTestKey(kRoot + "Maker\\App\\raw"); // a value that another program stored without its zero
    for (const uint32_t size : {256u, 3u}) {
        RegSetValueExA(key, nullptr, 0, 3, reinterpret_cast<const uint8_t*>(std::string(256, 'z').data()),
                       size);
        EXPECT_EQ(std::strlen(set.GetTempTag("raw")), std::min(size, 255u));
        EXPECT_EQ(read(set, "raw"), std::string(size, 'z'));
    }
    RegCloseKey(key);
    const std::string big(10000, 'b'); // too large to be kept
    set.SetTag("big", big.c_str());
    std::string whole(10001, ' ');
    for (const char* tag : {"big", "BIG"})
        EXPECT_EQ(set.GetTag(tag, whole.data(), 10001) == 0 ? whole.c_str() : "", big);
}

TEST_F(Tags, NumbersAreTextInEveryLocaleAndZeroIsAbsence) {
    TagSet set;
    ASSERT_EQ(set.SetPath("App", 1), 0);
    for (const int value : {1, -1, 2147483647, -2147483647 - 1}) {
        EXPECT_EQ(set.SetIntTag("i", value), 0);
        EXPECT_EQ(read(set, "i"), std::to_string(value));
        EXPECT_EQ(set.GetIntTag("I"), value);
    }
    EXPECT_EQ(set.SetIntTag("i", 0), 0);
    EXPECT_EQ(read(set, "i") + read(set, "f"), "(none)(none)");
    EXPECT_EQ(set.GetIntTag("i") + set.GetFloatTag("f"), 0);
    setenv("LOCPATH", "/nowhere", 0);
    for (const char* locale : {"C", "de_DE.UTF-8"}) {
        std::setlocale(LC_ALL, locale);
        for (const double value : {0.1, -2.5, 1e300, 1.0 / 3}) {
            EXPECT_EQ(set.SetFloatTag("f", value, 17), 0);
            EXPECT_EQ(set.GetFloatTag("f"), value);
        }
    }
    std::setlocale(LC_ALL, "C");
    for (const auto& [value, digits, text] :
         {std::tuple(3.14159, 3, "3.14"), {1234567.0, -5, "1.e+006"}, {2.0, 99, "2."}}) {
        set.SetFloatTag("f", value, digits);
        EXPECT_EQ(set.GetFloatTag("f"), std::strtod(text, nullptr)) << read(set, "f");
    }
    for (const auto& [text, value] : {std::pair(" +2.5x", 2.5), {"1e999", HUGE_VAL}, {"words", 0.0}}) {
        set.SetTag("f", text);
        EXPECT_EQ(set.GetFloatTag("f"), value) << text;
    }
    EXPECT_EQ(set.SetFloatTag("f", 0.0, 5), 0);
    EXPECT_EQ(read(set, "f"), "(none)");
}

TEST_F(Tags, ASetWithoutPathIsTemporaryAndLeavesNothing) {
    {
        TagSet unused;
        OpenTagSet first, second;
        EXPECT_EQ(TagSearch(&first, "").NextTag(), nullptr) << "a search makes no set ready";
        EXPECT_EQ(first.GetPath(), nullptr);
        EXPECT_EQ(first.GetTag("x", nullptr, 0), KAL_ERR_TAG_MISSING);
        EXPECT_STREQ(first.GetPath(), "Temp\\0");
        second.GetReady();
        EXPECT_STREQ(second.GetPath(), "Temp\\1");
        EXPECT_EQ(textOf(kRoot + "NextTemp"), "2");
        for (const char* tag : {"tag", "p?", "one\\below\\another", "one\\p?"})
            EXPECT_EQ(first.SetTag(tag, "1"), 0);
        EXPECT_EQ(unused.GetPath(), nullptr);
    }
    EXPECT_EQ(dumpRegistry(), "Morvek.Image=(no value){Settings=(no value){NextTemp=2{}Temp=(no value){}}}");
    EXPECT_EQ(readFile(persistentTree() + "/log").size(), 4096u) << "nothing of it was persistent";

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
    EXPECT_EQ(passing.SetPath(passing.GetPath(), 1), 0) << "its own path";
    EXPECT_STREQ(passing.GetPath(), "Kept");
    forgetRegistry();
}

TEST_F(Tags, AChildCollectsChangesToFuseOrDiscard) {
    TagSet app;
    ASSERT_EQ(app.SetPath("App", 1), 0);
    EXPECT_EQ(app.FuseWithParent(), KAL_ERR_TAG_PARENT);
    for (const char* tag : {"held", "Both", "Fon", "font\xe4"})
        app.SetTag(tag, "app");
    const std::string longText(1000, 'l');
    uint64_t blocks[3] = {};
    for (int round = 0; round < 3; round++) { // the last one is fused
        blocks[round] = liveHeapBlocks();
        TagSet* child = app.CreateChild();
        ASSERT_NE(child, nullptr);
        EXPECT_TRUE(app.GetLastChild() == child && child->GetParent() == &app);
        EXPECT_EQ(textOf(kRoot + child->GetPath() + "\\Parent"), "App");
        child->SetTag("p?ttern", "child");
        app.SetTag("BOTH", "child"); // to the child: it is the deepest
        app.SetTag("p?t", "pat");
        app.SetTag("long", longText.c_str());
        child->SetTag("FontName", "serif");
        EXPECT_EQ(read(app, "both") + read(app, "held"), "childapp");
        EXPECT_EQ(textOf(kRoot + "App\\Both"), "app");
        EXPECT_EQ(found(*child, "FON"), "tName=serif =app t\xe4=app ");
        EXPECT_EQ(found(*child, "bo"), "TH=child th=child ") << "a tag of several sets comes once for each";
        EXPECT_EQ(found(*child, "none such"), "");
        EXPECT_EQ(round < 2 ? 0 : child->FuseWithParent(), 0);
        app.DestroyChild();
        EXPECT_EQ(app.GetLastChild(), nullptr);
        EXPECT_EQ(read(app, "both"), round < 2 ? "app" : "child");
        EXPECT_EQ(read(app, "pattern"), round < 2 ? "(none)" : "child");
    }
    EXPECT_EQ(blocks[2], blocks[1]) << "a child leaves no memory behind";
    EXPECT_EQ(textOf(kRoot + "App\\long"), longText);
    EXPECT_EQ(textOf(kRoot + "App\\Wildcards\\p?t"), "pat");
    EXPECT_EQ(found(app, ""), "Both=child Fon=app FontName=serif font\xe4=app held=app long= Wildcards= ");
    const std::string name(200, 'n');
    app.SetTag(name.c_str(), std::string(255, 'v').c_str());
    EXPECT_EQ(found(app, "nn"), name.substr(2) + "=" + std::string(260 - 201 - 1, 'v') + " ")
        << "name and value share 260 characters";
    app.SetTag("below\\it", "1");
    app.ClearTags();
    EXPECT_TRUE(subkeysOf(kRoot + "App").empty());
    EXPECT_EQ(textOf(kRoot + "App"), "(no value)") << "the set's own key stays";
    EXPECT_EQ(read(app, "pattern"), "(none)");
}

TEST_F(Tags, LinksThatComeRoundAreCutAndLongNamesRefused) {
    for (const auto& [set, parent] : {std::pair("A", "B"), {"B", "a"}, {"Self", "SELF"}, {"Tail", "A"}})
        setText(kRoot + set + "\\Parent", parent);
    setText(kRoot + "Lost\\Parent", std::string(250, 'x')); // cannot be opened: stays without a key
    for (const auto& [path, chain] :
         {std::pair("A", "A B "), {"Self", "Self "}, {"Tail", "Tail A B "}, {"Lost", "Lost Temp\\0 "}}) {
        TagSet set;
        EXPECT_EQ(set.SetPath(path, 1), 0);
        EXPECT_EQ(read(set, "missing"), "(none)");
        std::string paths;
        for (TagSet* each = &set; each != nullptr;) {
            paths += std::string(each->GetPath()) + " ";
            TagSet* const next = each->GetParent();
            if (each != &set)
                delete each;
            each = next;
        }
        EXPECT_EQ(paths, chain);
    }
    TagSet a, b;
    a.SetParent(&a);
    a.SetParent(&b);
    b.SetParent(&a); // would close a ring
    EXPECT_TRUE(b.GetParent() == nullptr && a.GetParent() == &b);
    a.SetParent(nullptr);
    b.SetChild(nullptr);

    const std::string path(256 - kRoot.size() - 1, 'p');
    TagSet longest, tooLong;
    EXPECT_EQ(longest.SetPath(path.c_str(), 1), 0);
    for (const std::string& refused : {path + "p", std::string(5000, 'p'), std::string("a\\\\b")})
        EXPECT_EQ(tooLong.SetPath(refused.c_str(), 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(tooLong.SetPath(nullptr, 1), KAL_ERR_TAG_KEY);
    for (const size_t length : {249u, 250u, 255u, 256u, 259u, 260u, 5000u})
        for (const bool isPattern : {false, true}) {
            const std::string asked(length, 't'), tag = (isPattern ? "?" : "t") + asked.substr(1);
            EXPECT_EQ(longest.SetTag(tag.c_str(), "v"), 0);
            EXPECT_EQ(read(longest, asked), length <= (isPattern ? 249 : 255) ? "v" : "(none)") << length;
            EXPECT_EQ(longest.SetTag(tag.c_str(), nullptr), 0);
        }
    EXPECT_EQ(longest.SetTag(nullptr, "x"), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(longest.GetTempTag(nullptr), nullptr);
    EXPECT_EQ(longest.SetTag("", "x"), 0);
}

TEST_F(Tags, TroubleIsAStatusAndLeavesEachTagOldOrNew) {
    setText(kRoot + "App\\held", "old");
    setText(kRoot + "Volatile", "v", REG_OPTION_VOLATILE);
    const std::string volatileLog = volatileTree().substr(path("").size()) + "/log";
    forgetRegistry();
    const auto run = [this] {
        {
            TagSet set;
            set.SetPath("App", 1);
            set.SetTag("held", "new");
            if (TagSet* child = set.CreateChild()) {
                child->SetTag("long", std::string(300, 'x').c_str());
                child->GetTempTag("held");
                child->FuseWithParent();
            }
            set.DestroyChild();
        }
        // Not every member has a status.
        const bool done = textOf(kRoot + "App\\held") == "new" && textOf(kRoot + "App\\long").size() == 300;
        forgetRegistry();
        emptyVolatileTree(); // its log tells more after some troubles
        return done ? 0 : -1;
    };
    walkTrouble({.prepare = forgetRegistry,
                 .run = run,
                 .statuses = {-1},
                 .check =
                     [](int) {
                         const std::string held = textOf(kRoot + "App\\held");
                         EXPECT_TRUE(held == "old" || held == "new") << held;
                         EXPECT_EQ(setText(kRoot + "next", "works"), 0);
                         forgetRegistry();
                     },
                 .unfinished = {"registry/log", volatileLog}});

    writeFile(path("plain"), bytesOf("a file"));
    for (const char* place : {"KAL_REGISTRY", "XDG_RUNTIME_DIR"})
        setenv(place, path("plain/registry").c_str(), 1);
    OpenTagSet set;
    EXPECT_EQ(set.SetPath("App", 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(set.SetTempPath(), KAL_ERR_TAG_KEY);
    EXPECT_EQ(set.SetTag("t", "v"), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(set.GetTag("t", nullptr, 0), KAL_ERR_TAG_MISSING);
    EXPECT_TRUE(set.GetTempTag("t") == nullptr && set.GetPath() == nullptr);
    ASSERT_NE(set.CreateChild(), nullptr);
    EXPECT_EQ(set.GetLastChild()->FuseWithParent(), 0);
    EXPECT_EQ(set.ClearTags(), 0);
    set.DestroyChild();
}
