#include "tests/support/registry_test.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

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

pid_t startProcess(const std::function<int()>& work) {
    const pid_t process = fork();
    if (process == 0)
        _exit(work());
    return process;
}

int endOf(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

HKEY makeTestKey(const std::string& name, uint32_t option) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, name.c_str(), 0, "string", option, KEY_ALL_ACCESS, nullptr,
                              &key, nullptr),
              0)
        << name;
    return key;
}

int32_t setText(const std::string& key, const std::string& text, uint32_t option) {
    HKEY opened = nullptr;
    int32_t code = RegCreateKeyExA(HKEY_CLASSES_ROOT, key.c_str(), 0, "string", option, KEY_ALL_ACCESS,
                                   nullptr, &opened, nullptr);
    if (code != 0)
        return code;
    code = RegSetValueExA(opened, nullptr, 0, REG_SZ, reinterpret_cast<const uint8_t*>(text.c_str()),
                          static_cast<uint32_t>(text.size() + 1));
    RegCloseKey(opened);
    return code;
}

std::string textOf(const std::string& key, HKEY above) {
    HKEY opened = nullptr;
    if (RegOpenKeyExA(above, key.c_str(), 0, KEY_ALL_ACCESS, &opened) != 0)
        return "(no key)";
    std::string text(70000, '\0');
    auto size = static_cast<uint32_t>(text.size());
    const int32_t code =
        RegQueryValueExA(opened, nullptr, nullptr, nullptr, reinterpret_cast<uint8_t*>(text.data()), &size);
    RegCloseKey(opened);
    return code == 0 ? std::string(text.c_str()) : "(no value)";
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

namespace {

std::string folded(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) { return char(std::tolower(c)); });
    return text;
}

} // namespace

void KeyModel::set(const std::string& path, const std::string& value) {
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
        end = path.find('\\', start);
        keys_.try_emplace(folded(path.substr(0, end)), Key{path.substr(start, end - start), "(no value)"});
    }
    keys_[folded(path)].value = value;
}

void KeyModel::erase(const std::string& path) {
    std::erase_if(keys_, [way = folded(path) + "\\"](const auto& key) {
        return (key.first + "\\").rfind(way, 0) == 0;
    });
}

std::string KeyModel::at(const std::string& path) const {
    const auto found = keys_.find(folded(path));
    return found != keys_.end() ? found->second.value : "(no key)";
}

std::vector<std::string> KeyModel::below(const std::string& path) const {
    const std::string way = path.empty() ? "" : folded(path) + "\\";
    std::vector<std::string> names;
    for (const auto& [whole, key] : keys_)
        if (whole.rfind(way, 0) == 0 && whole.find('\\', way.size()) == std::string::npos)
            names.push_back(key.name);
    return names;
}

std::string KeyModel::dump(const std::string& above) const {
    std::string text;
    for (const std::string& name : below(above)) {
        const std::string path = (above.empty() ? "" : above + "\\") + name;
        text += name + "=" + at(path) + "{" + dump(path) + "}";
    }
    return text;
}

void KeyModel::cover(const KeyModel& other) {
    for (const auto& [path, key] : other.keys_)
        if (key.value != "(no value)" || keys_.count(path) == 0)
            keys_[path] = key;
}
