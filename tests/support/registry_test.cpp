#include "tests/support/registry_test.h"

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

HKEY makeTestKey(const std::string& name, uint32_t option, HKEY above) {
    HKEY key = nullptr;
    EXPECT_EQ(
        RegCreateKeyExA(above, name.c_str(), 0, "string", option, KEY_ALL_ACCESS, nullptr, &key, nullptr), 0)
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

std::vector<std::string> subkeysOf(HKEY key) {
    std::vector<std::string> names;
    char name[260];
    for (uint32_t i = 0; RegEnumKeyA(key, i, name, sizeof name) == 0; i++)
        names.emplace_back(name);
    return names;
}

std::vector<std::string> subkeysOf(const std::string& key) {
    HKEY opened = nullptr;
    RegOpenKeyExA(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_ALL_ACCESS, &opened);
    auto names = subkeysOf(opened);
    RegCloseKey(opened);
    return names;
}

std::string dumpRegistry(HKEY key) {
    std::string text;
    for (const auto& name : subkeysOf(key)) {
        text += name + "=" + textOf(name, key) + "{";
        HKEY below = nullptr;
        if (RegOpenKeyExA(key, name.c_str(), 0, KEY_ALL_ACCESS, &below) == 0)
            text += dumpRegistry(below);
        RegCloseKey(below);
        text += "}";
    }
    return text;
}
