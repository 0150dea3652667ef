#include "tests/support/registry_test.h"

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

RegistryTest::RegistryTest() : FolderTest(kInMemory) {
    forgetRegistry();
    fs::create_directory(path("runtime"));
    setenv("KAL_REGISTRY", persistentTree().c_str(), 1);
    setenv("XDG_RUNTIME_DIR", path("runtime").c_str(), 1);
}

RegistryTest::~RegistryTest() {
    forgetRegistry();
    unsetenv("KAL_REGISTRY");
    unsetenv("XDG_RUNTIME_DIR");
}

std::string RegistryTest::volatileTree() const {
    const auto names = filesIn(path("runtime"));
    return names.empty() ? "" : path("runtime/" + names[0]);
}

void RegistryTest::emptyVolatileTree() const {
    for (const auto& name : filesIn(path("runtime")))
        fs::remove_all(path("runtime/" + name));
}

static int32_t createKey(const std::string& name, uint32_t option, HKEY& key) {
    return RegCreateKeyExA(HKEY_CLASSES_ROOT, name.c_str(), 0, "string", option, KEY_ALL_ACCESS, nullptr,
                           &key, nullptr);
}

HKEY makeTestKey(const std::string& name, uint32_t option) {
    HKEY key = nullptr;
    EXPECT_EQ(createKey(name, option, key), 0) << name;
    return key;
}

int32_t setText(const std::string& key, const std::string& text, uint32_t option) {
    HKEY opened = nullptr;
    if (const int32_t code = createKey(key, option, opened); code != 0)
        return code;
    const int32_t code =
        RegSetValueExA(opened, nullptr, 0, REG_SZ, reinterpret_cast<const uint8_t*>(text.c_str()),
                       static_cast<uint32_t>(text.size() + 1));
    RegCloseKey(opened);
    return code;
}

std::string textOf(const std::string& key, HKEY above) {
    HKEY opened = nullptr;
    if (RegOpenKeyExA(above, key.c_str(), 0, KEY_ALL_ACCESS, &opened) != 0)
        return "(no key)";
    static char text[70000];
    uint32_t size = sizeof text - 1;
    const int32_t code =
        RegQueryValueExA(opened, nullptr, nullptr, nullptr, reinterpret_cast<uint8_t*>(text), &size);
    RegCloseKey(opened);
    text[code == 0 ? size : 0] = 0;
    return code == 0 ? text : "(no value)";
}

std::string dumpRegistry(HKEY key) {
    std::string text;
    char name[260];
    for (uint32_t i = 0; RegEnumKeyA(key, i, name, sizeof name) == 0; i++) {
        HKEY below = nullptr;
        EXPECT_EQ(RegOpenKeyExA(key, name, 0, KEY_ALL_ACCESS, &below), 0) << name;
        text += name + ("=" + textOf(name, key)) + "{" + dumpRegistry(below) + "}";
        RegCloseKey(below);
    }
    return text;
}

void KeyModel::set(const std::string& path, const std::string& value) {
    for (size_t end = path.find('\\'); end != std::string::npos; end = path.find('\\', end + 1))
        keys_.try_emplace(path.substr(0, end), "(no value)");
    keys_[path] = value;
}

void KeyModel::erase(const std::string& path) {
    for (const std::string& name : below(path))
        erase(path + "\\" + name);
    keys_.erase(path);
}

std::string KeyModel::at(const std::string& path) const {
    const auto found = keys_.find(path);
    return found != keys_.end() ? found->second : "(no key)";
}

std::vector<std::string> KeyModel::below(const std::string& path) const {
    const std::string way = path.empty() ? "" : path + "\\";
    std::vector<std::string> names;
    for (auto at = keys_.lower_bound(way);
         at != keys_.end() && strncasecmp(at->first.c_str(), way.c_str(), way.size()) == 0; at++)
        if (at->first.find('\\', way.size()) == std::string::npos)
            names.push_back(at->first.substr(way.size()));
    return names;
}

std::string KeyModel::dump(const std::string& way) const {
    std::string text;
    for (const std::string& name : below(way.substr(0, way.size() - !way.empty())))
        text += name + "=" + at(way + name) + "{" + dump(way + name + "\\") + "}";
    return text;
}

void KeyModel::cover(const KeyModel& other) {
    for (const auto& [path, value] : other.keys_)
        if (value != "(no value)" || keys_.count(path) == 0)
            keys_[path] = value;
}
