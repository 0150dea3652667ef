// The calls: handles and paths to keys, errors of the host to codes of the registry. What is behind them lies in
// registry/: the records of a log, the log, the tree of keys in memory, both logs as one registry.
#include "platform/registry.h"

#include "platform/registry/store.h"

#include <kal/heap.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <pthread.h>

namespace {

std::mutex registryLock;
RegistryStore* current; // where the environment says that the registry is

// What a handle points to; the path stands behind it.
struct OpenKey {
    const OpenKey* itself; // tells it from other blocks of the heap
    RegistryStore* store;
    uint32_t pathLength;
    LogIndex home; // takes the key should it be missing
    bool pending;  // made, and to go to its log with its first value
};

// Null for anything but a live handle.
OpenKey* openKeyOf(HKEY handle) {
    auto* open = static_cast<OpenKey*>(handle);
    return KalSizeSMem(handle) >= sizeof(OpenKey) && open->itself == open ? open : nullptr;
}

constexpr struct {
    int error;
    int32_t code;
} kCodes[] = {{0, ERROR_SUCCESS},
              {ENOENT, ERROR_FILE_NOT_FOUND},
              {EACCES, ERROR_ACCESS_DENIED},
              {EPERM, ERROR_ACCESS_DENIED},
              {EROFS, ERROR_ACCESS_DENIED},
              {ELOOP, ERROR_ACCESS_DENIED},
              {ENOTEMPTY, ERROR_ACCESS_DENIED},
              {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
              {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
              {EBADF, ERROR_INVALID_HANDLE},
              {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
              {ENOSPC, ERROR_DISK_FULL},
              {EDQUOT, ERROR_DISK_FULL},
              {EFBIG, ERROR_DISK_FULL},
              {EINVAL, ERROR_BAD_PATHNAME},
              {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
              {EIO, ERROR_REGISTRY_IO_FAILED},
              {ENOTDIR, ERROR_REGISTRY_IO_FAILED}};

int32_t codeOf(int hostError) {
    for (const auto& [error, code] : kCodes)
        if (error == hostError)
            return code;
    return ERROR_GEN_FAILURE;
}

void dropIfIdle(RegistryStore* store) {
    if (store != current && store->openHandles == 0) {
        store->~RegistryStore();
        KalFreeSMem(store);
    }
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

// The registry that the environment names now; null when memory is short.
RegistryStore* currentStore() {
    const RegistryPlace place;
    if (current != nullptr && current->place() == place) {
        current->look();
        return current;
    }
    watchForks();
    void* block = KalAllocSMem(sizeof(RegistryStore));
    if (block == nullptr)
        return nullptr;
    RegistryStore* before = current;
    current = new (block) RegistryStore(place);
    if (before != nullptr)
        dropIfIdle(before);
    return current;
}

// A call at work: the key that it is about, as the logs have it now.
struct Call {
    const std::lock_guard<std::mutex> guard{registryLock};
    OpenKey* open = nullptr;
    RegistryStore* store = nullptr;
    int error = 0;
    char text[kMostPathBytes + 1];
    RegistryText path = {text, 0};

    explicit Call(HKEY key) {
        open = key == HKEY_CLASSES_ROOT ? nullptr : openKeyOf(key);
        store = open != nullptr ? open->store : key == HKEY_CLASSES_ROOT ? currentStore() : nullptr;
        error = store != nullptr ? store->refresh() : key == HKEY_CLASSES_ROOT ? ENOMEM : EBADF;
        if (open != nullptr) {
            path.length = open->pathLength;
            std::memcpy(text, open + 1, path.length);
        }
    }

    // A key that waits for its first value waits no longer.
    void settle() {
        bool isNew;
        if (error == 0 && open != nullptr && open->pending) {
            error = store->write({RecordKind::key, path}, open->home, &isNew);
            open->pending = error != 0;
        }
    }

    // Goes on to a key below.
    void descend(const char* subKey) {
        settle();
        if (error != 0)
            return;
        const RegistryText below = {subKey, static_cast<uint32_t>(strnlen(subKey, kMostPathBytes + 2))};
        const uint32_t separator = path.length != 0;
        if (path.length + separator + below.length > sizeof text) {
            error = ENAMETOOLONG;
            return;
        }
        text[path.length] = '\\';
        std::memcpy(text + path.length + separator, subKey, below.length);
        path.length += separator + below.length;
        path.length -= below.length > 1 && text[path.length - 1] == '\\';
        error = below.length != 0 ? checkPath(path) : EINVAL;
    }

    const KeyNode* key() const { return error == 0 ? store->keys().find(path) : nullptr; }

    int32_t openHandle(LogIndex home, bool pending, HKEY* result) {
        void* block = KalAllocSMem(static_cast<uint32_t>(sizeof(OpenKey) + path.length));
        if (block == nullptr)
            return ERROR_NOT_ENOUGH_MEMORY;
        auto* opened = new (block) OpenKey{static_cast<OpenKey*>(block), store, path.length, home, pending};
        std::memcpy(opened + 1, text, path.length);
        store->openHandles++;
        *result = opened;
        return ERROR_SUCCESS;
    }
};

RegistryText valueName(const char* name) {
    return {name, name != nullptr ? static_cast<uint32_t>(strnlen(name, kMostNameBytes + 1)) : 0};
}

int32_t removeKey(HKEY key, const char* subKey, bool withSubkeys) {
    if (subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    Call call(key);
    call.descend(subKey);
    return codeOf(call.error != 0 ? call.error : call.store->remove(call.path, withSubkeys));
}

} // namespace

int32_t RegCreateKeyExA(HKEY key, const char* subKey, uint32_t, const char*, uint32_t options, uint32_t,
                        const void*, HKEY* result, uint32_t* disposition) {
    if (result == nullptr || subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    Call call(key);
    call.descend(subKey);
    const LogIndex home = (options & REG_OPTION_VOLATILE) != 0 ? kVolatile : kPersistent;
    bool isNew = call.error == 0 && call.key() == nullptr;
    const bool pending = isNew && disposition == nullptr;
    if (isNew)
        call.error = pending ? call.store->mayCreate(home)
                             : call.store->write({RecordKind::key, call.path}, home, &isNew);
    if (call.error != 0)
        return codeOf(call.error);
    if (disposition != nullptr)
        *disposition = isNew ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return call.openHandle(home, pending, result);
}

int32_t RegOpenKeyExA(HKEY key, const char* subKey, uint32_t, uint32_t, HKEY* result) {
    if (result == nullptr || subKey == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    Call call(key);
    call.descend(subKey);
    const KeyNode* found = call.key();
    if (found == nullptr)
        return codeOf(call.error != 0 ? call.error : call.store->missing());
    return call.openHandle(found->in[kPersistent] ? kPersistent : kVolatile, false, result);
}

int32_t RegQueryValueExA(HKEY key, const char* name, uint32_t*, uint32_t* type, uint8_t* data,
                         uint32_t* size) {
    if (data != nullptr && size == nullptr)
        return ERROR_INVALID_PARAMETER;
    Call call(key);
    call.settle();
    const KeyNode* found = call.key();
    const KeyValue* value = found != nullptr ? found->value(valueName(name)) : nullptr;
    if (value == nullptr)
        return codeOf(call.error != 0 ? call.error : found != nullptr ? ENOENT : call.store->missing());
    const uint32_t room = size != nullptr ? *size : 0;
    if (type != nullptr)
        *type = value->type;
    if (size != nullptr)
        *size = value->size;
    if (data != nullptr && room < value->size)
        return ERROR_MORE_DATA;
    if (data != nullptr)
        std::memcpy(data, value->data(), value->size);
    return ERROR_SUCCESS;
}

int32_t RegSetValueExA(HKEY key, const char* name, uint32_t, uint32_t type, const uint8_t* data,
                       uint32_t size) {
    const RegistryText value = valueName(name);
    if ((data == nullptr && size != 0) || size > kMostValueBytes)
        return ERROR_INVALID_PARAMETER;
    if (value.length > kMostNameBytes)
        return ERROR_FILENAME_EXCED_RANGE;
    Call call(key);
    if (call.error == 0 && call.open == nullptr)
        call.error = ENOENT; // the top has no values
    if (call.error != 0)
        return codeOf(call.error);
    call.open->pending = false; // a key whose first value fails does not appear without it
    return codeOf(
        call.store->write({RecordKind::value, call.path, value, type, data, size}, call.open->home, nullptr));
}

int32_t RegEnumKeyA(HKEY key, uint32_t index, char* name, uint32_t nameSize) {
    Call call(key);
    call.settle();
    if (call.error != 0)
        return codeOf(call.error);
    const KeyNode* above = call.key();
    if (above == nullptr || index >= above->count)
        return ERROR_NO_MORE_ITEMS;
    const RegistryText found = above->below[index]->name();
    if (found.length >= nameSize)
        return ERROR_MORE_DATA;
    std::memcpy(name, found.text, found.length);
    name[found.length] = 0;
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
    call.store->openHandles--;
    dropIfIdle(call.store);
    return codeOf(call.error);
}

uint64_t registryState(HKEY key) {
    const std::lock_guard guard(registryLock);
    const OpenKey* open = openKeyOf(key);
    return open != nullptr && open->store->refresh() == 0 ? RegistryLog::changes : 0;
}

void forgetRegistry() {
    const std::lock_guard guard(registryLock);
    RegistryStore* const idle = current != nullptr && current->openHandles == 0 ? current : nullptr;
    if (idle == nullptr)
        return;
    current = nullptr;
    dropIfIdle(idle);
}
