// Sets layered over each other: inheritance, fusing, searching, links on disk.
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/traps.h"

#include <kal/tagset.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>

namespace {

const std::string kRoot = KAL_SETTINGS_ROOT;

std::string read(TagSet& set, const std::string& tag) {
    char text[300] = "";
    return set.GetTag(tag.c_str(), text, sizeof text) == 0 ? text : "(none)";
}

std::vector<std::string> found(TagSet& set, const char* prefix) {
    std::vector<std::string> all;
    TagSearch search(&set, prefix);
    while (const char* rest = search.NextTag())
        all.push_back(rest + std::string("=") + (rest + std::strlen(rest) + 1));
    return all;
}

} // namespace

using Chain = RegistryTest;

TEST_F(Chain, AChildCollectsChangesToFuseOrDiscard) {
    HeapBalance balance;
    TagSet app;
    ASSERT_EQ(app.SetPath("App", 1), 0);
    EXPECT_EQ(app.FuseWithParent(), KAL_ERR_TAG_PARENT);
    app.SetTag("held", "app");
    app.SetTag("Both", "app");
    app.SetTag("gone", "app");
    const std::string longText(1000, 'l');
    for (const bool fuse : {false, true}) {
        TagSet* child = app.CreateChild();
        ASSERT_NE(child, nullptr);
        EXPECT_EQ(app.GetLastChild(), child);
        EXPECT_EQ(child->GetParent(), &app);
        EXPECT_EQ(textOf(kRoot + child->GetPath() + "\\Parent"), "App");
        child->SetTag("p?ttern", "child");
        EXPECT_EQ(read(app, "held"), "app");
        EXPECT_EQ(read(app, "both"), "app");
        app.SetTag("BOTH", "child"); // to the child: it is the deepest
        app.SetTag("p?t", "pat");
        app.SetTag("long", longText.c_str());
        app.SetTag("h?ld", "a pattern never hides an exact tag of a parent");
        child->SetTag("gone", nullptr);
        RegCloseKey(
            makeTestKey(kRoot + child->GetPath() + "\\held", REG_OPTION_VOLATILE)); // a key without value
        EXPECT_EQ(read(app, "both"), "child");
        EXPECT_EQ(read(app, "held"), "") << "the nearest key counts, and it has no value";
        RegDeleteKeyA(HKEY_CLASSES_ROOT, (kRoot + child->GetPath() + "\\held").c_str());
        EXPECT_EQ(read(app, "held"), "app");
        EXPECT_EQ(read(app, "gone"), "app") << "removing in the child lets the parent's show through";
        EXPECT_EQ(textOf(kRoot + "App\\Both"), "app");
        child->SetGlobalTag("global", fuse ? "2" : "1");
        EXPECT_EQ(fuse ? child->FuseWithParent() : 0, 0);
        app.DestroyChild();
        EXPECT_EQ(app.GetLastChild(), nullptr);
        EXPECT_EQ(read(app, "both"), fuse ? "child" : "app");
        EXPECT_EQ(read(app, "pattern"), fuse ? "child" : "(none)");
        EXPECT_EQ(read(app, "global"), fuse ? "2" : "1");
        EXPECT_EQ(textOf(kRoot + "App\\long"), fuse ? longText : "(no key)");
        EXPECT_EQ(textOf(kRoot + "App\\held"), "app");
    }
    EXPECT_EQ(textOf(kRoot + "App\\Wildcards\\p?t"), "pat");
    EXPECT_EQ(subkeysOf(kRoot + "App"),
              (std::vector<std::string>{"Both", "global", "gone", "held", "long", "Wildcards"}));
    app.ClearTags();
    EXPECT_TRUE(subkeysOf(kRoot + "App").empty());
    EXPECT_EQ(textOf(kRoot + "App"), "(no value)") << "the set's own key stays";
    EXPECT_TRUE(subkeysOf(kRoot + "Temp").empty());
}

TEST_F(Chain, OneTwoOrFiftySetsReadAsAModelOfThem) {
    for (const int depth : {1, 2, 50}) {
        std::vector<std::unique_ptr<TagSet>> sets;
        for (int i = 0; i < depth; i++) {
            sets.push_back(std::make_unique<TagSet>());
            ASSERT_EQ(sets[size_t(i)]->SetPath(
                          ("D" + std::to_string(depth) + "\\S" + std::to_string(i)).c_str(), 1),
                      0);
            if (i % 2 == 1)
                sets[size_t(i)]->SetParent(sets[size_t(i) - 1].get());
            else if (i > 0)
                sets[size_t(i) - 1]->SetChild(sets[size_t(i)].get());
        }
        std::vector<std::map<std::string, std::string>> model(static_cast<size_t>(depth));
        std::mt19937 random(static_cast<uint32_t>(depth));
        for (int step = 0; step < 400; step++) {
            const size_t at = random() % static_cast<size_t>(depth);
            const std::string tag = "t" + std::to_string(random() % 10), value = std::to_string(step);
            if (random() % 3 == 0) {
                sets[at]->SetRawTag(tag.c_str(), nullptr);
                model[at].erase(tag);
            } else {
                sets[at]->SetRawTag(tag.c_str(), value.c_str());
                model[at][tag] = value;
            }
            const std::string asked = "T" + std::to_string(random() % 10);
            std::string expected = "(none)";
            for (size_t i = model.size(); i-- > 0 && expected == "(none)";)
                if (const auto held = model[i].find("t" + asked.substr(1)); held != model[i].end())
                    expected = held->second;
            ASSERT_EQ(read(*sets[random() % sets.size()], asked), expected)
                << "depth " << depth << ", step " << step;
        }
        size_t tags = 0;
        for (const auto& held : model)
            tags += held.size();
        EXPECT_EQ(found(*sets.back(), "t").size(), tags) << "each set's tags are listed";
        TagSet& deepest = *sets.back();
        EXPECT_EQ(deepest.SetTag("Parent", nullptr), 0);

        // The links on disk bring the rest of the chain back.
        if (depth > 2) {
            TagSet again;
            ASSERT_EQ(again.SetPath("D50\\S48", 1), 0);
            int above = 0;
            for (TagSet* set = again.GetParent(); set != nullptr; above++) {
                TagSet* const next = set->GetParent();
                delete set;
                set = next;
            }
            EXPECT_EQ(above, 48);
        }
    }
}

TEST_F(Chain, LinksThatComeRoundAreCut) {
    const auto chainOf = [](const char* path) {
        TagSet set;
        EXPECT_EQ(set.SetPath(path, 1), 0);
        std::string paths = set.GetPath();
        EXPECT_EQ(read(set, "missing"), "(none)");
        for (TagSet* above = set.GetParent(); above != nullptr;) {
            paths += std::string(" ") + above->GetPath();
            TagSet* const next = above->GetParent();
            delete above;
            above = next;
        }
        return paths;
    };
    setText(kRoot + "A\\Parent", "B");
    setText(kRoot + "B\\Parent", "a");
    setText(kRoot + "Self\\Parent", "SELF");
    setText(kRoot + "Tail\\Parent", "A");
    EXPECT_EQ(chainOf("A"), "A B");
    EXPECT_EQ(chainOf("Self"), "Self");
    EXPECT_EQ(chainOf("Tail"), "Tail A B");

    setText(kRoot + "Lost\\Parent",
            std::string(250, 'x')); // a parent that cannot be opened stays without a key
    TagSet set;
    ASSERT_EQ(set.SetPath("Lost", 1), 0);
    ASSERT_NE(set.GetParent(), nullptr);
    EXPECT_EQ(read(set, "missing"), "(none)");
    EXPECT_STREQ(set.GetParent()->GetPath(), "Temp\\0") << "and becomes temporary when it is used";
    delete set.GetParent();
    set.SetParent(nullptr);

    TagSet a, b;
    a.SetParent(&a);
    a.SetParent(&b);
    b.SetParent(&a); // would close a ring
    EXPECT_EQ(b.GetParent(), nullptr);
    EXPECT_EQ(read(b, "missing"), "(none)");
    a.SetParent(nullptr);
    b.SetChild(nullptr);
}

TEST_F(Chain, SearchListsByPrefixThroughTheChain) {
    TagSet app;
    ASSERT_EQ(app.SetPath("App", 1), 0);
    for (const char* tag : {"Font", "fontSize", "Fon", "FONTS", "zoom", "font\xe4"})
        app.SetTag(tag, tag);
    TagSet* child = app.CreateChild();
    child->SetTag("FontName", "serif");
    child->SetTag("Font", "child");
    EXPECT_EQ(found(*child, "FONT"), (std::vector<std::string>{"=child", "Name=serif", "=child", "S=FONTS",
                                                               "Size=fontSize", "\xe4=font\xe4"}));
    EXPECT_EQ(found(*child, "none such"), std::vector<std::string>());
    EXPECT_EQ(found(app, "zoom"), std::vector<std::string>{"=zoom"});
    EXPECT_EQ(found(*child, "").size(), 3u + 6u);
    app.DestroyChild();
    const std::string name(200, 'n');
    app.SetTag(name.c_str(), std::string(255, 'v').c_str());
    EXPECT_EQ(found(app, "nn"),
              std::vector<std::string>{name.substr(2) + "=" + std::string(260 - 201 - 1, 'v')})
        << "name and value share 260 characters";
    TagSet keyless;
    EXPECT_EQ(TagSearch(&keyless, "").NextTag(), nullptr);
    EXPECT_EQ(keyless.GetPath(), nullptr) << "a search makes no set ready";
}

TEST_F(Chain, ManyTagsAreSearchedFusedAndClearedInProportion) {
    constexpr int kTags = 1500;
    TagSet app;
    ASSERT_EQ(app.SetPath("App", 1), 0);
    TagSet* child = app.CreateChild();
    for (int i = 0; i < kTags; i++)
        child->SetIntTag(("tag" + std::to_string(i)).c_str(), i + 1);
    HostCallTrap counted(0);
    EXPECT_EQ(found(*child, "TAG").size(), size_t(kTags));
    child->FuseWithParent();
    app.DestroyChild();
    EXPECT_EQ(found(app, "tag").size(), size_t(kTags));
    app.ClearTags();
    EXPECT_TRUE(subkeysOf(kRoot + "App").empty());
    EXPECT_LT(HostCallTrap::listings(), kTags * 25);
    EXPECT_LT(HostCallTrap::calls(), kTags * 120);
}

TEST_F(Chain, ReadingThroughThreeSetsAsksTheHostALittleOnceAndThenNotAtAll) {
    TagSet app;
    ASSERT_EQ(app.SetPath("App", 1), 0);
    TagSet* deepest = app.CreateChild()->CreateChild();
    setText(kRoot + "App\\held", "v"); // not through the set
    HostCallTrap counted(0);
    EXPECT_EQ(read(*deepest, "held"), "v");
    EXPECT_LE(HostCallTrap::calls(), 3 * 4);
    const int64_t before = HostCallTrap::calls();
    EXPECT_EQ(read(*deepest, "missing"), "(none)");
    EXPECT_LE(HostCallTrap::calls() - before, 2 * 3 * 4) << "the tag and the patterns' key of each set";
    EXPECT_EQ(HostCallTrap::listings(), 0);
    const int64_t known = HostCallTrap::calls();
    for (int i = 0; i < 100; i++)
        read(*deepest, i % 2 == 0 ? "Held" : "MISSING");
    EXPECT_EQ(HostCallTrap::calls(), known);
    app.GetLastChild()->DestroyChild();
    app.DestroyChild();
}
