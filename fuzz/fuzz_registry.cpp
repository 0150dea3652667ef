// Any bytes as the records of a registry's log, whose check sums are made to hold: read, changed and read again, and as
// settings. A change changes what it says and no more.
#include "fuzz/memory_host.h"

#include "platform/registry/record.h"

#include <kal/tagset.h>

#include <cstring>
#include <map>

namespace {

constexpr const char* kLog = "/registry/log";
constexpr size_t kHeader = 4096;

using Keys = std::map<std::string, std::string>; // paths, and values by their names behind them

// Makes the header of the log that number 1 would have, and the check sums of its records hold.
void repair(Bytes& log) {
    const uint32_t header[] = {'K' | 'R' << 8 | 'E' << 16 | uint32_t{'G'} << 24, 1, 1,
                               static_cast<uint32_t>(log.size())};
    std::memcpy(log.data(), header, sizeof header);
    for (size_t at = kHeader; at + kRecordHead <= log.size();) {
        uint32_t length, sum = 2166136261u;
        std::memcpy(&length, &log[at], 4);
        if (length < kRecordHead || length > log.size() - at)
            return;
        const auto add = [&sum](uint8_t byte) { sum = (sum ^ byte) * 16777619u; };
        for (int byte : {1, 0, 0, 0}) // the log's number
            add(static_cast<uint8_t>(byte));
        for (size_t k = 0; k < length; k++)
            if (k < 4 || k >= 8)
                add(log[at + k]);
        std::memcpy(&log[at + 4], &sum, 4);
        at += length;
    }
}

void collect(HKEY above, const std::string& path, Keys& keys) {
    char name[kMostNameBytes + 1];
    for (uint32_t i = 0; RegEnumKeyA(above, i, name, sizeof name) == ERROR_SUCCESS; i++) {
        const std::string inner = path + name;
        HKEY key;
        require(RegOpenKeyExA(above, name, 0, KEY_ALL_ACCESS, &key) == ERROR_SUCCESS ||
                    inner.size() > kMostPathBytes,
                "a key that is listed opens");
        if (key == nullptr)
            continue;
        keys[inner];
        uint32_t size = 0;
        if (RegQueryValueExA(key, nullptr, nullptr, nullptr, nullptr, &size) == ERROR_SUCCESS) {
            std::string value(size, 0);
            require(RegQueryValueExA(key, nullptr, nullptr, nullptr, reinterpret_cast<uint8_t*>(value.data()),
                                     &size) == ERROR_SUCCESS,
                    "a value has the size that it says");
            keys[inner] = "=" + value;
        }
        collect(key, inner + "\\", keys);
        RegCloseKey(key);
    }
}
Keys readAnew() {
    forgetRegistry();
    Keys keys;
    collect(HKEY_CLASSES_ROOT, "", keys);
    return keys;
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

std::vector<Field> fieldsOf(const Bytes& input) {
    std::vector<Field> fields;
    for (size_t at = 0; at + kRecordHead <= input.size();) {
        fields.insert(fields.end(), {{at, 4}, {at + 8, 1}, {at + 10, 2}, {at + 12, 2}});
        uint32_t length;
        std::memcpy(&length, &input[at], 4);
        at += length < kRecordHead || length > input.size() ? kRecordHead : length;
    }
    return fields;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int places = setenv("KAL_REGISTRY", "/registry", 1) + setenv("XDG_RUNTIME_DIR", "/run", 1);
    require(places == 0, "the environment can be set");
    forgetRegistry();
    memoryHost::start();
    Bytes log(kHeader);
    for (Input input(data, size); !input.ended();)
        log.push_back(input.byte());
    if (size % 16 != 0) // else as it is
        repair(log);
    memoryHost::setContent(kLog, log);

    Keys keys = readAnew();
    HKEY key;
    std::string name = "fuzz";
    for (; RegOpenKeyExA(HKEY_CLASSES_ROOT, name.c_str(), 0, KEY_ALL_ACCESS, &key) == ERROR_SUCCESS;
         name += 'z')
        RegCloseKey(key); // there already, however it is spelt
    if (RegCreateKeyExA(HKEY_CLASSES_ROOT, name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                        nullptr) == ERROR_SUCCESS) {
        const Bytes value(100, 'x');
        require(RegSetValueExA(key, nullptr, 0, REG_SZ, value.data(), 100) == ERROR_SUCCESS,
                "a value can be set");
        RegCloseKey(key);
        keys[name] = "=" + std::string(100, 'x');
        require(readAnew() == keys, "a set value is all that changes");
        require(RegDeleteTreeA(HKEY_CLASSES_ROOT, name.c_str()) == ERROR_SUCCESS, "a key can be deleted");
        keys.erase(name);
        require(readAnew() == keys, "a deleted key is all that changes");
        useSettings();
    }
    forgetRegistry();
    memoryHost::countBlocks();
    return 0;
}
