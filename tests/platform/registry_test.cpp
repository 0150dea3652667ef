// The registry's calls within one process, and what they leave on disk.
#include "tests/support/registry_test.h"
#include "tests/support/traps.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <sys/mount.h>
#include <unistd.h>

namespace fs = std::filesystem;

using Registry = RegistryTest;

TEST_F(Registry, KeepsEveryNameApartAndInsideTheTree) {
    std::vector<std::string> names;
    for (const char* name : {".",   "..",  "...",  "a/b", "/",   "@",     "@a",    "%40",  "%",
                             "CON", "nul", " ",    "a ",  " a",  "a.",    ".name", ".new", ".changes",
                             "a?c", "*",   "a\tb", "\n",  "~",   "\x7f",  "\xc4",  "\xe4", "\x80\xff",
                             "a:b", "%41", "a%",   "aa",  "-rf", "$HOME", "`id`",  "\"'",  "value"})
        names.push_back(name);
    for (const size_t length : {254u, 255u})
        names.push_back(std::string(length, 'x'));
    names.push_back(std::string(85, '\xff'));
    const auto around = filesIn(".");
    for (size_t i = 0; i < names.size(); i++)
        ASSERT_EQ(setText("top\\" + names[i], "value " + std::to_string(i)), 0) << names[i];
    for (size_t i = 0; i < names.size(); i++)
        EXPECT_EQ(textOf("top\\" + names[i]), "value " + std::to_string(i)) << names[i];
    EXPECT_EQ(textOf("TOP\\Con"), textOf("top\\CON"));
    auto listed = subkeysOf("top");
    std::sort(listed.begin(), listed.end());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(listed, names);
    EXPECT_EQ(filesIn(persistentTree() + "/top").size(), names.size());
    EXPECT_EQ(filesIn(persistentTree()), (std::vector<std::string>{".changes", "top"}));
    EXPECT_EQ(filesIn(".").size(), around.size() + 1) << "something was made outside the tree";
}

TEST_F(Registry, RefusesNamesThatCannotBeKeysAndDeadHandles) {
    const struct {
        std::string name;
        int32_t code;
    } refused[] = {{"", ERROR_BAD_PATHNAME},
                   {"\\a", ERROR_BAD_PATHNAME},
                   {"a\\\\b", ERROR_BAD_PATHNAME},
                   {"a\\\\", ERROR_BAD_PATHNAME},
                   {std::string(256, 'x'), ERROR_FILENAME_EXCED_RANGE},
                   {std::string(86, '\xff'), ERROR_FILENAME_EXCED_RANGE},
                   {std::string(100000, 'x'), ERROR_FILENAME_EXCED_RANGE}};
    HKEY key = nullptr;
    for (const auto& [name, code] : refused) {
        EXPECT_EQ(setText(name, "x"), code) << name.substr(0, 300);
        EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, name.c_str(), 0, KEY_ALL_ACCESS, &key), code);
        EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, name.c_str()), code);
    }
    std::string deep = "d";
    for (int i = 0; i < 40; i++)
        deep += "\\" + std::string(200, 'd');
    EXPECT_EQ(setText(deep, "x"), ERROR_FILENAME_EXCED_RANGE) << "a path too long for the host";
    EXPECT_EQ(filesIn(persistentTree()), std::vector<std::string>{".changes"});

    ASSERT_EQ(setText("a\\b\\", "one separator at the end"), 0);
    EXPECT_EQ(textOf("a\\b"), "one separator at the end");
    EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, nullptr, 0, KEY_ALL_ACCESS, &key), ERROR_INVALID_PARAMETER);
    key = makeTestKey("a");
    EXPECT_EQ(RegCloseKey(key), 0);
    HKEY reused = makeTestKey("a");
    uint32_t size = 0;
    for (const HKEY dead : {key, HKEY(nullptr), reinterpret_cast<HKEY>(uintptr_t{0x12345678}),
                            reinterpret_cast<HKEY>(UINTPTR_MAX)}) {
        EXPECT_EQ(RegCloseKey(dead), ERROR_INVALID_HANDLE);
        EXPECT_EQ(RegQueryValueExA(dead, nullptr, nullptr, nullptr, nullptr, &size), ERROR_INVALID_HANDLE);
        EXPECT_EQ(RegSetValueExA(dead, nullptr, 0, REG_SZ, nullptr, 0), ERROR_INVALID_HANDLE);
        EXPECT_EQ(RegDeleteKeyA(dead, "b"), ERROR_INVALID_HANDLE);
    }
    EXPECT_EQ(textOf("b", reused), "one separator at the end");
    RegCloseKey(reused);
}

TEST_F(Registry, AnswersAboutValuesAsTheyAreStored) {
    HKEY key = makeTestKey("App");
    uint32_t type = 0;
    uint32_t size = 0;
    uint8_t data[300];
    EXPECT_EQ(RegQueryValueExA(key, nullptr, nullptr, &type, data, &size), ERROR_FILE_NOT_FOUND);
    const struct {
        const char* name;
        uint32_t type;
        std::string bytes;
    } values[] = {{nullptr, REG_SZ, std::string("text", 5)},
                  {"Other", REG_SZ, ""},
                  {"..", 3, std::string("\0\1\2", 3)},
                  {"mark", REG_SZ, std::string("REG_9\nx", 8)},
                  {"word", 4, "REG_"},
                  {"@", 0xFFFFFFFF, std::string(300, 'v')}};
    for (const auto& [name, stored, bytes] : values)
        ASSERT_EQ(RegSetValueExA(key, name, 0, stored, reinterpret_cast<const uint8_t*>(bytes.data()),
                                 static_cast<uint32_t>(bytes.size())),
                  0);
    for (const auto& [name, stored, bytes] : values) {
        SCOPED_TRACE(name != nullptr ? name : "(default)");
        std::memset(data, 0x55, sizeof data);
        size = bytes.empty() ? 0 : static_cast<uint32_t>(bytes.size() - 1);
        if (!bytes.empty()) {
            EXPECT_EQ(RegQueryValueExA(key, name, nullptr, &type, data, &size), ERROR_MORE_DATA);
            EXPECT_EQ(data[0], 0x55) << "left alone";
        }
        EXPECT_EQ(RegQueryValueExA(key, name, nullptr, nullptr, nullptr, &size), 0);
        EXPECT_EQ(size, bytes.size());
        ASSERT_EQ(RegQueryValueExA(key, name, nullptr, &type, data, &size), 0);
        EXPECT_EQ(type, stored);
        EXPECT_EQ(std::string(data, data + size), bytes);
    }
    EXPECT_EQ(RegQueryValueExA(key, "OTHER", nullptr, &type, data, &size), 0)
        << "names without regard to case";
    EXPECT_EQ(RegQueryValueExA(key, "missing", nullptr, &type, data, &size), ERROR_FILE_NOT_FOUND);
    std::vector<uint8_t> large(kMostValueBytes + 1);
    EXPECT_EQ(RegSetValueExA(key, "large", 0, 3, large.data(), kMostValueBytes + 1), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegSetValueExA(key, "large", 0, 3, large.data(), kMostValueBytes), 0);
    EXPECT_EQ(RegQueryValueExA(key, "large", nullptr, nullptr, nullptr, &size), 0);
    EXPECT_EQ(size, kMostValueBytes);
    RegCloseKey(key);
}

TEST_F(Registry, ListsSubkeysInOrderAsTheyWereSpelled) {
    HKEY key = makeTestKey("Top");
    for (const char* name : {"beta", "Alpha", "\xe9t\xe9", "alpha2", "GAMMA"})
        setText(std::string("top\\") + name, "x");
    setText("top\\ALPHA", "the spelling that it was made with stays");
    EXPECT_EQ(subkeysOf(key), (std::vector<std::string>{"Alpha", "alpha2", "beta", "GAMMA", "\xe9t\xe9"}));
    char name[6];
    EXPECT_EQ(RegEnumKeyA(key, 0, name, 5), ERROR_MORE_DATA);
    EXPECT_EQ(RegEnumKeyA(key, 0, name, 6), 0);
    EXPECT_EQ(RegEnumKeyA(key, 5, name, 6), ERROR_NO_MORE_ITEMS);

    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "top"), ERROR_ACCESS_DENIED) << "it has subkeys";
    EXPECT_EQ(RegDeleteKeyA(key, "gamma"), 0);
    EXPECT_EQ(RegDeleteKeyA(key, "gamma"), ERROR_FILE_NOT_FOUND);
    setText("top\\Aa", "x");
    EXPECT_EQ(subkeysOf(key), (std::vector<std::string>{"Aa", "Alpha", "alpha2", "beta", "\xe9t\xe9"}));

    HKEY other = nullptr;
    uint32_t disposition = 0;
    EXPECT_EQ(RegCreateKeyExA(key, "c", 0, "special", 0, 0, nullptr, &other, &disposition), 0);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    uint32_t subKeys = 9;
    for (const auto& [asked, text] : {std::pair(other, "special"), std::pair(key, "string")}) {
        char className[20];
        uint32_t classSize = sizeof className;
        EXPECT_EQ(RegQueryInfoKeyA(asked, className, &classSize, nullptr, &subKeys, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr),
                  0);
        EXPECT_STREQ(className, text);
        EXPECT_EQ(classSize, std::strlen(text));
    }
    EXPECT_EQ(subKeys, 6u);
    RegCloseKey(other);
    EXPECT_EQ(RegCreateKeyExA(key, "C", 0, nullptr, 0, 0, nullptr, &other, &disposition), 0);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    RegCloseKey(other);
    RegCloseKey(key);
}

TEST_F(Registry, ANewKeyAppearsWithItsFirstValueOrAtTheNextCallAboutIt) {
    const auto elsewhere = [&](const std::string& name) { // as others see it: the folder, and its value
        return fileExists(persistentTree() + "/" + name) + fileExists(persistentTree() + "/" + name + "/@");
    };
    HKEY key = makeTestKey("valued");
    EXPECT_EQ(elsewhere("valued"), 0);
    EXPECT_EQ(RegSetValueExA(key, nullptr, 0, REG_SZ, reinterpret_cast<const uint8_t*>("v"), 2), 0);
    EXPECT_EQ(elsewhere("valued"), 2);
    RegCloseKey(key);
    RegCloseKey(makeTestKey("closed"));
    EXPECT_EQ(elsewhere("closed"), 1);
    key = makeTestKey("asked");
    EXPECT_EQ(textOf("asked"), "(no value)");
    EXPECT_EQ(elsewhere("asked"), 1);
    RegCloseKey(key);
    key = makeTestKey("above");
    setText("above\\below", "x");
    EXPECT_EQ(elsewhere("above"), 1);
    RegCloseKey(key);
    key = makeTestKey("dropped");
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "dropped"), 0);
    RegCloseKey(key);
    EXPECT_EQ(textOf("dropped"), "(no key)") << "closing must not bring it back";
}

TEST_F(Registry, VolatileKeysGoWithTheRuntimeFolderAndPersistentOnesStay) {
    setText("mixed\\volatile", "v", REG_OPTION_VOLATILE);
    setText("mixed\\volatile\\kept", "p");
    setText("mixed\\Persistent", "q");
    setText("mixed\\persistent\\passing", "r", REG_OPTION_VOLATILE);
    setText("mixed\\persistent", "q2", REG_OPTION_VOLATILE); // it is there: the option no longer matters
    setText("mixed\\volatile", "v2");
    EXPECT_TRUE(fileExists(volatileTree() + "/mixed/volatile/@"));
    EXPECT_FALSE(fileExists(persistentTree() + "/mixed/persistent/passing"));
    EXPECT_EQ(textOf("mixed\\volatile"), "v2") << "now a persistent key's value";
    EXPECT_EQ(subkeysOf("mixed"), (std::vector<std::string>{"Persistent", "volatile"}))
        << "one of each, from both";
    EXPECT_EQ(textOf("mixed\\persistent\\passing"), "r");
    EXPECT_EQ(fs::status(volatileTree()).permissions(), fs::perms::owner_all);

    HKEY open = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, "mixed\\persistent\\passing", 0, 0, &open), 0);
    emptyVolatileTree();
    EXPECT_EQ(textOf("mixed\\persistent\\passing"), "(no key)") << "also where it was known before";
    EXPECT_EQ(textOf("mixed\\persistent"), "q2");
    EXPECT_EQ(textOf("mixed\\volatile"), "v2");
    EXPECT_EQ(textOf("mixed\\volatile\\kept"), "p");
    emptyVolatileTree();
    EXPECT_EQ(RegSetValueExA(open, nullptr, 0, REG_SZ, reinterpret_cast<const uint8_t*>("s"), 2), 0);
    EXPECT_EQ(textOf("mixed\\persistent\\passing"), "s") << "what is written behind the handle is not lost";
    RegCloseKey(open);

    ASSERT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "mixed\\persistent\\passing"), 0);
    ASSERT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "mixed\\persistent"), 0);
    EXPECT_EQ(subkeysOf("mixed"), std::vector<std::string>{"volatile"});
}

TEST_F(Registry, ATreeThatCannotBeReachedOrWrittenFailsWithACode) {
    writeFile("plain", bytesOf("a file"));
    setenv("KAL_REGISTRY", path("plain/registry").c_str(), 1);
    EXPECT_EQ(setText("a", "x"), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(setText("v", "volatile ones still work", REG_OPTION_VOLATILE), 0);
    EXPECT_EQ(textOf("v"), "volatile ones still work");
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, "a", 0, 0, &key), ERROR_REGISTRY_IO_FAILED);
    setenv("XDG_RUNTIME_DIR", path("plain").c_str(), 1);
    EXPECT_EQ(setText("v", "x", REG_OPTION_VOLATILE), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "v"), ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(subkeysOf(HKEY_CLASSES_ROOT).empty());
    setenv("KAL_REGISTRY", std::string(PATH_MAX * 2, 'x').c_str(), 1);
    EXPECT_EQ(setText("a", "x"), ERROR_REGISTRY_IO_FAILED);

    setenv("XDG_RUNTIME_DIR", path("runtime").c_str(), 1);
    TinyFileSystem mounted(path("tiny"), 1 << 20);
    if (!mounted.mounted())
        GTEST_SKIP() << "this process may not mount";
    setenv("KAL_REGISTRY", path("tiny/registry").c_str(), 1);
    // Elsewhere: while this process had the tree open for writing it could not become read-only.
    ASSERT_EQ(inProcess([] { return setText("kept", "x"); }), 0);
    ASSERT_EQ(::mount(nullptr, path("tiny").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << errno;
    EXPECT_EQ(inProcess([] {
                  EXPECT_EQ(textOf("kept"), "x");
                  EXPECT_EQ(setText("kept", "y"), ERROR_ACCESS_DENIED);
                  EXPECT_EQ(setText("new", "y"), ERROR_ACCESS_DENIED);
                  EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "kept"), ERROR_ACCESS_DENIED);
                  EXPECT_EQ(textOf("kept"), "x");
                  return ::testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(Registry, AFullDiskLosesNothing) {
    TinyFileSystem mounted(path("tiny"), 256 << 10);
    if (!mounted.mounted())
        GTEST_SKIP() << "this process may not mount";
    setenv("KAL_REGISTRY", path("tiny/registry").c_str(), 1);
    int made = 0;
    while (setText("k" + std::to_string(made), std::string(3000, 'a')) == 0)
        ASSERT_LT(++made, 10000);
    EXPECT_EQ(setText("k0", std::string(60000, 'b')), ERROR_DISK_FULL);
    for (int i = 0; i < made; i++)
        ASSERT_EQ(textOf("k" + std::to_string(i)), std::string(3000, 'a'));
    EXPECT_EQ(textOf("k" + std::to_string(made)), "(no key)");
    EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, "k1"), 0);
    EXPECT_EQ(setText("k0", "again"), 0);
}

TEST_F(Registry, ForeignAndDamagedContentsAreReadOrPassedOver) {
    setText("a\\b", "x");
    const std::string a = persistentTree() + "/a";
    for (const char* folder :
         {"Upper", "%41", "%", "%4", "%2E%2e", "a%00", "%2F"}) // only the last is a key's folder
        fs::create_directory(a + "/" + folder);
    writeFile(a + "/file", bytesOf("not a key"));
    fs::create_symlink("b", a + "/link");
    fs::create_directory(a + "/pipe");
    ASSERT_EQ(mkfifo((a + "/pipe/@").c_str(), 0600), 0);
    writeFile(a + "/b/.name", bytesOf("another"));
    fs::create_directories(a + "/big");
    fs::resize_file((writeFile(a + "/big/@", {}), a + "/big/@"), 1u << 31);
    fs::create_directories(a + "/hand");
    writeFile(a + "/hand/@", bytesOf("REG_by hand\n"));
    writeFile(a + "/hand/.name", bytesOf("Hand\n"));
    EXPECT_EQ(subkeysOf("a"), (std::vector<std::string>{"/", "b", "big", "Hand", "pipe"}));
    EXPECT_EQ(textOf("a\\hand"), "REG_by hand\n");
    EXPECT_EQ(textOf("a\\big"), "(no key)") << "nothing of that size is read";
    EXPECT_EQ(textOf("a\\pipe"), "(no key)");
    EXPECT_EQ(textOf("a\\file"), "(no key)");
}

TEST_F(Registry, ShortMemoryFailsACallAndNothingElse) {
    setText("a\\held", "v");
    int failures = 0;
    const int runs = withEachAllocationFailing([&](int n) {
        setenv("XDG_RUNTIME_DIR", path("runtime" + std::string(n % 2 == 0 ? 0u : 1u, '/')).c_str(),
               1); // opens it anew each time
        failures += setText("a\\New" + std::to_string(n), "w") != 0;
        HKEY key = nullptr;
        failures += RegOpenKeyExA(HKEY_CLASSES_ROOT, "a", 0, 0, &key) != 0 || subkeysOf(key).empty();
        failures += textOf("held", key) != "v";
        RegCloseKey(key);
        failures += RegDeleteKeyA(HKEY_CLASSES_ROOT, ("a\\New" + std::to_string(n)).c_str()) != 0;
    });
    EXPECT_GT(runs, 10);
    EXPECT_GE(failures, runs / 2);
    EXPECT_EQ(textOf("a\\held"), "v");
}
