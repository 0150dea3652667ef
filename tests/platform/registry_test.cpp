// The registry in one process: its calls, and what becomes of its files in every trouble.
#include "tests/support/registry_test.h"
#include "platform/registry/record.h"
#include "tests/support/faults.h"
#include "tests/support/trouble.h"

#include <algorithm>
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

// "(no key)", "(no value)" or the value, as another process that starts now finds it.
bool isElsewhere(const std::string& name, const std::string& text) {
    return inProcess([&] { return textOf(name) == text; }) == 1;
}

// Of a log as it was while nobody held it.
std::string dumpOf(const std::string& file, const Bytes& bytes) {
    forgetRegistry();
    writeFile(file, bytes);
    return dumpRegistry();
}

} // namespace

TEST_F(Registry, KeepsEveryNameApartAsItWasSpelled) {
    KeyModel model;
    const auto set = [&](const std::string& path, const std::string& text) {
        EXPECT_EQ(setText(path, text), 0) << path;
        model.set(path, text);
    };
    for (const char* name :
         {".", "..", "a/b", "CON", " ", "a ", "@a", "a\n", "~", "aa", "\xc4", "\xe4z", "Z", "[", "A\x01"})
        set(std::string("Top\\") + name, name);
    set("TOP\\con", "another spelling is the same key");
    std::string deep = std::string(255, 'd');
    while (deep.size() < 3840)
        deep += "\\" + std::string(255, 'd');
    set(deep, "4,095 bytes");
    EXPECT_EQ(setText(deep + "\\", "4,095 bytes"), 0) << "one more is let through";
    for (int twice = 0; twice < 2; twice++, forgetRegistry())
        EXPECT_EQ(dumpRegistry(), model.dump());
    HKEY key = nullptr;
    for (const auto& [index, size, code] :
         {std::tuple(1u, 3u, ERROR_MORE_DATA), {1u, 4u, 0}, {2u, 4u, ERROR_NO_MORE_ITEMS}})
        EXPECT_EQ(RegEnumKeyA(HKEY_CLASSES_ROOT, index, std::string(size, 0).data(), size), code)
            << index << size;
    for (const auto& [path, code] : {std::pair(std::string(), ERROR_BAD_PATHNAME),
                                     {"\\", ERROR_BAD_PATHNAME},
                                     {"\\a", ERROR_BAD_PATHNAME},
                                     {"a\\\\b", ERROR_BAD_PATHNAME},
                                     {"a\\\\", ERROR_BAD_PATHNAME},
                                     {std::string(256, 'x'), ERROR_FILENAME_EXCED_RANGE},
                                     {std::string(100000, 'x'), ERROR_FILENAME_EXCED_RANGE},
                                     {deep + "\\d", ERROR_FILENAME_EXCED_RANGE}}) {
        EXPECT_EQ(setText(path, "x"), code) << path.substr(0, 300);
        EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_ALL_ACCESS, &key), code);
        EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, path.c_str()), code);
    }
}

TEST_F(Registry, AnswersAboutValuesAndRefusesDeadHandles) {
    HKEY key = makeTestKey("App"), again = nullptr;
    uint32_t type = 0, size = 0;
    Bytes data(kMostValueBytes);
    EXPECT_EQ(RegQueryValueExA(key, nullptr, nullptr, &type, data.data(), &size), ERROR_FILE_NOT_FOUND);
    const std::string longest(255, 'n');
    const std::tuple<const char*, uint32_t, std::string> values[] = {
        {nullptr, REG_SZ, std::string("text", 5)},
        {"Other", REG_SZ, ""},
        {"..", 0xFFFFFFFF, std::string("\0\1\2", 3)},
        {longest.c_str(), 3, std::string(kMostValueBytes, 'l')}};
    for (const auto& [name, stored, bytes] : values)
        ASSERT_EQ(setValue(key, name, "was there before", 7) + setValue(key, name, bytes, stored), 0);
    for (int twice = 0; twice < 2; twice++, forgetRegistry())
        for (const auto& [name, stored, bytes] : values) {
            SCOPED_TRACE(name != nullptr ? name : "(default)");
            data[0] = 0x55;
            size = static_cast<uint32_t>(bytes.size()) - 1;
            EXPECT_EQ(RegQueryValueExA(key, name, nullptr, &type, data.data(), &size),
                      bytes.empty() ? 0 : ERROR_MORE_DATA);
            EXPECT_EQ(data[0], 0x55) << "left alone";
            size = static_cast<uint32_t>(bytes.size());
            ASSERT_EQ(RegQueryValueExA(key, name, nullptr, &type, data.data(), &size), 0);
            EXPECT_EQ(type, stored);
            EXPECT_EQ(std::string(data.data(), data.data() + size), bytes);
        }
    EXPECT_EQ(RegQueryValueExA(key, "OTHER", nullptr, nullptr, nullptr, nullptr), 0)
        << "without regard to case";
    EXPECT_EQ(RegQueryValueExA(key, "Othe", nullptr, nullptr, nullptr, nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExA(key, "Other", nullptr, nullptr, data.data(), nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(setValue(key, "large", std::string(kMostValueBytes + 1, 'l')), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(setValue(key, (longest + "n").c_str(), "v"), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(setValue(HKEY_CLASSES_ROOT, nullptr, "v"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegCreateKeyExA(key, "c", 0, nullptr, 0, 0, nullptr, nullptr, &type), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegCreateKeyExA(key, nullptr, 0, nullptr, 0, 0, nullptr, &again, &type),
              ERROR_INVALID_PARAMETER);
    const uint64_t state = registryState(key);
    setValue(key, "Other", "");
    EXPECT_NE(registryState(key), state);
    EXPECT_EQ(RegCreateKeyExA(key, "c", 0, nullptr, 0, 0, nullptr, &again, nullptr), 0);
    RegCloseKey(again);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "app"), ERROR_ACCESS_DENIED) << "it has a subkey";
    EXPECT_EQ(RegDeleteTreeA(HKEY_CLASSES_ROOT, "app"), 0);
    EXPECT_EQ(RegDeleteTreeA(HKEY_CLASSES_ROOT, "app"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExA(key, nullptr, nullptr, &type, data.data(), &size), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(setValue(key, nullptr, std::string("back", 5)), 0);
    EXPECT_EQ(textOf("App"), "back") << "what is written behind the handle of a deleted key is not lost";
    EXPECT_EQ(RegCloseKey(key), 0);
    for (const HKEY dead : {key, HKEY(nullptr), reinterpret_cast<HKEY>(uintptr_t{0x12345678}), HKEY(&type)}) {
        EXPECT_EQ(RegCloseKey(dead), ERROR_INVALID_HANDLE);
        EXPECT_EQ(setValue(dead, nullptr, "v"), ERROR_INVALID_HANDLE);
        EXPECT_EQ(RegDeleteKeyA(dead, "b"), ERROR_INVALID_HANDLE);
        EXPECT_EQ(registryState(dead), 0u);
    }
}

TEST_F(Registry, ANewKeyWaitsForItsFirstValueAKeyBelowItOrItsClosing) {
    for (const int way : {0, 1, 2}) {
        const std::string name = "way " + std::to_string(way);
        HKEY key = makeTestKey(name, way == 0 ? REG_OPTION_VOLATILE : REG_OPTION_NON_VOLATILE);
        EXPECT_TRUE(isElsewhere(name, "(no key)"));
        if (way == 0)
            setValue(key, nullptr, "v");
        if (way == 1)
            textOf("below", key);
        if (way == 2)
            RegCloseKey(key);
        EXPECT_TRUE(isElsewhere(name, way == 0 ? "v" : "(no value)")) << name;
        if (way != 2)
            RegCloseKey(key);
    }
}

TEST_F(Registry, APowerCutKeepsWhatStoodBeforeTheDamage) {
    const std::string log = persistentTree() + "/log";
    std::vector<std::pair<size_t, std::string>> states;
    const auto note = [&] { states.emplace_back(fs::file_size(log), dumpRegistry()); };
    RegDeleteTreeA(HKEY_CLASSES_ROOT, "nothing, but the log is made");
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
    const auto damaged = [&](size_t at, Bytes bytes) {
        SCOPED_TRACE("damage at " + std::to_string(at));
        std::string before; // what the records that end there or earlier say
        for (const auto& [length, dump] : states)
            before = length <= at ? dump : before;
        ASSERT_EQ(dumpOf(log, bytes), before);
        ASSERT_EQ(setText("Next", "works"), 0);
        forgetRegistry();
        ASSERT_EQ(textOf("Next"), "works");
        RegDeleteKeyA(HKEY_CLASSES_ROOT, "Next");
        forgetRegistry();
        ASSERT_EQ(dumpRegistry(), before);
    };
    for (size_t at = states[0].first; at < whole.size() && !HasFailure(); at++) {
        damaged(at, Bytes(whole.begin(), whole.begin() + long(at)));
        Bytes flipped = whole;
        flipped[at] ^= 0x10;
        damaged(at, flipped);
    }
    const std::string text(257, 'k');
    using enum RecordKind;
    for (const RegistryRecord& odd : {RegistryRecord{RecordKind(0), "k"},
                                      {RecordKind(4), "k"},
                                      {key, "k\\"},
                                      {key, "\\k"},
                                      {key, ""},
                                      {key, {text.data(), 256}},
                                      {value, "k", {text.data(), 256}}}) {
        Bytes longer = whole;
        Array<char> stored;
        odd.store(1, stored);
        longer.insert(longer.end(), stored.begin(), stored.end());
        const auto end = uint32_t(longer.size());
        std::memcpy(&longer[12], &end, 4);
        damaged(whole.size(), longer);
    }
    static size_t most;
    const HostCallGuard guard;
    hostCalls.pread = [](int fd, void* bytes, size_t count, off_t at) {
        most = std::max(most, count);
        return ::pread(fd, bytes, count, at);
    };
    for (size_t at = 0; at < 20; at++)
        for (const int bit : {0x01, 0x10, 0x80}) {
            Bytes flipped = whole;
            flipped[at] = static_cast<uint8_t>(flipped[at] ^ bit);
            const std::string dump = dumpOf(log, flipped);
            EXPECT_TRUE(dump.empty() || std::any_of(states.begin(), states.end(),
                                                    [&](const auto& state) { return state.second == dump; }))
                << "header byte " << at << ": " << dump;
            setText("Next", "must not crash");
        }
    EXPECT_LT(most, 100000u) << "memory for what the header claims and the file does not hold";
    for (const size_t size : {0, 100, 4095}) {
        dumpOf(log, Bytes(whole.begin(), whole.begin() + long(size)));
        EXPECT_EQ(setText("Next", "works"), 0)
            << "a log that nobody finished making, of " << size << " bytes";
    }
    const Bytes foreign = bytesOf("a text of somebody's");
    EXPECT_EQ(dumpOf(log, foreign), "");
    EXPECT_EQ(setText("Next", "x"), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(readFile(log), foreign) << "not ours to write over";
    forgetRegistry();
}

TEST_F(Registry, AFullOrReadOnlyDiskLosesNothing) {
    TinyFileSystem mounted(path("tiny"), 256 << 10);
    if (!mounted.mounted())
        GTEST_SKIP() << "this process may not mount";
    setenv("KAL_REGISTRY", path("tiny/registry").c_str(), 1);
    KeyModel model;
    int made = 0;
    for (; setText("k" + std::to_string(made), std::string(3000, 'a')) == 0; made++) {
        ASSERT_LT(made, 1000);
        model.set("k" + std::to_string(made), std::string(3000, 'a'));
    }
    EXPECT_GT(made, 60);
    EXPECT_EQ(setText("k0", std::string(60000, 'b')), ERROR_DISK_FULL);
    EXPECT_EQ(dumpRegistry(), model.dump());
    forgetRegistry();
    EXPECT_EQ(dumpRegistry(), model.dump());
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
    enum { kFolderLink, kLogLink, kPipe, kForeign, kOpenToOthers, kWays };
    fs::create_directory(path("foreign"));
    setText("way", "x", REG_OPTION_VOLATILE);
    const std::string folders[] = {persistentTree(), volatileTree()};
    for (const uint32_t option : {REG_OPTION_NON_VOLATILE, REG_OPTION_VOLATILE})
        for (int way = 0; way < kWays; way++) {
            const std::string& folder = folders[option];
            fs::remove_all(folder);
            way == kFolderLink ? fs::create_symlink(path("foreign"), folder)
                               : void(fs::create_directory(folder));
            if (way != kFolderLink)
                fs::permissions(folder, way == kOpenToOthers ? fs::perms::all : fs::perms::owner_all);
            if (way == kLogLink)
                fs::create_symlink(path("foreign/file"), folder + "/log");
            if (way == kPipe && mkfifo((folder + "/log").c_str(), 0600) != 0)
                continue;
            if (way == kForeign && (geteuid() != 0 || chown(folder.c_str(), 65534, 65534) != 0))
                continue;
            EXPECT_EQ(setText("a" + std::to_string(option), "x", option),
                      way == kFolderLink                    ? ERROR_REGISTRY_IO_FAILED
                      : way == kOpenToOthers && option == 0 ? 0
                                                            : ERROR_ACCESS_DENIED)
                << "way " << way << ", volatile " << option;
            EXPECT_EQ(filesIn(path("foreign")), std::vector<std::string>()) << "nothing was made behind it";
            forgetRegistry();
        }
    fs::remove_all(folders[1]);
    EXPECT_EQ(setText("v", "made with the right rights", REG_OPTION_VOLATILE), 0);
    EXPECT_EQ(fs::status(folders[1]).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(folders[1] + "/log").permissions(), fs::perms::owner_read | fs::perms::owner_write);

    writeFile("plain", bytesOf("a file"));
    setenv("KAL_REGISTRY", path("plain/registry").c_str(), 1);
    EXPECT_EQ(setText("a", "x"), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(setText("v", "volatile ones still work", REG_OPTION_VOLATILE), 0);
    EXPECT_EQ(textOf("v"), "volatile ones still work");
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "a"), ERROR_REGISTRY_IO_FAILED) << "it may be there";
    setenv("XDG_RUNTIME_DIR", path("plain").c_str(), 1);
    EXPECT_EQ(setText("v", "x", REG_OPTION_VOLATILE), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(dumpRegistry(), "");
    setenv("KAL_REGISTRY", std::string(PATH_MAX * 2, 'x').c_str(), 1);
    EXPECT_NE(setText("a", "x"), 0);
}

TEST_F(Registry, TroubleLeavesEachValueOldOrNewAndTheNextWriterWorks) {
    setText("Top\\Held", "old");
    setText("Top\\Going\\Below", "old");
    setText("Passing", "old", REG_OPTION_VOLATILE);
    const std::string volatileLog = volatileTree().substr(path("").size()) + "/log";
    const std::set<std::string> logs = {"registry/log", "registry/log.new", volatileLog,
                                        volatileLog + ".new"};
    const std::function<int()> operations[] = {[] { return setText("Top\\Held", "new"); },
                                               [] {
                                                   const int code = setText("Way\\To\\It", "new");
                                                   return code != 0 ? code : setText("Passing", "new");
                                               },
                                               [] { return RegDeleteTreeA(HKEY_CLASSES_ROOT, "Top\\Going"); },
                                               [] {
                                                   return setText("Passing", "new", REG_OPTION_VOLATILE);
                                               }, // these two past 64 KiB: the log is written anew
                                               [] { return setText("Top\\Held", "new"); }};
    for (const auto& operation : operations) {
        forgetRegistry();
        const auto left = std::end(operations) - &operation;
        for (int i = 0; i < 3 && left <= 2; i++)
            setText(left == 2 ? "Passing" : "Top\\Held", i == 2 ? "old" : std::string(40000, 'x'));
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
                             forgetRegistry();
                             EXPECT_EQ(textOf("Next"), "works");
                             forgetRegistry();
                         },
                     .unfinished = logs});
        EXPECT_LE(seen.size(), 3u) << "old, new, or one of two steps";
    }
}
