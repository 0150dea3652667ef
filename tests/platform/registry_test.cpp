// The registry in one process: its calls, and what becomes of its files in every trouble.
#include "tests/support/registry_test.h"
#include "tests/support/trouble.h"

#include <cstring>
#include <filesystem>
#include <sys/mount.h>
#include <unistd.h>

namespace fs = std::filesystem;

using Registry = RegistryTest;

namespace {

int32_t setValue(HKEY key, const char* name, const std::string& bytes, uint32_t type = REG_SZ) {
    return RegSetValueExA(key, name, 0, type, reinterpret_cast<const uint8_t*>(bytes.data()),
                          static_cast<uint32_t>(bytes.size()));
}

// Of the log as it is while nobody holds it.
std::string firstKeyAfter(const std::string& file, const Bytes& bytes) {
    forgetRegistry();
    writeFile(file, bytes);
    return dumpRegistry();
}

} // namespace

TEST_F(Registry, KeepsEveryNameApartAsItWasSpelled) {
    std::vector<std::string> names = {".",  "..",  "a/b", "%40", "CON",  " ",     "a ",
                                      "@a", "a\n", "~",   "aa",  "\xc4", "\xe4z", std::string(255, 'x')};
    for (const auto& name : names)
        ASSERT_EQ(setText("Top\\" + name, "value of " + name), 0) << name;
    EXPECT_EQ(setText("TOP\\con", "another spelling is the same key"), 0);
    forgetRegistry();
    HKEY top = makeTestKey("top");
    EXPECT_EQ(textOf("A/B", top), "value of a/b");
    EXPECT_EQ(textOf("\xc4", top), "value of \xc4");
    EXPECT_EQ(subkeysOf(top), (std::vector<std::string>{" ", "%40", ".", "..", "@a", "a\n", "a ", "a/b", "aa",
                                                        "CON", std::string(255, 'x'), "~", "\xc4", "\xe4z"}))
        << "in the order of the names in small letters";
    char name[4];
    EXPECT_EQ(RegEnumKeyA(top, 9, name, 3), ERROR_MORE_DATA);
    EXPECT_EQ(RegEnumKeyA(top, 9, name, 4), 0);
    EXPECT_EQ(RegEnumKeyA(top, 14, name, 4), ERROR_NO_MORE_ITEMS);
    RegCloseKey(top);

    const std::string longest = std::string(255, 'd') + "\\" + std::string(255, 'd');
    const std::pair<std::string, int32_t> refused[] = {
        {"", ERROR_BAD_PATHNAME},
        {"\\", ERROR_BAD_PATHNAME},
        {"\\a", ERROR_BAD_PATHNAME},
        {"a\\\\b", ERROR_BAD_PATHNAME},
        {"a\\\\", ERROR_BAD_PATHNAME},
        {std::string(256, 'x'), ERROR_FILENAME_EXCED_RANGE},
        {std::string(100000, 'x'), ERROR_FILENAME_EXCED_RANGE}};
    HKEY key = nullptr;
    for (const auto& [path, code] : refused) {
        EXPECT_EQ(setText(path, "x"), code) << path.substr(0, 300);
        EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_ALL_ACCESS, &key), code);
        EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, path.c_str()), code);
    }
    std::string deep = std::string(255, 'd');
    while (deep.size() < 3840)
        deep += "\\" + std::string(255, 'd');
    EXPECT_EQ(setText(deep, "4,095 bytes\\"), 0);
    EXPECT_EQ(setText(deep + "\\", "the same"), 0);
    EXPECT_EQ(setText(deep + "\\d", "x"), ERROR_FILENAME_EXCED_RANGE);
    forgetRegistry();
    EXPECT_EQ(textOf(deep), "the same");
    EXPECT_EQ(subkeysOf(HKEY_CLASSES_ROOT).size(), 2u);
}

TEST_F(Registry, AnswersAboutValuesAndRefusesDeadHandles) {
    HKEY key = makeTestKey("App");
    uint32_t type = 0, size = 0;
    uint8_t data[300];
    EXPECT_EQ(RegQueryValueExA(key, nullptr, nullptr, &type, data, &size), ERROR_FILE_NOT_FOUND);
    const std::tuple<const char*, uint32_t, std::string> values[] = {
        {nullptr, REG_SZ, std::string("text", 5)},
        {"Other", REG_SZ, ""},
        {"..", 3, std::string("\0\1\2", 3)},
        {"@", 0xFFFFFFFF, std::string(300, 'v')}};
    for (const auto& [name, stored, bytes] : values)
        ASSERT_EQ(setValue(key, name, "was there before", 7) + setValue(key, name, bytes, stored), 0);
    for (const bool afresh : {false, true}) {
        if (afresh) {
            RegCloseKey(key);
            forgetRegistry();
            key = makeTestKey("App");
        }
        for (const auto& [name, stored, bytes] : values) {
            SCOPED_TRACE(name != nullptr ? name : "(default)");
            data[0] = 0x55;
            if ((size = static_cast<uint32_t>(bytes.size())) != 0) {
                size--;
                EXPECT_EQ(RegQueryValueExA(key, name, nullptr, &type, data, &size), ERROR_MORE_DATA);
                EXPECT_EQ(data[0], 0x55) << "left alone";
                EXPECT_EQ(size, bytes.size());
            }
            ASSERT_EQ(RegQueryValueExA(key, name, nullptr, &type, data, &size), 0);
            EXPECT_EQ(type, stored);
            EXPECT_EQ(std::string(data, data + size), bytes);
        }
    }
    EXPECT_EQ(RegQueryValueExA(key, "OTHER", nullptr, nullptr, nullptr, nullptr), 0)
        << "without regard to case";
    EXPECT_EQ(RegQueryValueExA(key, "Othe", nullptr, nullptr, nullptr, nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExA(key, "Other", nullptr, nullptr, data, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(setValue(key, "large", std::string(kMostValueBytes + 1, 'l')), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(setValue(key, std::string(256, 'n').c_str(), "v"), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(setValue(key, std::string(255, 'n').c_str(), std::string(kMostValueBytes, 'l')), 0);
    EXPECT_EQ(setValue(HKEY_CLASSES_ROOT, nullptr, "v"), ERROR_FILE_NOT_FOUND);

    HKEY again = nullptr;
    uint32_t disposition = 0;
    for (const uint32_t expected : {REG_CREATED_NEW_KEY, REG_OPENED_EXISTING_KEY}) {
        EXPECT_EQ(RegCreateKeyExA(key, "c", 0, nullptr, 0, 0, nullptr, &again, &disposition), 0);
        EXPECT_EQ(disposition, expected);
        RegCloseKey(again);
    }
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "app"), ERROR_ACCESS_DENIED) << "it has a subkey";
    EXPECT_EQ(RegDeleteTreeA(HKEY_CLASSES_ROOT, "app"), 0);
    EXPECT_EQ(RegDeleteTreeA(HKEY_CLASSES_ROOT, "app"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExA(key, nullptr, nullptr, &type, data, &size), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(setValue(key, nullptr, std::string("back", 5)), 0);
    EXPECT_EQ(textOf("App"), "back") << "what is written behind the handle of a deleted key is not lost";
    EXPECT_EQ(RegCloseKey(key), 0);
    for (const HKEY dead : {key, HKEY(nullptr), reinterpret_cast<HKEY>(uintptr_t{0x12345678}), HKEY(data)}) {
        EXPECT_EQ(RegCloseKey(dead), ERROR_INVALID_HANDLE);
        EXPECT_EQ(setValue(dead, nullptr, "v"), ERROR_INVALID_HANDLE);
        EXPECT_EQ(RegDeleteKeyA(dead, "b"), ERROR_INVALID_HANDLE);
        EXPECT_EQ(registryState(dead), 0u);
    }
}

TEST_F(Registry, ANewKeyAppearsWithItsFirstValueOrAtTheNextCallWithItsHandle) {
    const auto elsewhere = [](const char* name) {
        return inProcess([&] {
            return textOf(name) == "(no key)" ? 0 : textOf(name) == "(no value)" ? 1 : 2;
        });
    };
    HKEY key = makeTestKey("valued");
    EXPECT_EQ(elsewhere("valued"), 0);
    setValue(key, nullptr, std::string("v", 2));
    EXPECT_EQ(elsewhere("valued"), 2);
    RegCloseKey(key);
    RegCloseKey(makeTestKey("closed"));
    EXPECT_EQ(elsewhere("closed"), 1);
    key = makeTestKey("asked", REG_OPTION_VOLATILE);
    EXPECT_EQ(elsewhere("asked"), 0);
    EXPECT_TRUE(subkeysOf(key).empty());
    EXPECT_EQ(elsewhere("asked"), 1);
    RegCloseKey(key);
}

TEST_F(Registry, APowerCutKeepsWhatStoodBeforeTheDamage) {
    const std::string log = persistentTree() + "/log";
    std::vector<std::pair<size_t, std::string>> states;
    const auto note = [&] { states.emplace_back(fs::file_size(log), dumpRegistry()); };
    setText("Volatile keys do not count", "v");
    RegDeleteKeyA(HKEY_CLASSES_ROOT, "Volatile keys do not count");
    note();
    for (const char* key : {"A", "a\\Below", "B", "b\\c\\D"}) {
        setText(key, std::string("text of ") + key);
        note();
    }
    RegCloseKey(makeTestKey("Empty"));
    note();
    RegDeleteTreeA(HKEY_CLASSES_ROOT, "A");
    note();
    const Bytes whole = readFile(log);
    const auto before = [&](size_t place) { // what the records that end there or earlier say
        std::string state;
        for (const auto& [length, dump] : states)
            if (length <= place)
                state = dump;
        return state;
    };
    const size_t first = states[0].first;
    for (size_t at = first; at < whole.size(); at++) {
        ASSERT_EQ(firstKeyAfter(log, Bytes(whole.begin(), whole.begin() + long(at))), before(at))
            << "cut at " << at;
        ASSERT_EQ(setText("Next", "works"), 0) << "cut at " << at;
        forgetRegistry();
        ASSERT_EQ(textOf("Next"), "works");
        Bytes flipped = whole;
        flipped[at] ^= 0x10;
        ASSERT_EQ(firstKeyAfter(log, flipped), before(at)) << "byte " << at << " flipped";
        ASSERT_EQ(setText("Next", "works"), 0);
        RegDeleteKeyA(HKEY_CLASSES_ROOT, "Next");
        forgetRegistry();
        ASSERT_EQ(dumpRegistry(), before(at));
    }
    for (size_t at = 0; at < 20; at++)
        for (const int bit : {0x01, 0x10, 0x80}) {
            Bytes flipped = whole;
            flipped[at] = static_cast<uint8_t>(flipped[at] ^ bit);
            const std::string dump = firstKeyAfter(log, flipped);
            EXPECT_TRUE(dump.empty() || std::any_of(states.begin(), states.end(),
                                                    [&](const auto& state) { return state.second == dump; }))
                << "header byte " << at << ": " << dump;
            setText("Next", "must not crash");
        }
    for (const size_t size : {0, 100, 4095}) {
        firstKeyAfter(log, Bytes(whole.begin(), whole.begin() + long(size)));
        EXPECT_EQ(setText("Next", "works"), 0)
            << "a log that nobody finished making, of " << size << " bytes";
    }
    const Bytes foreign = bytesOf("a text of somebody's");
    EXPECT_EQ(firstKeyAfter(log, foreign), "");
    EXPECT_EQ(setText("Next", "x"), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(readFile(log), foreign) << "not ours to write over";
    forgetRegistry();
}

TEST_F(Registry, AFullOrReadOnlyDiskAndShortFilesLoseNothing) {
    TinyFileSystem mounted(path("tiny"), 256 << 10);
    if (!mounted.mounted())
        GTEST_SKIP() << "this process may not mount";
    setenv("KAL_REGISTRY", path("tiny/registry").c_str(), 1);
    int made = 0;
    while (setText("k" + std::to_string(made), std::string(3000, 'a')) == 0)
        ASSERT_LT(++made, 1000);
    EXPECT_GT(made, 60);
    EXPECT_EQ(setText("k0", std::string(60000, 'b')), ERROR_DISK_FULL);
    for (const bool afresh : {false, true}) {
        if (afresh)
            forgetRegistry();
        for (int i = 0; i < made; i++)
            ASSERT_EQ(textOf("k" + std::to_string(i)), std::string(3000, 'a'));
        EXPECT_EQ(textOf("k" + std::to_string(made)), "(no key)");
    }
    EXPECT_EQ(setText("k0", "a short one still fits"), 0);
    forgetRegistry();
    ASSERT_EQ(::mount(nullptr, path("tiny").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << errno;
    EXPECT_EQ(textOf("k0"), "a short one still fits");
    EXPECT_EQ(setText("k0", "y"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(setText("new", "y"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "k0"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(setText("v", "volatile ones are elsewhere", REG_OPTION_VOLATILE), 0);
    forgetRegistry();
}

TEST_F(Registry, WhatIsALinkOrAnotherUsersIsRefusedAndWhatCannotBeReachedFails) {
    const std::string foreign = path("foreign");
    fs::create_directory(foreign);
    const auto refused = [&](const char* what, int32_t code, uint32_t option) {
        SCOPED_TRACE(what);
        EXPECT_EQ(setText("a", "x", option), code);
        EXPECT_EQ(filesIn(foreign), std::vector<std::string>()) << "nothing was made behind it";
        forgetRegistry();
    };
    setText("way", "x", REG_OPTION_VOLATILE);
    const std::string runtime = volatileTree();
    for (const auto& [folder, option] :
         {std::pair(persistentTree(), REG_OPTION_NON_VOLATILE), std::pair(runtime, REG_OPTION_VOLATILE)}) {
        forgetRegistry();
        fs::remove_all(folder);
        fs::create_symlink(foreign, folder);
        refused("a link for a folder", ERROR_REGISTRY_IO_FAILED, option);
        fs::remove(folder);
        fs::create_directory(folder);
        fs::permissions(folder, fs::perms::owner_all);
        fs::create_symlink(foreign + "/file", folder + "/log");
        refused("a link for the log", ERROR_ACCESS_DENIED, option);
        fs::remove(folder + "/log");
        ASSERT_EQ(mkfifo((folder + "/log").c_str(), 0600), 0);
        refused("a pipe", ERROR_ACCESS_DENIED, option);
        fs::remove(folder + "/log");
        if (geteuid() == 0) {
            ASSERT_EQ(chown(folder.c_str(), 65534, 65534), 0);
            refused("another user's folder", ERROR_ACCESS_DENIED, option);
            ASSERT_EQ(chown(folder.c_str(), 0, 0), 0);
        }
    }
    fs::permissions(runtime, fs::perms::all);
    refused("a volatile folder that others may write", ERROR_ACCESS_DENIED, REG_OPTION_VOLATILE);
    fs::remove_all(runtime);
    EXPECT_EQ(setText("v", "made with the right rights", REG_OPTION_VOLATILE), 0);
    EXPECT_EQ(fs::status(runtime).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(runtime + "/log").permissions(), fs::perms::owner_read | fs::perms::owner_write);

    writeFile("plain", bytesOf("a file"));
    setenv("KAL_REGISTRY", path("plain/registry").c_str(), 1);
    EXPECT_EQ(setText("a", "x"), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(setText("v", "volatile ones still work", REG_OPTION_VOLATILE), 0);
    EXPECT_EQ(textOf("v"), "volatile ones still work");
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, "a", 0, 0, &key), ERROR_REGISTRY_IO_FAILED);
    setenv("XDG_RUNTIME_DIR", path("plain").c_str(), 1);
    EXPECT_EQ(setText("v", "x", REG_OPTION_VOLATILE), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "v"), ERROR_REGISTRY_IO_FAILED);
    EXPECT_TRUE(subkeysOf(HKEY_CLASSES_ROOT).empty());
    setenv("KAL_REGISTRY", std::string(PATH_MAX * 2, 'x').c_str(), 1);
    EXPECT_NE(setText("a", "x"), 0);
}

TEST_F(Registry, TroubleLeavesEachValueOldOrNew) {
    setText("Top\\Held", "old");
    setText("Top\\Going\\Below", "old");
    setText("Passing", "old", REG_OPTION_VOLATILE);
    const std::string volatileLog = volatileTree().substr(path("").size()) + "/log";
    const std::set<std::string> logs = {"registry/log", "registry/log.new", volatileLog,
                                        volatileLog + ".new"};
    // The last one goes past 64 KiB of the past: the log is written anew.
    const std::function<int()> operations[] = {[] { return setText("Top\\Held", "new"); },
                                               [] {
                                                   const int code = setText("Way\\To\\It", "new");
                                                   return code != 0 ? code : setText("Passing", "new");
                                               },
                                               [] { return RegDeleteTreeA(HKEY_CLASSES_ROOT, "Top\\Going"); },
                                               [] { return setText("Top\\Held", "new"); }};
    for (const auto& operation : operations) {
        forgetRegistry();
        if (&operation == std::end(operations) - 1)
            for (int i = 0; i < 3; i++)
                setText("Top\\Held", i == 2 ? "old" : std::string(40000, 'x'));
        const std::string old = dumpRegistry();
        forgetRegistry();
        std::set<std::string> seen;
        walkTrouble({.prepare = forgetRegistry,
                     .run =
                         [&] {
                             const int code = operation();
                             forgetRegistry();
                             return code;
                         },
                     .statuses = {ERROR_NOT_ENOUGH_MEMORY, ERROR_REGISTRY_IO_FAILED, ERROR_DISK_FULL,
                                  ERROR_FILE_NOT_FOUND},
                     .check =
                         [&](int status) {
                             const std::string found = dumpRegistry();
                             EXPECT_TRUE(status == 0 ? found != old : true);
                             seen.insert(found);
                             EXPECT_EQ(setText("Next", "works"), 0);
                             EXPECT_EQ(textOf("Next"), "works");
                             forgetRegistry();
                         },
                     .unfinished = logs});
        EXPECT_LE(seen.size(), 3u) << "old, new, or one of two steps";
    }
}
