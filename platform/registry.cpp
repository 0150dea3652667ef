// The calls: handles and paths to keys, codes of the host to codes of the registry. What is behind them lies
// in registry/: names, the file of changes, one tree of folders, the keys that this process has met, the
// union of both trees.
#include "platform/registry.h"

#include "platform/heap_faults.h"
#include "platform/registry/handles.h"
#include "platform/registry/store.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace {

std::mutex registryLock;
HandleTable handles;
RegistryStore* current; // where the environment says that the registry is

int32_t codeOf(int hostError) {
    switch (hostError) {
    case 0:
        return ERROR_SUCCESS;
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case ENOTEMPTY:
    case EEXIST:
        return ERROR_ACCESS_DENIED;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case ENOSPC:
    case EDQUOT:
        return ERROR_DISK_FULL;
    case ENAMETOOLONG:
        return ERROR_FILENAME_EXCED_RANGE;
    case EIO:
    case ENOTDIR:
        return ERROR_REGISTRY_IO_FAILED;
    default:
        return ERROR_GEN_FAILURE;
    }
}

void dropIfIdle(RegistryStore* store) {
    if (store != current && store->openHandles == 0) {
        store->~RegistryStore();
        std::free(store);
    }
}

// The registry that the environment names now; null when memory is short.
RegistryStore* currentStore() {
    const RegistryPlace place = registryPlace();
    if (current != nullptr && current->place() == place) {
        current->look();
        return current;
    }
    void* block = heapFaultDue() ? nullptr : std::malloc(sizeof(RegistryStore));
    if (block == nullptr)
        return nullptr;
    RegistryStore* before = current;
    current = new (block) RegistryStore(place);
    if (before != nullptr)
        dropIfIdle(before);
    return current;
}

// A key that a call is about.
struct Subject {
    RegistryStore* store = nullptr;
    KeyNode* node = nullptr;
};

int32_t subjectOf(HKEY key, Subject& subject) {
    if (key == HKEY_CLASSES_ROOT) {
        subject.store = currentStore();
        subject.node = subject.store != nullptr ? subject.store->keys().top() : nullptr;
        return subject.node != nullptr ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
    }
    const OpenKey* open = handles.find(key);
    if (open == nullptr)
        return ERROR_INVALID_HANDLE;
    subject.store = open->store;
    subject.node = open->node;
    subject.store->lookNowAndThen();
    return codeOf(subject.store->settle(*subject.node));
}

// Called for each component on a path, with the node found for it.
using OnComponent = int (*)(KeyNode& node, const char* spelling, size_t length);

int32_t walk(const char* path, Subject& subject, OnComponent onComponent) {
    if (path == nullptr || *path == 0)
        return path == nullptr ? ERROR_INVALID_PARAMETER : ERROR_BAD_PATHNAME;
    subject.store->keys().trim();
    while (*path != 0) {
        const FoldedName name(path);
        if (name.length == 0)
            return ERROR_BAD_PATHNAME;
        int error = 0;
        subject.node = subject.store->keys().child(subject.node, name, &error);
        if (subject.node != nullptr && onComponent != nullptr)
            error = onComponent(*subject.node, path, name.length);
        if (error != 0)
            return codeOf(error);
        path += name.length;
        path += *path == '\\';
    }
    return ERROR_SUCCESS;
}

int32_t resolve(HKEY key, const char* path, Subject& subject, OnComponent onComponent = nullptr) {
    const int32_t code = subjectOf(key, subject);
    return code == ERROR_SUCCESS ? walk(path, subject, onComponent) : code;
}

// Keeps the spelling of a key that may be about to be made.
int noteSpelling(KeyNode& node, const char* spelling, size_t length) {
    if (node.pending || (node.known && node.exists))
        return 0;
    FileName text;
    std::memcpy(text.text, spelling, length);
    text.text[length] = 0;
    const bool asFolded = std::memcmp(text.text, node.name(), length) == 0;
    if (asFolded && node.spelling == nullptr)
        return 0;
    return replaceText(node.spelling, asFolded ? nullptr : text.text) ? 0 : ENOMEM;
}

int32_t openHandle(const Subject& subject, HKEY* result) {
    *result = handles.open(subject.store, subject.node);
    if (*result == nullptr)
        return ERROR_NOT_ENOUGH_MEMORY;
    subject.store->openHandles++;
    subject.node->users++;
    subject.node->handles++;
    return ERROR_SUCCESS;
}

int32_t copyValue(const RegistryValue& value, uint32_t* type, uint8_t* data, uint32_t* size) {
    if (!value.present())
        return ERROR_FILE_NOT_FOUND;
    if (type != nullptr)
        *type = value.type;
    if (size == nullptr)
        return ERROR_SUCCESS;
    const uint32_t room = *size;
    *size = value.size;
    if (data == nullptr)
        return ERROR_SUCCESS;
    if (room < value.size)
        return ERROR_MORE_DATA;
    std::memcpy(data, value.data(), value.size);
    return ERROR_SUCCESS;
}

int32_t copyText(const char* text, char* destination, uint32_t room) {
    const size_t length = std::strlen(text);
    if (length >= room)
        return ERROR_MORE_DATA;
    std::memcpy(destination, text, length + 1);
    return ERROR_SUCCESS;
}

} // namespace

int32_t RegCreateKeyExA(HKEY key, const char* subKey, uint32_t, const char* className, uint32_t options,
                        uint32_t, const void*, HKEY* result, uint32_t* disposition) {
    if (result == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    const std::lock_guard guard(registryLock);
    Subject subject;
    const int32_t code = resolve(key, subKey, subject, noteSpelling);
    if (code != ERROR_SUCCESS)
        return code;
    const TreeIndex home = (options & REG_OPTION_VOLATILE) != 0 ? kVolatile : kPersistent;
    bool isNew = false;
    const int error = subject.store->create(*subject.node, home, className, disposition != nullptr, &isNew);
    if (error != 0)
        return codeOf(error);
    if (disposition != nullptr)
        *disposition = isNew ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return openHandle(subject, result);
}

int32_t RegOpenKeyExA(HKEY key, const char* subKey, uint32_t, uint32_t, HKEY* result) {
    if (result == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    const std::lock_guard guard(registryLock);
    Subject subject;
    const int32_t code = resolve(key, subKey, subject);
    if (code != ERROR_SUCCESS)
        return code;
    int error = subject.store->settle(*subject.node);
    if (error == 0)
        error = subject.store->refresh(*subject.node);
    if (error != 0)
        return codeOf(error);
    return subject.node->exists ? openHandle(subject, result) : ERROR_FILE_NOT_FOUND;
}

int32_t RegQueryValueExA(HKEY key, const char* name, uint32_t*, uint32_t* type, uint8_t* data,
                         uint32_t* size) {
    if (data != nullptr && size == nullptr)
        return ERROR_INVALID_PARAMETER;
    const std::lock_guard guard(registryLock);
    Subject subject;
    const int32_t code = subjectOf(key, subject);
    if (code != ERROR_SUCCESS)
        return code;
    if (name != nullptr && *name != 0) {
        RegistryValue value;
        const int error = subject.store->readNamedValue(*subject.node, name, value);
        return error == 0 ? copyValue(value, type, data, size) : codeOf(error);
    }
    const int error = subject.store->refresh(*subject.node);
    return error == 0 ? copyValue(subject.node->value, type, data, size) : codeOf(error);
}

int32_t RegSetValueExA(HKEY key, const char* name, uint32_t, uint32_t type, const uint8_t* data,
                       uint32_t size) {
    if ((data == nullptr && size != 0) || size > kMostValueBytes)
        return ERROR_INVALID_PARAMETER;
    const std::lock_guard guard(registryLock);
    Subject subject;
    const OpenKey* open = handles.find(key); // not settled: a key that waits for its first value gets it now
    if (open != nullptr) {
        subject.store = open->store;
        subject.node = open->node;
    } else if (const int32_t code = subjectOf(key, subject); code != ERROR_SUCCESS) {
        return code;
    }
    return codeOf(subject.store->setValue(*subject.node, name, type, data, size));
}

int32_t RegEnumKeyA(HKEY key, uint32_t index, char* name, uint32_t nameSize) {
    const std::lock_guard guard(registryLock);
    Subject subject;
    const int32_t code = subjectOf(key, subject);
    if (code != ERROR_SUCCESS)
        return code;
    if (const int error = subject.store->refreshSubkeys(*subject.node))
        return codeOf(error);
    SubkeyList& list = subject.node->subkeys;
    if (index >= list.count())
        return ERROR_NO_MORE_ITEMS;
    if (list.spelling(index) == nullptr) {
        int error = 0;
        KeyNode* child = subject.store->keys().child(subject.node, FoldedName(list.name(index)), &error);
        FileName spelling;
        if (child != nullptr)
            error = subject.store->readNote(*child, kSpellingNote, spelling);
        const bool spelled = error == 0 && isSpellingOf(spelling.text, list.name(index));
        if (!list.setSpelling(index, spelled ? spelling.text : list.name(index)))
            return ERROR_NOT_ENOUGH_MEMORY;
    }
    return copyText(list.spelling(index), name, nameSize);
}

int32_t RegDeleteKeyA(HKEY key, const char* subKey) {
    const std::lock_guard guard(registryLock);
    Subject subject;
    const int32_t code = resolve(key, subKey, subject);
    return code == ERROR_SUCCESS ? codeOf(subject.store->remove(*subject.node)) : code;
}

int32_t RegQueryInfoKeyA(HKEY key, char* className, uint32_t* classSize, uint32_t*, uint32_t* subKeys,
                         uint32_t* mostSubKeyLength, uint32_t* mostClassLength, uint32_t* values,
                         uint32_t* mostValueNameLength, uint32_t* mostValueBytes, uint32_t* securityBytes,
                         void* lastWriteTime) {
    if (mostSubKeyLength != nullptr || mostClassLength != nullptr || values != nullptr ||
        mostValueNameLength != nullptr || mostValueBytes != nullptr || securityBytes != nullptr ||
        lastWriteTime != nullptr || (className != nullptr && classSize == nullptr))
        return ERROR_INVALID_PARAMETER;
    const std::lock_guard guard(registryLock);
    Subject subject;
    const int32_t code = subjectOf(key, subject);
    if (code != ERROR_SUCCESS)
        return code;
    if (subKeys != nullptr) {
        if (const int error = subject.store->refreshSubkeys(*subject.node))
            return codeOf(error);
        *subKeys = subject.node->subkeys.count();
    }
    if (classSize == nullptr)
        return ERROR_SUCCESS;
    FileName text;
    const bool noted = subject.store->readNote(*subject.node, kClassNote, text) == 0;
    const char* const found = noted ? text.text : "string";
    const uint32_t room = *classSize;
    *classSize = static_cast<uint32_t>(std::strlen(found));
    return className != nullptr ? copyText(found, className, room) : ERROR_SUCCESS;
}

int32_t RegCloseKey(HKEY key) {
    if (key == HKEY_CLASSES_ROOT)
        return ERROR_SUCCESS;
    const std::lock_guard guard(registryLock);
    OpenKey* open = handles.find(key);
    if (open == nullptr)
        return ERROR_INVALID_HANDLE;
    RegistryStore* store = open->store;
    KeyNode* node = open->node;
    const int error = store->settle(*node);
    handles.close(open);
    node->users--;
    if (--node->handles == 0) {
        node->subkeys.clear();
        node->subkeysKnown = false;
    }
    store->openHandles--;
    dropIfIdle(store);
    return codeOf(error);
}
