// The calls: where the registry is, handles and paths to keys, errors of the host to codes of the registry. What is
// behind them lies in registry/: the records of a log, the log, the tree of keys in memory.
#include "platform/registry.h"

#include "platform/host_calls.h"
#include "platform/registry/log.h"

#include <kal/heap.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <pthread.h>
#include <utility>

namespace {

std::mutex registryLock;

// What a handle points to; the path stands behind it.
struct OpenKey {
    const OpenKey* itself; // tells it from other blocks of the heap
    size_t pathLength;
    LogIndex home; // takes the key should it be missing
    bool pending;  // made, and to go to its log with its first value

    std::string_view path() const { return {reinterpret_cast<const char*>(this + 1), pathLength}; }
};

// Null for anything but a live handle.
OpenKey* openKeyOf(HKEY handle) {
    auto* open = static_cast<OpenKey*>(handle);
    return KalSizeSMem(handle) >= sizeof(OpenKey) && open->itself == open ? open : nullptr;
}

constexpr std::pair<int32_t, std::array<int, 5>> kCodes[] = {
    {ERROR_SUCCESS, {0}},
    {ERROR_FILE_NOT_FOUND, {ENOENT}},
    {ERROR_ACCESS_DENIED, {EACCES, EPERM, EROFS, ELOOP, ENOTEMPTY}},
    {ERROR_INVALID_HANDLE, {EBADF}},
    {ERROR_NOT_ENOUGH_MEMORY, {ENOMEM}},
    {ERROR_DISK_FULL, {ENOSPC, EDQUOT, EFBIG}},
    {ERROR_BAD_PATHNAME, {EINVAL}},
    {ERROR_FILENAME_EXCED_RANGE, {ENAMETOOLONG}}};

int32_t codeOf(int hostError) {
    for (const auto& [code, errors] : kCodes)
        if (std::find(errors.begin(), errors.end(), hostError) != errors.end())
            return code;
    return ERROR_REGISTRY_IO_FAILED;
}

// A child of a fork has the tree as it stood between two calls, and takes locks of its own.
void watchForks() {
    [[maybe_unused]] static const int watched =
        pthread_atfork([] { registryLock.lock(); }, [] { registryLock.unlock(); },
                       [] {
                           RegistryLog::forks++;
                           registryLock.unlock();
                       });
}

// The log that takes what is written to a key, which may be null.
LogIndex logOf(const KeyNode* key, LogIndex home) {
    return key == nullptr ? home : key->in[kPersistent] ? kPersistent : kVolatile;
}

// Whether the variable says something: with what lies below it; empty when that does not fit.
template <size_t room>
bool findPlace(char (&path)[room], const char* variable, const char* below) {
    const char* above = std::getenv(variable);
    const bool says = above != nullptr && *above != 0;
    path[0] = 0;
    if (says && std::strlen(above) + std::strlen(below) < room)
        std::strcat(std::strcpy(path, above), below);
    return says;
}

// Where the environment says that the registry is.
struct Place {
    char persistent[PATH_MAX];   // empty when it does not say
    char runtime[PATH_MAX - 64]; // what a start of the machine empties; with room for a folder in it

    Place() {
        if (!findPlace(persistent, "KAL_REGISTRY", "") &&
            !findPlace(persistent, "XDG_DATA_HOME", "/kal/registry"))
            findPlace(persistent, "HOME", "/.local/share/kal/registry");
        if (!findPlace(runtime, "XDG_RUNTIME_DIR", "") || runtime[0] == 0)
            std::strcpy(runtime, "/dev/shm");
    }
    bool operator==(const Place& other) const {
        return std::strcmp(persistent, other.persistent) == 0 && std::strcmp(runtime, other.runtime) == 0;
    }
    // Of the volatile log: its name holds the user's number and a mark of the persistent folder, which is there already
    // if it can be.
    void findVolatile(char (&folder)[PATH_MAX]) const {
        char whole[PATH_MAX];
        const char* text = hostCalls.realpath(persistent, whole);
        uint64_t mark = 14695981039346656037u; // FNV-1a
        for (const char* c = text != nullptr ? text : persistent; *c != 0; c++)
            mark = (mark ^ static_cast<unsigned char>(*c)) * 1099511628211u;
        std::snprintf(folder, sizeof folder, "%s/kal-registry-%u-%016" PRIx64, runtime,
                      static_cast<unsigned>(hostCalls.geteuid()), mark);
    }
};

// The persistent log and the volatile one, and the tree of keys that both make. Calls give 0 or an error of the host.
struct Registry {
    const Place place;
    KeyTree keys = {};
    char volatileFolder[PATH_MAX] = {};
    RegistryLog logs[kLogs] = {{keys, kPersistent, place.persistent}, {keys, kVolatile, volatileFolder}};

    // Opens the files where they could not be had yet, or are gone from their folders.
    void look() {
        logs[kPersistent].look(); // first: the other one's name holds the real path of its folder
        if (volatileFolder[0] == 0)
            place.findVolatile(volatileFolder);
        logs[kVolatile].look();
    }

    int refresh() {
        const int error = logs[kPersistent].refresh();
        return error != 0 ? error : logs[kVolatile].refresh();
    }

    // Adds the records, the last of which makes a key or a value, in one step. `home` takes its key where that is not
    // there; `*isNew`, unless null, tells whether it was not.
    int write(std::initializer_list<RegistryRecord> records, LogIndex home, bool* isNew = nullptr) {
        const std::string_view path = records.end()[-1].path;
        for (const KeyNode* key = keys.find(path);;) {
            RegistryLog& log = logs[logOf(key, home)];
            const uint64_t changes = RegistryLog::changes;
            int error = log.lock();
            if (error == 0)
                error = refresh();
            key = RegistryLog::changes == changes ? key : keys.find(path);
            const bool isMoved = &log != &logs[logOf(key, home)]; // another process made the key persistent
            if (isNew != nullptr)
                *isNew = key == nullptr;
            if (error == 0 && !isMoved)
                error = log.append(records);
            log.unlock();
            if (error != 0 || !isMoved)
                return error;
        }
    }

    // Deletes a key with all below it. ENOTEMPTY when it has subkeys that must not go too.
    int remove(const KeyNode* key, std::string_view path, bool withSubkeys) {
        const bool isIn[kLogs] = {key->in[kPersistent], key->in[kVolatile]};
        int error = 0;
        for (int i = 0; i < kLogs && error == 0; i++) // everybody takes the locks in this order
            error = isIn[i] ? logs[i].lock() : 0;
        if (error == 0)
            error = refresh();
        key = keys.find(path);
        if (error == 0 && !withSubkeys && key != nullptr && !key->below.empty())
            error = ENOTEMPTY;
        for (int i = kLogs; i-- > 0;) // with the persistent one the key is gone
            if (isIn[i]) {
                error = error != 0 ? error : logs[i].append({{RecordKind::deleted, path}});
                logs[i].unlock();
            }
        return error;
    }
};

Registry* registry; // where the environment said that it is

void forget() {
    if (registry != nullptr)
        registry->~Registry();
    registry = nullptr;
}

// Has a registry at hand: for calls from the top the one that the environment names now. 0 or an error.
int refresh(bool isTop, bool looks) {
    alignas(Registry) static char room[sizeof(Registry)];
    if (registry == nullptr || isTop) {
        const Place place;
        if (registry == nullptr || !(registry->place == place)) {
            forget();
            watchForks();
            registry = new (room) Registry{place};
            looks = true;
        }
        if (looks)
            registry->look();
    }
    return registry->refresh();
}

// A call at work: the key that it is about, as the logs have it now.
struct Call {
    const std::lock_guard<std::mutex> guard{registryLock};
    OpenKey* const open;
    int error;
    size_t length = 0; // of the path
    char text[2 * kMostPathBytes + 4];

    // A call that changes the log finds out under its lock whether the file is gone, and need not look.
    explicit Call(HKEY key, bool looks = true) : open(key != HKEY_CLASSES_ROOT ? openKeyOf(key) : nullptr) {
        error = open != nullptr || key == HKEY_CLASSES_ROOT ? refresh(open == nullptr, looks) : EBADF;
        if (open != nullptr)
            length = open->path().copy(text, sizeof text);
    }

    std::string_view path() const { return {text, length}; }
    const KeyNode* key() const { return error == 0 ? registry->keys.find(path()) : nullptr; }
    // The same for a key that must be there: else there is an error, which may be why it is not known.
    const KeyNode* found() {
        const KeyNode* key = this->key();
        if (key == nullptr && error == 0)
            error = registry->logs[kPersistent].readable();
        if (key == nullptr && error == 0)
            error = ENOENT;
        return key;
    }

    // A key that waits for its first value waits no longer.
    void settle() {
        if (error == 0 && open != nullptr && open->pending) {
            error = registry->write({{RecordKind::key, path()}}, open->home);
            open->pending = error != 0;
        }
    }

    // Goes on to a key below.
    void descend(const char* subKey) {
        settle();
        const std::string_view below = {subKey, strnlen(subKey, kMostPathBytes + 2)};
        if (length != 0)
            text[length++] = '\\';
        length += below.copy(text + length, below.size());
        length -= below.size() > 1 && below.back() == '\\';
        if (error == 0)
            error = checkPath(path());
    }

    int32_t openHandle(LogIndex home, bool pending, HKEY* result) {
        if (error != 0)
            return codeOf(error);
        void* block = KalAllocSMem(static_cast<uint32_t>(sizeof(OpenKey) + length));
        if (block == nullptr)
            return ERROR_NOT_ENOUGH_MEMORY;
        auto* opened = new (block) OpenKey{static_cast<OpenKey*>(block), length, home, pending};
        path().copy(reinterpret_cast<char*>(opened + 1), length);
        *result = opened;
        return ERROR_SUCCESS;
    }
};

std::string_view valueName(const char* name) {
    return name != nullptr ? std::string_view(name, strnlen(name, kMostNameBytes + 1)) : std::string_view();
}

int32_t openKey(HKEY above, const char* subKey, bool makes, LogIndex home, HKEY* result) {
    if (result == nullptr || subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    Call call(above);
    call.descend(subKey);
    const KeyNode* key = makes ? call.key() : call.found();
    const bool pending = call.error == 0 && key == nullptr;
    if (pending)
        call.error = registry->logs[home].writable();
    return call.openHandle(makes ? home : logOf(key, home), pending, result);
}

int32_t removeKey(HKEY key, const char* subKey, bool withSubkeys) {
    if (subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    Call call(key, false);
    call.descend(subKey);
    if (const KeyNode* found = call.found())
        call.error = registry->remove(found, call.path(), withSubkeys);
    return codeOf(call.error);
}

} // namespace

int32_t RegCreateKeyExA(HKEY key, const char* subKey, uint32_t, const char*, uint32_t options, uint32_t,
                        const void*, HKEY* result, uint32_t*) {
    return openKey(key, subKey, true, (options & REG_OPTION_VOLATILE) != 0 ? kVolatile : kPersistent, result);
}

int32_t registryDraw(HKEY counter, const char* text, const char* subKey, HKEY* result, bool* isNew) {
    *result = nullptr;
    Call call(counter);
    if (call.open == nullptr)
        return ERROR_INVALID_HANDLE;
    call.open->pending = false;
    call.length = 0;
    call.descend(subKey);
    const RegistryRecord key = {RecordKind::key, call.path()};
    const RegistryRecord value = {
        RecordKind::value, call.open->path(), {}, REG_SZ, {text, std::strlen(text) + 1}};
    const bool isNeeded = call.error == 0 && call.key() == nullptr;
    if (isNeeded && logOf(registry->keys.find(call.open->path()), call.open->home) == kVolatile) {
        call.error = registry->write({value, key}, kVolatile, isNew);
    } else if (call.error == 0) {
        registry->write({value}, call.open->home); // may fail: another number is drawn then where it must be
        call.error = registry->write({key}, kVolatile, isNew);
    }
    return call.openHandle(kVolatile, false, result);
}

int32_t RegOpenKeyExA(HKEY key, const char* subKey, uint32_t, uint32_t, HKEY* result) {
    return openKey(key, subKey, false, kVolatile, result);
}

int32_t RegQueryValueExA(HKEY key, const char* name, uint32_t*, uint32_t* type, uint8_t* data,
                         uint32_t* size) {
    if (data != nullptr && size == nullptr)
        return ERROR_INVALID_PARAMETER;
    Call call(key);
    const KeyNode* found = call.found();
    const KeyValue* value = found != nullptr ? found->value(valueName(name)) : nullptr;
    if (value == nullptr)
        return codeOf(call.error != 0 ? call.error : ENOENT);
    const uint32_t room = size != nullptr ? *size : 0;
    if (type != nullptr)
        *type = value->type;
    if (size != nullptr)
        *size = value->size;
    if (data != nullptr && room < value->size)
        return ERROR_MORE_DATA;
    if (data != nullptr)
        value->bytes().copy(reinterpret_cast<char*>(data), room);
    return ERROR_SUCCESS;
}

int32_t RegSetValueExA(HKEY key, const char* name, uint32_t, uint32_t type, const uint8_t* data,
                       uint32_t size) {
    const std::string_view value = valueName(name);
    if ((data == nullptr && size != 0) || size > kMostValueBytes)
        return ERROR_INVALID_PARAMETER;
    if (value.size() > kMostNameBytes)
        return ERROR_FILENAME_EXCED_RANGE;
    Call call(key);
    if (call.error != 0 || call.open == nullptr) // the top has no values
        return codeOf(call.error != 0 ? call.error : ENOENT);
    call.open->pending = false; // a key whose first value fails does not appear without it
    const std::string_view bytes = {reinterpret_cast<const char*>(data), size};
    return codeOf(registry->write({{RecordKind::value, call.path(), value, type, bytes}}, call.open->home));
}

int32_t RegEnumKeyA(HKEY key, uint32_t index, char* name, uint32_t nameSize) {
    Call call(key);
    const KeyNode* above = call.key();
    if (above == nullptr || index >= above->below.size())
        return call.error != 0 ? codeOf(call.error) : ERROR_NO_MORE_ITEMS;
    const std::string_view found = above->below[index]->name();
    if (found.size() >= nameSize)
        return ERROR_MORE_DATA;
    name[found.copy(name, nameSize)] = 0;
    return ERROR_SUCCESS;
}

int32_t RegDeleteKeyA(HKEY key, const char* subKey) {
    return removeKey(key, subKey, false);
}

int32_t RegDeleteTreeA(HKEY key, const char* subKey) {
    return removeKey(key, subKey, true);
}

int32_t RegCloseKey(HKEY key) {
    if (key == HKEY_CLASSES_ROOT)
        return ERROR_SUCCESS;
    Call call(key);
    call.settle();
    if (call.open == nullptr)
        return ERROR_INVALID_HANDLE;
    call.open->itself = nullptr;
    KalFreeSMem(call.open);
    return codeOf(call.error);
}

uint64_t registryState(HKEY key) {
    const std::lock_guard guard(registryLock);
    const OpenKey* open = openKeyOf(key);
    return open != nullptr && refresh(false, false) == 0 ? RegistryLog::changes : 0;
}

void forgetRegistry() {
    const std::lock_guard guard(registryLock);
    forget();
}
