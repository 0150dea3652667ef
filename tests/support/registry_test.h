// A registry of its own for each test, and other processes that use it.
#ifndef KAL_TESTS_SUPPORT_REGISTRY_TEST_H
#define KAL_TESTS_SUPPORT_REGISTRY_TEST_H

#include "platform/registry.h"
#include "tests/support/files.h"

#include <functional>
#include <string>
#include <sys/types.h>

class RegistryTest : public FolderTest {
protected:
    RegistryTest();
    ~RegistryTest() override;

    std::string persistentTree() const { return path("registry"); }
    std::string volatileTree() const; // empty before there is one
    void emptyVolatileTree() const;   // as a start of the machine does
};

// Runs `work` in a forked process, which ends with its result as exit status.
pid_t startProcess(const std::function<int()>& work);
// The exit status, or -1 when a signal ended the process.
int endOf(pid_t process);
inline int inProcess(const std::function<int()>& work) {
    return endOf(startProcess(work));
}

// Shorter forms of the registry's calls.
HKEY makeTestKey(const std::string& name, uint32_t option = REG_OPTION_NON_VOLATILE,
                 HKEY above = HKEY_CLASSES_ROOT);
int32_t setText(const std::string& key, const std::string& text, uint32_t option = REG_OPTION_NON_VOLATILE);
// The default value up to its zero; "(no key)" or "(no value)" where there is none.
std::string textOf(const std::string& key, HKEY above = HKEY_CLASSES_ROOT);
std::vector<std::string> subkeysOf(HKEY key);
std::vector<std::string> subkeysOf(const std::string& key);
// All keys below one, with their values.
std::string dumpRegistry(HKEY key = HKEY_CLASSES_ROOT);

#endif
