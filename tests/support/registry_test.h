// A registry of its own for each test, a model of it, and other processes that use it.
#ifndef KAL_TESTS_SUPPORT_REGISTRY_TEST_H
#define KAL_TESTS_SUPPORT_REGISTRY_TEST_H

#include "platform/registry.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"

#include <map>
#include <string>
#include <strings.h>

class RegistryTest : public FolderTest {
protected:
    RegistryTest();
    ~RegistryTest() override;

    std::string persistentTree() const { return path("registry"); }
    std::string volatileTree() const; // empty before there is one
    void emptyVolatileTree() const;   // as a start of the machine does
};

// Shorter forms of the registry's calls.
HKEY makeTestKey(const std::string& name, uint32_t option = REG_OPTION_NON_VOLATILE);
int32_t setText(const std::string& key, const std::string& text, uint32_t option = REG_OPTION_NON_VOLATILE);
// The default value up to its zero; "(no key)" or "(no value)" where there is none.
std::string textOf(const std::string& key, HKEY above = HKEY_CLASSES_ROOT);
// All keys below one in their order, each "name=value{keys below it}".
std::string dumpRegistry(HKEY key = HKEY_CLASSES_ROOT);

// What the registry should hold, written down in the plainest way: each key by its path, with its value.
class KeyModel {
public:
    void set(const std::string& path, const std::string& value); // makes the way to it, too
    void erase(const std::string& path);                         // with all that is below it
    std::string at(const std::string& path) const;               // as textOf()
    std::vector<std::string> below(const std::string& path) const;
    std::string dump(const std::string& way = "") const; // as dumpRegistry()
    // Adds keys, and values where these have one.
    void cover(const KeyModel& other);

private:
    struct Before {
        bool operator()(const std::string& a, const std::string& b) const {
            return strcasecmp(a.c_str(), b.c_str()) < 0;
        }
    };
    std::map<std::string, std::string, Before> keys_;
};

#endif
