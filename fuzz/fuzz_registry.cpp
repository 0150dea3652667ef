// Any bytes as the records of a registry's log, whose check sums are made to hold: read, changed and read again, and as
// settings. A change changes what it says and no more.
#include "fuzz/memory_host.h"

#include "platform/registry/record.h"
#include "tests/support/registry_test.h"

#include <kal/tagset.h>

namespace {

// Makes the header of the log that number 1 would have, and the check sums of its records hold.
void repair(Bytes& log) {
    const uint32_t header[] = {kMagic, kVersion, 1, static_cast<uint32_t>(log.size())};
    std::memcpy(log.data(), header, sizeof header);
    for (size_t at = kHeaderBytes, length;; at += length) {
        length = static_cast<size_t>(numberAt(log, at, 4));
        if (length < kRecordHead || length > log.size() - at)
            return;
        const uint32_t check = checkOf(1, {reinterpret_cast<const char*>(&log[at]), length});
        std::memcpy(&log[at + 4], &check, sizeof check);
    }
}

std::string readAnew() {
    forgetRegistry();
    return dumpRegistry();
}

void useSettings() {
    TagSet set, upper;
    char value[40];
    set.SetPath("a", 1);
    upper.SetPath("A\\a", 0);
    upper.SetParent(&set);
    for (const char* tag : {"a", "bx", "Parent", "Settings\\a"}) {
        upper.GetTag(tag, value, sizeof value);
        upper.GetTempTag(tag);
        set.GetFloatTag(tag);
    }
    TagSearch search(&upper, "");
    for (unsigned tags = 0; search.NextTag() != nullptr && tags < 100;)
        tags++;
    upper.FuseWithParent();
    set.ClearTags();
    TagSet* parent = set.GetParent();
    set.SetParent(nullptr);
    delete parent;
}

} // namespace

Layout layoutOf(const Bytes&) {
    return {{}, 0, {{0, 4}, {8, 1}, {10, 2}, {12, 2}}, kRecordHead, {0, 4}};
}

void fuzz(Input input) {
    GTEST_FLAG_SET(throw_on_failure, true);
    static const int places = setenv("KAL_REGISTRY", "/registry", 1) + setenv("XDG_RUNTIME_DIR", "/run", 1);
    require(places == 0, "the environment can be set");
    const Bytes records = input.rest();
    Bytes& log = memoryHost::file("/registry/log");
    log.resize(kHeaderBytes);
    log.insert(log.end(), records.begin(), records.end());
    if (records.size() % 16 != 0) // else as it is
        repair(log);

    const std::string before = readAnew(), value(100, 'x');
    std::string name = "fuzz";
    while (textOf(name) != "(no key)") // there already, however it is spelt
        name += 'z';
    if (setText(name, value) == ERROR_SUCCESS) {
        std::string with = readAnew();
        const std::string added = name + "=" + value + "{}";
        const size_t at = with.find(added);
        require(at != std::string::npos && with.erase(at, added.size()) == before,
                "a set value is all that changes");
        require(RegDeleteTreeA(HKEY_CLASSES_ROOT, name.c_str()) == ERROR_SUCCESS, "a key can be deleted");
        require(readAnew() == before, "a deleted key is all that changes");
        useSettings();
    } else {
        require(textOf(name) == "(no key)", "a key that can be made takes a value");
    }
    forgetRegistry();
}
