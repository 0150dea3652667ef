// The registry in one process: its calls, and what becomes of its files in every trouble.
#include "tests/support/registry_test.h"
#include "platform/registry/record.h"
#include "tests/support/faults.h"
#include "tests/support/told.h"
#include "tests/support/trouble.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

using Registry = RegistryTest;

namespace {

int32_t setValue(HKEY key, const char* name, const std::string& bytes, uint32_t type = REG_SZ) {
    return RegSetValueExA(key, name, 0, type, reinterpret_cast<const uint8_t*>(bytes.data()),
                          static_cast<uint32_t>(bytes.size()));
}

// Of a log as it was while nobody held it.
std::string dumpOf(const std::string& file, const Bytes& bytes) {
    forgetRegistry();
    writeFile(file, bytes);
    return dumpRegistry();
}

// Adds a record to those of log number 1, its check sum made to hold.
Bytes withRecord(Bytes log, const RegistryRecord& record, size_t place = 0, uint8_t byte = 0) {
    Array<char> stored;
    record.store(1, stored);
    if (place != 0)
        stored[place] = static_cast<char>(byte);
    uint32_t sum = 2166136261u;
    for (const int numbered : {1, 0, 0, 0})
        sum = (sum ^ uint32_t(numbered)) * 16777619u;
    for (size_t i = 0; i < stored.size(); i++)
        if (i < 4 || i >= 8)
            sum = (sum ^ static_cast<uint8_t>(stored[i])) * 16777619u;
    std::memcpy(&stored[4], &sum, 4);
    log.insert(log.end(), stored.begin(), stored.end());
    const auto end = static_cast<uint32_t>(log.size());
    std::memcpy(&log[12], &end, 4);
    return log;
}

} // namespace

TEST_F(Registry, AnswersAboutKeysAndValuesAndRefusesWhatIsNone) {
    std::string deep = std::string(255, 'd');
    while (deep.size() < 3840)
        deep += "\\" + std::string(255, 'd');
    for (const auto& [path, code] : {std::pair(deep, 0), // 4,095 bytes
                                     {deep + "\\", 0},
                                     {"", ERROR_BAD_PATHNAME},
                                     {"\\", ERROR_BAD_PATHNAME},
                                     {"\\a", ERROR_BAD_PATHNAME},
                                     {"a\\\\b", ERROR_BAD_PATHNAME},
                                     {"a\\\\", ERROR_BAD_PATHNAME},
                                     {std::string(256, 'x'), ERROR_FILENAME_EXCED_RANGE},
                                     {std::string(100000, 'x'), ERROR_FILENAME_EXCED_RANGE},
                                     {deep + "\\d", ERROR_FILENAME_EXCED_RANGE}}) {
        HKEY key = nullptr;
        EXPECT_EQ(setText(path, "x"), code) << path.substr(0, 300);
        EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_ALL_ACCESS, &key), code);
        EXPECT_EQ(RegCloseKey(key), code == 0 ? 0 : ERROR_INVALID_HANDLE);
        EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, path.c_str()), code);
    }
    setText("App\\C", "x");
    EXPECT_EQ(setText("aPP\\c", "y"), 0);
    EXPECT_NE(dumpRegistry().find("App=(no value){C=y{}}"), std::string::npos) << "as it was spelled first";
    HKEY key = makeTestKey("App"), none = nullptr;
    uint32_t type = 0, size = 0;
    Bytes data(kMostValueBytes);
    for (const auto& [index, room, code] :
         {std::tuple(0u, 3u, ERROR_MORE_DATA), {0u, 4u, 0}, {2u, 4u, ERROR_NO_MORE_ITEMS}})
        EXPECT_EQ(RegEnumKeyA(HKEY_CLASSES_ROOT, index, std::string(room, 0).data(), room), code) << index;
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
    const uint64_t state = registryState(key);
    const std::pair<int32_t, int32_t> answers[] = {
        {RegQueryValueExA(key, "OTHER", nullptr, nullptr, nullptr, nullptr), 0},
        {RegQueryValueExA(key, "Othe", nullptr, nullptr, nullptr, nullptr), ERROR_FILE_NOT_FOUND},
        {RegQueryValueExA(key, "Other", nullptr, nullptr, data.data(), nullptr), ERROR_INVALID_PARAMETER},
        {setValue(key, "large", std::string(kMostValueBytes + 1, 'l')), ERROR_INVALID_PARAMETER},
        {setValue(key, (longest + "n").c_str(), "v"), ERROR_FILENAME_EXCED_RANGE},
        {setValue(HKEY_CLASSES_ROOT, nullptr, "v"), ERROR_FILE_NOT_FOUND},
        {RegOpenKeyExA(key, "c", 0, 0, nullptr), ERROR_INVALID_PARAMETER},
        {RegOpenKeyExA(key, nullptr, 0, 0, &none), ERROR_INVALID_PARAMETER},
        {setValue(key, "Other", ""), 0},
        {RegDeleteKeyA(HKEY_CLASSES_ROOT, "app"), ERROR_ACCESS_DENIED}, // it has a subkey
        {RegDeleteTreeA(HKEY_CLASSES_ROOT, "app"), 0},
        {RegDeleteTreeA(HKEY_CLASSES_ROOT, "app"), ERROR_FILE_NOT_FOUND},
        {RegQueryValueExA(key, nullptr, nullptr, &type, data.data(), &size), ERROR_FILE_NOT_FOUND}};
    for (const auto& answer : answers)
        EXPECT_EQ(answer.first, answer.second) << "row " << &answer - answers;
    EXPECT_NE(registryState(key), state);
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
    const auto isElsewhere = [](const std::string& name, const std::string& text) {
        return inChild([&] { EXPECT_EQ(textOf(name), text); }) == 0;
    };
    for (const int way : {0, 1, 2}) {
        const std::string name = "way " + std::to_string(way);
        HKEY key = makeTestKey(name, way == 0 ? REG_OPTION_VOLATILE : REG_OPTION_NON_VOLATILE);
        EXPECT_TRUE(isElsewhere(name, "(no key)"));
        way == 0   ? void(setValue(key, nullptr, "v"))
        : way == 1 ? void(textOf("below", key))
                   : void(RegCloseKey(key));
        EXPECT_TRUE(isElsewhere(name, way == 0 ? "v" : "(no value)")) << name;
        if (way != 2)
            RegCloseKey(key);
    }
}

TEST_F(Registry, APowerCutKeepsWhatStoodBeforeTheDamage) {
    const std::string log = persistentTree() + "/log";
    std::vector<std::pair<size_t, std::string>> states;
    for (const char* key : {"", "A", "a\\Below", "B", "b\\c\\D", "Empty", "A"}) {
        *key == 0 || states.size() == 6 ? void(RegDeleteTreeA(HKEY_CLASSES_ROOT, *key == 0 ? "none" : key))
        : *key == 'E'                   ? void(RegCloseKey(makeTestKey(key)))
                                        : void(setText(key, std::string("text of ") + key));
        states.emplace_back(fs::file_size(log), dumpRegistry());
    }
    const Bytes whole = readFile(log);
    EXPECT_EQ(faultsIn(whole, KalVerifyRegistry), "");
    const auto damaged = [&](size_t at, const Bytes& bytes) {
        SCOPED_TRACE("damage at " + std::to_string(at));
        std::string before; // what the records that end there or earlier say
        for (const auto& [length, dump] : states)
            before = length <= at ? dump : before;
        ASSERT_NE(faultsIn(bytes, KalVerifyRegistry), "");
        ASSERT_EQ(dumpOf(log, bytes), before);
        ASSERT_EQ(setText("Next", "works"), 0);
        forgetRegistry();
        ASSERT_EQ(textOf("Next"), "works");
        RegDeleteKeyA(HKEY_CLASSES_ROOT, "Next");
        forgetRegistry();
        ASSERT_EQ(dumpRegistry(), before);
    };
    const auto flipped = [&](size_t at, int bits) {
        Bytes bytes = whole;
        bytes[at] = static_cast<uint8_t>(bytes[at] ^ bits);
        return bytes;
    };
    for (size_t at = states[0].first; at < whole.size() && !HasFailure(); at++) {
        damaged(at, Bytes(whole.begin(), whole.begin() + long(at)));
        damaged(at, flipped(at, 0x10));
    }
    const std::string text(257, 'k');
    using enum RecordKind;
    for (const RegistryRecord& odd : {RegistryRecord{RecordKind(0), "k"},
                                      {RecordKind(4), "k"},
                                      {key, "k\\"},
                                      {key, "\\k"},
                                      {key, ""},
                                      {key, {text.data(), 256}},
                                      {value, "k", {text.data(), 256}}})
        damaged(whole.size(), withRecord(whole, odd));
    for (const size_t length : {10, 12}) // of the path, of the name: to behind the record's end
        damaged(whole.size(), withRecord(whole, {value, "k", "n", 1, "text"}, length, 7));
    for (const uint32_t type : {REG_SZ, REG_SZ + 1})
        EXPECT_EQ(faultsIn(withRecord(whole, {value, "k", "", type, "text"}), KalVerifyRegistry) == "",
                  type != REG_SZ);
    static size_t most;
    const HostCallGuard guard;
    hostCalls.pread = [](int fd, void* bytes, size_t count, off_t at) {
        most = std::max(most, count);
        return ::pread(fd, bytes, count, at);
    };
    for (size_t at = 0; at < 20; at++)
        for (const int bit : {0x01, 0x10, 0x80}) {
            const std::string dump = dumpOf(log, flipped(at, bit));
            const bool isWhole = dump == states.back().second;
            EXPECT_TRUE(isWhole || faultsIn(flipped(at, bit), KalVerifyRegistry) != "") << at;
            EXPECT_TRUE(isWhole || std::any_of(states.begin(), states.end(),
                                               [&](auto& state) { return state.second == dump; }))
                << at;
            setText("Next", "must not crash");
        }
    EXPECT_LT(most, 100000u) << "memory for what the header claims and the file does not hold";
    for (const size_t size : {0, 100, 4095}) {
        dumpOf(log, Bytes(whole.begin(), whole.begin() + long(size)));
        EXPECT_EQ(setText("Next", "works"), 0) << "nobody finished making the log, of " << size << " bytes";
    }
    const Bytes foreign = bytesOf("a text of somebody's");
    EXPECT_EQ(dumpOf(log, foreign), "");
    EXPECT_EQ(setText("Next", "x"), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(readFile(log), foreign) << "not ours to write over";

    static int opened;
    hostCalls.openat = [](int folder, const char* path, int flags, mode_t mode) {
        opened++;
        return ::openat(folder, path, flags, mode);
    };
    EXPECT_EQ(dumpOf(log, flipped(15, 0x80)), states.back().second) << "whoever was to replace the log died";
    const int before = opened;
    EXPECT_EQ(dumpRegistry(), states.back().second);
    EXPECT_EQ(opened, before) << "the log is opened anew at each look";
    EXPECT_EQ(setText("Next", "works"), 0);
    EXPECT_EQ(readFile(log)[15], 0);
}

TEST_F(Registry, AFullOrReadOnlyDiskLosesNothing) {
    setText("k", "old");
    setText("passing", "old", REG_OPTION_VOLATILE);
    const std::string old = dumpRegistry();
    {
        const FileSizeLimit full(10000);
        EXPECT_EQ(setText("k", std::string(60000, 'b')), ERROR_DISK_FULL);
        EXPECT_EQ(setText("k", "old"), 0) << "a short one still fits";
    }
    forgetRegistry();
    const HostCallGuard guard;
    hostCalls.openat = [](int folder, const char* name, int flags, mode_t mode) {
        errno = EROFS;
        return (flags & O_RDWR) != 0 ? -1 : ::openat(folder, name, flags, mode);
    };
    EXPECT_EQ(dumpRegistry(), old);
    for (const char* key : {"k", "passing", "new"}) {
        EXPECT_EQ(setText(key, "y"), ERROR_ACCESS_DENIED);
        EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, key),
                  *key == 'n' ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(dumpRegistry(), old);
}

TEST_F(Registry, WhatIsALinkOrAnotherUsersIsRefusedAndWhatCannotBeReachedFails) {
    fs::create_directory(path("foreign"));
    setText("way", "x", REG_OPTION_VOLATILE);
    const std::string folders[] = {persistentTree(), volatileTree()};
    for (const uint32_t option : {REG_OPTION_NON_VOLATILE, REG_OPTION_VOLATILE})
        for (const auto& [way, code] :
             {std::pair("ln -s $PWD/foreign $F", ERROR_REGISTRY_IO_FAILED),
              {"mkdir -m 700 $F && ln -s $PWD/foreign/file $F/log", ERROR_ACCESS_DENIED},
              {"mkdir -m 700 $F && mkfifo $F/log", ERROR_ACCESS_DENIED},
              {"mkdir -m 700 $F && chown 65534 $F", ERROR_ACCESS_DENIED},
              {"mkdir -m 777 $F", option == 0 ? 0 : ERROR_ACCESS_DENIED}}) {
            const std::string make = "F=" + folders[option] + " && rm -rf $F && " + way;
            const bool isMade = std::system(make.c_str()) == 0; // not everybody may chown
            EXPECT_EQ(setText("a" + std::to_string(option), "x", option), isMade ? code : 0) << make;
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
    const std::pair<const char*, int32_t (*)()> operations[] = {
        {"", [] { return setText("Top\\Held", "new"); }},
        {"",
         [] {
             const int32_t code = setText("Way\\To\\It", "new");
             return code != 0 ? code : setText("Passing", "new");
         }},
        {"", [] { return RegDeleteTreeA(HKEY_CLASSES_ROOT, "Top\\Going"); }},
        // These two past 64 KiB: the log is written anew.
        {"Passing", [] { return setText("Passing", "new", REG_OPTION_VOLATILE); }},
        {"Top\\Held", [] { return setText("Top\\Held", "new"); }}};
    for (const auto& [grown, operation] : operations) {
        forgetRegistry();
        for (int i = 0; i < 3 && *grown != 0; i++)
            setText(grown, i == 2 ? "old" : std::string(40000, 'x'));
        const std::string old = dumpRegistry();
        forgetRegistry();
        std::set<std::string> seen;
        const auto run = [&operation = operation] {
            const int code = operation();
            forgetRegistry();
            return code;
        };
        const auto check = [&](int status) {
            const std::string found = dumpRegistry();
            EXPECT_TRUE(status == 0 ? found != old : true);
            seen.insert(found);
            EXPECT_EQ(setText("Next", "works"), 0);
            forgetRegistry();
            EXPECT_EQ(textOf("Next"), "works");
            forgetRegistry();
        };
        walkTrouble({.prepare = forgetRegistry,
                     .run = run,
                     .statuses = {ERROR_NOT_ENOUGH_MEMORY, ERROR_REGISTRY_IO_FAILED, ERROR_DISK_FULL,
                                  ERROR_FILE_NOT_FOUND},
                     .check = check,
                     .unfinished = {"registry/log", "registry/log.new", volatileLog, volatileLog + ".new"}});
        EXPECT_LE(seen.size(), 3u) << "old, new, or one of two steps";
    }
}
