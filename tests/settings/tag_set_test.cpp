// Tag sets: a model of several sets over each other, and what the model leaves out.
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/room.h"
#include "tests/support/trouble.h"

#include <clocale>
#include <cmath>
#include <memory>

namespace {

const std::string kRoot = KAL_SETTINGS_ROOT, kNone = "(none)";

// The members that other members use.
struct OpenTagSet : TagSet {
    using TagSet::CurBuf, TagSet::GetWildTag, TagSet::NextBuf, TagSet::SetTempPath;
};

// What a read into a buffer of so many bytes leaves there; kNone when it says that there is nothing.
std::string read(TagSet& set, const std::string& tag, const char* valueName = nullptr, int size = 1200) {
    char text[1200];
    std::strcpy(static_cast<char*>(std::memset(text, '~', sizeof text)), "untouched");
    const int16_t status = set.GetTag(tag.c_str(), text, size, valueName);
    const int behind = std::max(size, 0);
    EXPECT_TRUE(behind > 9 || text[behind] == "untouched"[behind]) << "written behind the buffer";
    return status == 0 ? std::string(text, strnlen(text, sizeof text)) : kNone;
}

std::string found(TagSet& set, const std::string& prefix) {
    std::string all;
    TagSearch search(&set, prefix.c_str());
    while (const char* rest = search.NextTag())
        all += rest + std::string("=") + (rest + std::strlen(rest) + 1) + " ";
    return all;
}

// What the rules make of sets over each other, written down over a model of the registry.
KeyModel keys;

struct Set {
    std::unique_ptr<TagSet> real; // null while there is none
    std::string path = "";        // "" while it has none
    bool isKept = false;
    Set *parent = nullptr, *child = nullptr;

    std::string key() const { return path.empty() ? "no key" : kRoot + path; }
    std::string keyOf(const std::string& tag) const {
        return key() + (tag.find('?') != std::string::npos ? "\\Wildcards\\" : "\\") + tag;
    }
    void getReady() {
        while (path.empty()) {
            const std::string held = keys.at(kRoot + "NextTemp"), number = held == "(no key)" ? "0" : held;
            keys.set(kRoot + "NextTemp", std::to_string(std::stoi(number) + 1));
            if (keys.at(kRoot + "Temp\\" + number) == "(no key)")
                keys.set(kRoot + (path = "Temp\\" + number), "(no value)");
        }
    }
    Set* deepest() { return child != nullptr ? child->deepest() : this; }
    Set* top() { return parent != nullptr ? parent->top() : this; }
    void set(const std::string& tag, const std::string& value) {
        getReady();
        value.empty() ? keys.erase(keyOf(tag)) : keys.set(keyOf(tag), value);
    }
    // kNone, or "(no value)" for a tag without one.
    std::string read(const std::string& tag) {
        for (Set* at = deepest(); at != nullptr; at = at->parent) {
            at->getReady();
            if (const auto value = keys.at(at->key() + "\\" + tag); value != "(no key)")
                return value;
        }
        const auto fits = [](char a, char b) {
            return a == '?' || b == '?' || std::toupper(a) == std::toupper(b);
        };
        for (Set* at = deepest(); at != nullptr; at = at->parent)
            for (const std::string& pattern : keys.below(at->key() + "\\Wildcards"))
                if (std::equal(pattern.begin(), pattern.end(), tag.begin(), tag.end(), fits))
                    return keys.at(at->keyOf(pattern));
        return kNone;
    }
    std::string found(const std::string& prefix) {
        std::string all;
        for (const std::string& name : keys.below(key())) {
            const std::string value = read(name);
            const bool isShort = value[0] != '(' && value.size() < 256;
            if (strncasecmp(name.c_str(), prefix.c_str(), prefix.size()) == 0)
                all += name.substr(prefix.size()) + "=" +
                       (isShort ? value.substr(0, 258 - name.size()) : "") + " ";
        }
        return all + (parent != nullptr ? parent->found(prefix) : "");
    }
    void link(Set* below) {
        for (Set* at = this; at != nullptr; at = at->parent)
            if (at == below)
                return;
        for (Set* at = below; at != nullptr; at = at->child)
            if (at == this)
                return;
        (child = below)->parent = this;
        below->deepest()->set("Parent", path);
    }
    void fuse() {
        for (const std::string& name : keys.below(key())) {
            const std::string own = keys.at(keyOf(name)), value = read(name);
            if (name != "Parent" && value != kNone && own != "(no value)")
                parent->set(name, value.size() < 256 ? value : own);
        }
        for (const std::string& pattern : keys.below(key() + "\\Wildcards"))
            parent->set(pattern, keys.at(keyOf(pattern)));
    }
};

} // namespace

using Tags = RegistryTest;

TEST_F(Tags, SeveralSetsDoAsAModelSays) {
    const uint32_t seed = firstSeed();
    std::mt19937 random(seed);
    const auto below = [&](size_t count) { return random() % count; };
    keys = {};
    Set sets[5];
    static const char* const kTags[] = {"aa", "Ab", "zz", "a?", "?z", "??", "\xe4?", "long", "Parents"};
    for (int step = 0; step < 3000; step++) {
        Set &set = sets[below(5)], &other = sets[below(5)], &reader = sets[below(5)];
        const bool isMade = set.real == nullptr;
        const auto action = step < 2990 ? below(16) : 0; // all end
        const std::string tag = kTags[below(std::size(kTags))];
        const std::string value = below(3) == 0   ? ""
                                  : tag == "long" ? std::string(200 + below(800), 'l')
                                                  : tag + std::to_string(step % 40);
        SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step) + ", action " +
                     std::to_string(action) + ", " + tag + " = " + value);
        if (isMade && step >= 2990)
            continue;
        if (isMade)
            set.real = std::make_unique<TagSet>();
        if (isMade && action < 8) { // else it is used without a path
            set.isKept = action < 4;
            set.path = (set.isKept ? "Kept\\S" : "Passing") + std::to_string(&set - sets);
            RegDeleteKeyA(HKEY_CLASSES_ROOT, set.keyOf("Parent").c_str());
            keys.erase(set.keyOf("Parent"));
            ASSERT_EQ(set.real->SetPath(set.path.c_str(), set.isKept), 0);
            if (keys.at(set.key()) == "(no key)")
                keys.set(set.key(), "(no value)");
        } else if (action == 0) {
            for (Set& linked : sets) {
                if (linked.parent == &set) {
                    linked.real->SetParent(nullptr);
                    linked.parent = nullptr;
                }
                if (linked.child != &set)
                    continue;
                linked.child = nullptr;
                if (set.real != nullptr && below(2) == 0) {
                    static_cast<void>(set.real.release());
                    linked.real->DestroyChild();
                } else {
                    linked.real->SetChild(nullptr);
                }
            }
            if (!set.isKept && !set.path.empty())
                keys.erase(set.key());
            set = {};
        } else if (action == 1) {
            ASSERT_EQ(set.real->ClearTags(), 0);
            for (const std::string& name : keys.below(set.key()))
                keys.erase(set.key() + "\\" + name);
        } else if (action == 2) {
            ASSERT_EQ(set.real->FuseWithParent(), set.parent != nullptr ? 0 : KAL_ERR_TAG_PARENT);
            if (set.parent != nullptr)
                set.fuse();
        } else if (action < 5) {
            action == 3 ? set.real->SetParent(nullptr) : set.real->SetChild(nullptr);
            (action == 3 ? set.parent : set.child) = nullptr;
        } else if (action == 5 && other.real == nullptr) {
            other.real.reset(set.real->CreateChild());
            set.link(&other);
        } else if (action < 8 && other.real != nullptr) {
            action == 6 ? other.real->SetParent(set.real.get()) : set.real->SetChild(other.real.get());
            set.link(&other);
        } else if (action == 8 && !set.path.empty()) { // behind the set's back
            const std::string key = set.keyOf(tag);
            value.empty() ? RegDeleteKeyA(HKEY_CLASSES_ROOT, key.c_str()) : setText(key, value);
            set.set(tag, value);
        } else {
            const char* text = value.empty() && below(2) == 0 ? nullptr : value.c_str();
            ASSERT_EQ(action == 10   ? set.real->SetGlobalTag(tag.c_str(), text)
                      : action == 11 ? set.real->SetRawTag(tag.c_str(), text)
                                     : set.real->SetTag(tag.c_str(), text),
                      0);
            (action == 10 ? set.top() : action == 11 ? &set : set.deepest())->set(tag, value);
        }
        if (step % 4 == 3) {
            ASSERT_EQ(dumpRegistry(), keys.dump());
        }
        if (reader.real == nullptr)
            continue;
        for (const char* asked : {"aa", "AB", "zz", "aZ", "?a", "LONG", "x", "\xe4x", "\xc4x"}) {
            const std::string wanted = reader.read(asked);
            const int size = below(4) == 0 ? int(below(7)) - 1 : 1200;
            const bool fits = wanted != "(no value)" && int(wanted.size()) < size;
            ASSERT_EQ(read(*reader.real, asked, nullptr, size),
                      fits || wanted == kNone ? wanted : "untouched")
                << asked << size;
        }
        for (const char* prefix : {"", "A", "parent", "lon"})
            ASSERT_EQ(found(*reader.real, prefix), reader.found(prefix)) << prefix;
        ASSERT_EQ(reader.real->GetPath() != nullptr ? reader.real->GetPath() : "", reader.path);
    }
}

TEST_F(Tags, ValuesAndResultBuffersKeepTheirRules) {
    OpenTagSet set, parent;
    ASSERT_EQ(set.SetPath("Maker\\App", 1) + parent.SetPath("One", 1), 0);
    const std::string name(200, 'n'), longest(255, 'y'), big(10000, 'b');
    for (const auto& [tag, value] :
         {std::pair("exact", "3"), {"EXAC?", "4"}, {name.c_str(), longest.c_str()}, {"big", big.c_str()}})
        EXPECT_EQ(set.SetTag(tag, value), 0);
    set.SetTag("exact", "hidden", "Alternative");
    HKEY key = makeTestKey(kRoot + "Maker\\App\\raw"); // a value that another program stored without its zero
    RegSetValueExA(key, nullptr, 0, 3, reinterpret_cast<const uint8_t*>(big.data()), 256);
    RegCloseKey(key);
    for (int twice = 0; twice < 2; twice++) { // found, and then known
        EXPECT_EQ(read(set, "raw"), big.substr(0, 256));
        EXPECT_EQ(set.GetTempTag("raw"), big.substr(0, 255));
        std::string whole(10001, ' ');
        EXPECT_EQ(set.GetTag("big", whole.data(), 10001) == 0 ? whole.c_str() : "", big);
    }
    char text[20] = "";
    EXPECT_EQ(set.GetWildTag("exact", text, sizeof text, nullptr), 0);
    EXPECT_STREQ(text, "4");
    EXPECT_EQ(set.GetRawTag("exacz", text, sizeof text), KAL_ERR_TAG_MISSING);
    EXPECT_EQ(read(set, "exact", "ALTERNATIVE") + read(set, "exact", "none such"), "hiddenuntouched");
    char* results[21];
    for (char*& result : results)
        EXPECT_STREQ(result = set.GetTempTag("exact"), "3");
    EXPECT_EQ(std::find(results + 1, results + 21, results[0]) - results, 20);
    EXPECT_TRUE(set.CurBuf() == results[0] && set.NextBuf() == results[1]);
    EXPECT_EQ(found(set, "nn"), name.substr(2) + "=" + longest.substr(0, 260 - 201 - 1) + " ")
        << "both share 260";
    for (const char* path : {"One", "Two"})
        setText(kRoot + path + "\\from", path);
    set.SetParent(&parent);
    EXPECT_EQ(read(set, "from"), "One");
    ASSERT_EQ(parent.SetPath("Two", 1), 0);
    EXPECT_EQ(read(set, "from"), "Two") << "what was known of the chain is not true any more";
    delete parent.GetParent();
    parent.SetParent(nullptr);
    EXPECT_EQ(parent.SetPath(parent.GetPath(), 1), 0) << "its own path";
    EXPECT_STREQ(parent.GetPath(), "Two");
    delete parent.GetParent();
    set.SetParent(nullptr);
    static bool isFull;
    isFull = true;
    const HostCallGuard guard;
    hostCalls.pwrite = [](int fd, const void* bytes, size_t count, off_t at) {
        errno = ENOSPC;
        return std::exchange(isFull, false) ? -1 : ::pwrite(fd, bytes, count, at);
    };
    set.ClearTags();
    EXPECT_EQ(found(set, ""), "big= ") << "what cannot be deleted does not keep the rest";
}

TEST_F(Tags, ManyAreKeptApartAndNumbersAreTextInEveryLocale) {
    setenv("LOCPATH", "/nowhere", 0);
    for (const char* locale : {"de_DE.UTF-8", "C"}) {
        std::setlocale(LC_ALL, locale);
        TagSet set;
        for (int i = 0; i < 3000; i++) { // set and read, then known, then known no longer
            const std::string tag = std::to_string(uint32_t(i % 350) * 2654435761u);
            const int value = (i / 700 - 1) * 1073741823 - i % 350;
            if (i % 700 < 350)
                set.SetIntTag(tag.c_str(), value);
            ASSERT_EQ(set.GetIntTag(tag.c_str()), value);
            ASSERT_EQ(read(set, tag), value != 0 ? std::to_string(value) : kNone) << "0 is none";
        }
        const std::tuple<double, int, const char*> numbers[] = {
            {0.1, 17, ".1"},        {-2.5, 17, "-2.5"}, {1e300, 17, "1e300"}, {3.14159, 3, "3.14"},
            {1234567.0, -5, "1e6"}, {2.0, 99, "2"},     {0.0, 5, "0"}};
        for (const auto& [value, digits, text] : numbers) {
            EXPECT_EQ(set.SetFloatTag("f", value, digits), 0);
            EXPECT_EQ(set.GetFloatTag("f"), std::strtod(text, nullptr)) << read(set, "f");
        }
        EXPECT_EQ(read(set, "f"), kNone);
        for (const auto& [text, value] :
             {std::pair(" +2.5x", 2.5), {"+-1", 0.0}, {"1e999", HUGE_VAL}, {"words", 0.0}}) {
            set.SetTag("f", text);
            EXPECT_EQ(set.GetFloatTag("f"), value) << text;
        }
    }
}

TEST_F(Tags, PathsBringTheirParentsAndLongNamesAreRefused) {
    for (const auto& [set, parent] : {std::pair("A", "B"), {"B", "a"}, {"Self", "SELF"}, {"Tail", "A"}})
        setText(kRoot + set + "\\Parent", parent);
    setText(kRoot + "Lost\\Parent", std::string(250, 'x')); // cannot be opened: stays without a key
    setText(kRoot + "Temp\\1", "taken", REG_OPTION_VOLATILE);
    for (const std::string chain : {"A B ", "Self ", "Tail A B ", "Lost Temp\\0 ", "Lost Temp\\2 "}) {
        TagSet set;
        EXPECT_EQ(set.SetPath(pieces(chain, ' ')[0].c_str(), 1), 0);
        EXPECT_EQ(read(set, "missing"), kNone);
        std::string paths = std::string(set.GetPath()) + " ";
        for (TagSet *above = set.GetParent(), *next; above != nullptr; above = next) {
            paths += std::string(above->GetPath()) + " ";
            next = above->GetParent();
            delete above;
        }
        EXPECT_EQ(paths, chain) << "links that come round are cut, a number that is taken is drawn again";
    }
    RegDeleteKeyA(HKEY_CLASSES_ROOT, (kRoot + "NextTemp").c_str()); // it stays from now on
    for (const char* counter : {"2147483647", "words", "-5", "a\\b"}) {
        setText(kRoot + "NextTemp", counter);
        TagSet odd;
        EXPECT_EQ(odd.SetTag("t", "v"), 0);
        EXPECT_EQ(odd.GetPath(), std::string("Temp\\") + counter);
        EXPECT_EQ(textOf(kRoot + "NextTemp"), std::to_string(int32_t(std::atoi(counter) + 1u)));
    }
    const std::string path(256 - kRoot.size() - 1, 'p');
    TagSet longest, refused;
    EXPECT_EQ(longest.SetPath(path.c_str(), 1) + refused.SetPath("open before", 1), 0);
    for (const std::string& name : {path + "p", std::string(5000, 'p'), std::string("a\\\\b")})
        EXPECT_EQ(refused.SetPath(name.c_str(), 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(refused.SetPath(nullptr, 1), KAL_ERR_TAG_KEY);
    for (const size_t length : {249u, 250u, 255u, 256u, 260u, 5000u})
        for (const char first : {'t', '?'}) {
            EXPECT_EQ(longest.SetTag((first + std::string(length - 1, 't')).c_str(), "v"), 0);
            EXPECT_EQ(read(longest, std::string(length, 't')),
                      length <= (first == '?' ? 249 : 255) ? "v" : kNone)
                << length;
            longest.ClearTags();
        }
    EXPECT_EQ(longest.SetTag(nullptr, "x"), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(longest.GetTempTag(nullptr), nullptr);
}

TEST_F(Tags, AKillLeavesEachTagOldOrNew) {
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
                child->SetTag("he?d", "hidden");
                child->FuseWithParent();
            }
            set.DestroyChild();
        }
        forgetRegistry();
        emptyVolatileTree();
        return 0;
    };
    const auto check = [](int) {
        const std::string held = textOf(kRoot + "App\\held");
        EXPECT_TRUE(held == "old" || held == "new") << held;
        EXPECT_EQ(setText(kRoot + "next", "works"), 0);
        forgetRegistry();
    };
    walkTrouble(
        {.prepare = forgetRegistry, .run = run, .check = check, .unfinished = {"registry/log", volatileLog}},
        kKilled);
}

TEST_F(Tags, WithoutARegistryCallsHaveAStatus) {
    writeFile(path("plain"), bytesOf("a file"));
    for (const char* place : {"KAL_REGISTRY", "XDG_RUNTIME_DIR"})
        setenv(place, path("plain/registry").c_str(), 1);
    OpenTagSet set;
    EXPECT_EQ(set.SetPath("App", 1), KAL_ERR_TAG_KEY);
    EXPECT_EQ(set.SetTempPath(), KAL_ERR_TAG_KEY);
    EXPECT_EQ(set.SetTag("t", "v"), KAL_ERR_TAG_WRITE);
    EXPECT_EQ(read(set, "t"), kNone);
    ASSERT_NE(set.CreateChild(), nullptr);
    EXPECT_EQ(set.GetLastChild()->FuseWithParent() + set.ClearTags(), 0);
    EXPECT_EQ(set.GetPath(), nullptr);
    set.DestroyChild();
}

TEST_F(Tags, ProcessesDrawDifferentNumbersAndVolatileSetsOutliveTheirMaker) {
    constexpr int kProcesses = 4, kSets = 30;
    std::vector<pid_t> processes;
    for (int p = 0; p < kProcesses; p++)
        processes.push_back(startProcess([] {
            std::vector<TagSet> sets(kSets);
            const std::string own = std::to_string(getpid());
            for (TagSet& set : sets)
                set.SetTag("t", own.c_str());
            // Leaves its sets behind, as a process does that is killed.
            _exit(std::any_of(sets.begin(), sets.end(),
                              [&](TagSet& set) { return textOf(kRoot + set.GetPath() + "\\t") != own; }));
        }));
    for (const pid_t process : processes)
        EXPECT_EQ(endOf(process), 0) << "a number was drawn twice";
    EXPECT_EQ(textOf(kRoot + "NextTemp"), std::to_string(kProcesses * kSets));
    TagSet kept, first;
    ASSERT_EQ(kept.SetPath("Kept", 1), 0);
    kept.SetTag("t", "v");
    emptyVolatileTree();
    EXPECT_STREQ(kept.GetTempTag("t"), "v");
    first.SetTag("t", "v");
    EXPECT_STREQ(first.GetPath(), "Temp\\0") << "the volatile sets are gone";
}
