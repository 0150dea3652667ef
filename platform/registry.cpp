// The calls: handles and paths to keys, errors of the host to codes of the registry. What is behind them lies in
// registry/: the records of a log, the log, the tree of keys in memory, where the logs are.
#include "platform/registry.h"

#include "platform/registry/log.h"
#include "platform/registry/place.h"

#include <kal/heap.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <new>
#include <pthread.h>

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

constexpr struct {
    int32_t code;
    int errors[5];
} kCodes[] = {{ERROR_FILE_NOT_FOUND, {ENOENT}},
              {ERROR_ACCESS_DENIED, {EACCES, EPERM, EROFS, ELOOP, ENOTEMPTY}},
              {ERROR_INVALID_HANDLE, {EBADF}},
              {ERROR_NOT_ENOUGH_MEMORY, {ENOMEM}},
              {ERROR_DISK_FULL, {ENOSPC, EDQUOT, EFBIG}},
              {ERROR_BAD_PATHNAME, {EINVAL}},
              {ERROR_FILENAME_EXCED_RANGE, {ENAMETOOLONG}}};

int32_t codeOf(int hostError) {
    if (hostError == 0)
        return ERROR_SUCCESS;
    for (const auto& [code, errors] : kCodes)
        if (std::find(std::begin(errors), std::end(errors), hostError) != std::end(errors))
            return code;
    return ERROR_REGISTRY_IO_FAILED;
}

// A child of a fork has the tree as it stood between two calls, and takes locks of its own.
void watchForks() {
    static const int watched = pthread_atfork([] { registryLock.lock(); }, [] { registryLock.unlock(); },
                                              [] {
                                                  RegistryLog::forks++;
                                                  registryLock.unlock();
                                              });
    static_cast<void>(watched);
}

// The log that takes what is written to a key, which may be null.
LogIndex logOf(const KeyNode* key, LogIndex home) {
    return key == nullptr ? home : key->in[kPersistent] ? kPersistent : kVolatile;
}

// The persistent log and the volatile one, and the tree of keys that both make. Calls give 0 or an error of the host.
struct Registry {
    RegistryPlace place;
    KeyTree keys;
    char volatileFolder[PATH_MAX] = {};
    RegistryLog logs[kLogs] = {{keys, kPersistent, place.persistent}, {keys, kVolatile, volatileFolder}};

    explicit Registry(const RegistryPlace& named) : place(named) {
        watchForks();
        look();
    }

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

    // ENOENT for a key that is not found, or why it may be there nevertheless.
    int missing() const {
        const int error = logs[kPersistent].readable();
        return error != 0 ? error : ENOENT;
    }

    // Adds the last of the records, which makes a key or a value; a key that is there already is left alone. `home` takes
    // a key that is not there; `*isNew`, unless null, tells whether it was not. The other records go along in one step.
    int write(std::initializer_list<RegistryRecord> records, LogIndex home, bool* isNew = nullptr) {
        const RegistryRecord& record = records.end()[-1];
        for (;;) {
            const KeyNode* key = keys.find(record.path);
            const LogIndex index = logOf(key, home);
            const uint64_t changes = RegistryLog::changes;
            int error = logs[index].lock();
            if (error == 0)
                error = refresh();
            if (RegistryLog::changes != changes)
                key = keys.find(record.path);
            const bool isMoved = logOf(key, home) != index; // another process made the key persistent
            const bool isNeeded = key == nullptr || record.kind == RecordKind::value;
            if (isNew != nullptr)
                *isNew = key == nullptr;
            if (error == 0 && !isMoved && (isNeeded || records.size() > 1))
                error = logs[index].append({records.begin(), records.size() - !isNeeded});
            logs[index].unlock();
            if (error != 0 || !isMoved)
                return error;
        }
    }

    // With all below it. ENOTEMPTY when it has subkeys that must not go too.
    int remove(std::string_view path, bool withSubkeys) {
        const KeyNode* key = keys.find(path);
        if (key == nullptr)
            return missing();
        RegistryLog* const persistent = key->in[kPersistent] ? &logs[kPersistent] : nullptr;
        RegistryLog* const passing = key->in[kVolatile] ? &logs[kVolatile] : nullptr;
        int error = persistent != nullptr ? persistent->lock() : 0; // everybody takes the locks in this order
        if (error == 0 && passing != nullptr)
            error = passing->lock();
        if (error == 0)
            error = refresh();
        key = keys.find(path);
        if (error == 0 && !withSubkeys && key != nullptr && !key->below.empty())
            error = ENOTEMPTY;
        const RegistryRecord deleted[] = {{RecordKind::deleted, path}};
        for (RegistryLog* const log : {passing, persistent}) // with the persistent one the key is gone
            if (log != nullptr) {
                error = error != 0 ? error : log->append(deleted);
                log->unlock();
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
        const RegistryPlace place;
        if (registry != nullptr && !(registry->place == place))
            forget();
        if (registry == nullptr)
            registry = new (room) Registry(place);
        else if (looks)
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
    char text[kMostPathBytes + 1];

    // A call that changes the log finds out under its lock whether the file is gone, and need not look.
    explicit Call(HKEY key, bool looks = true) : open(key != HKEY_CLASSES_ROOT ? openKeyOf(key) : nullptr) {
        error = open != nullptr || key == HKEY_CLASSES_ROOT ? refresh(open == nullptr, looks) : EBADF;
        if (open != nullptr)
            length = open->path().copy(text, sizeof text);
    }

    std::string_view path() const { return {text, length}; }
    const KeyNode* key() const { return error == 0 ? registry->keys.find(path()) : nullptr; }
    // The same for a key that must be there: else there is an error.
    const KeyNode* found() {
        const KeyNode* key = this->key();
        if (key == nullptr && error == 0)
            error = registry->missing();
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
        const std::string_view below = {subKey, strnlen(subKey, sizeof text + 1)};
        if (error == 0 && length + 1 + below.size() > sizeof text + 1)
            error = ENAMETOOLONG;
        if (error != 0)
            return;
        if (length != 0)
            text[length++] = '\\';
        length += below.copy(text + length, below.size());
        length -= below.size() > 1 && below.back() == '\\';
        error = below.empty() ? EINVAL : checkPath(path());
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

int32_t removeKey(HKEY key, const char* subKey, bool withSubkeys) {
    if (subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    Call call(key, false);
    call.descend(subKey);
    return codeOf(call.error != 0 ? call.error : registry->remove(call.path(), withSubkeys));
}

} // namespace

int32_t RegCreateKeyExA(HKEY key, const char* subKey, uint32_t, const char*, uint32_t options, uint32_t,
                        const void*, HKEY* result, uint32_t* disposition) {
    if (result == nullptr || subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    Call call(key, disposition == nullptr);
    call.descend(subKey);
    const LogIndex home = (options & REG_OPTION_VOLATILE) != 0 ? kVolatile : kPersistent;
    bool isNew = call.error == 0 && call.key() == nullptr;
    const bool pending = isNew && disposition == nullptr;
    if (isNew)
        call.error = pending ? registry->logs[home].writable()
                             : registry->write({{RecordKind::key, call.path()}}, home, &isNew);
    if (disposition != nullptr && call.error == 0)
        *disposition = isNew ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return call.openHandle(home, pending, result);
}

int32_t registryDraw(HKEY counter, const char* text, const char* subKey, HKEY* result, bool* isNew) {
    *result = nullptr;
    Call call(HKEY_CLASSES_ROOT, false);
    call.descend(subKey);
    OpenKey* const open = openKeyOf(counter);
    if (call.error != 0 || open == nullptr)
        return codeOf(call.error != 0 ? call.error : EBADF);
    open->pending = false;
    const RegistryRecord key = {RecordKind::key, call.path()};
    const RegistryRecord value = {RecordKind::value, open->path(), {}, REG_SZ, {text, std::strlen(text) + 1}};
    if (call.key() == nullptr && logOf(registry->keys.find(open->path()), open->home) == kVolatile) {
        call.error = registry->write({value, key}, kVolatile, isNew);
    } else {
        registry->write({value}, open->home); // may fail: another number is drawn then where it must be
        call.error = registry->write({key}, kVolatile, isNew);
    }
    return call.openHandle(kVolatile, false, result);
}

int32_t RegOpenKeyExA(HKEY key, const char* subKey, uint32_t, uint32_t, HKEY* result) {
    if (result == nullptr || subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    Call call(key);
    call.descend(subKey);
    return call.openHandle(logOf(call.found(), kVolatile), false, result);
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
    if (call.error == 0 && call.open == nullptr)
        call.error = ENOENT; // the top has no values
    if (call.error != 0)
        return codeOf(call.error);
    call.open->pending = false; // a key whose first value fails does not appear without it
    const std::string_view bytes = {reinterpret_cast<const char*>(data), size};
    return codeOf(registry->write({{RecordKind::value, call.path(), value, type, bytes}}, call.open->home));
}

int32_t RegEnumKeyA(HKEY key, uint32_t index, char* name, uint32_t nameSize) {
    Call call(key);
    if (call.error != 0)
        return codeOf(call.error);
    const KeyNode* above = call.key();
    if (above == nullptr || index >= above->below.size())
        return ERROR_NO_MORE_ITEMS;
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
