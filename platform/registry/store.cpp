#include "platform/registry/store.h"

#include <cerrno>
#include <initializer_list>

void RegistryStore::look() {
    logs_[kPersistent].look(); // first: the other one's name holds the real path of its folder
    if (volatileFolder_[0] == 0)
        volatileFolder(place_, volatileFolder_);
    logs_[kVolatile].look();
}

int RegistryStore::refresh() {
    const int error = logs_[kPersistent].refresh();
    return error != 0 ? error : logs_[kVolatile].refresh();
}

int RegistryStore::missing() const {
    const int error = logs_[kPersistent].readable();
    return error != 0 ? error : ENOENT;
}

// The log that takes what is written to the key.
LogIndex RegistryStore::logOf(RegistryText path, LogIndex home) const {
    const KeyNode* key = keys_.find(path);
    return key == nullptr ? home : key->in[kPersistent] ? kPersistent : kVolatile;
}

int RegistryStore::lockFor(RegistryText path, LogIndex home, LogIndex* index) {
    for (;;) {
        *index = logOf(path, home);
        if (const int error = logs_[*index].lock())
            return error;
        // Another process may have made the key persistent.
        const int error = refresh();
        if (error == 0 && logOf(path, home) == *index)
            return 0;
        logs_[*index].unlock();
        if (error != 0)
            return error;
    }
}

int RegistryStore::create(RegistryText path, LogIndex home, bool* isNew) {
    LogIndex index;
    if (const int error = lockFor(path, home, &index))
        return error;
    *isNew = keys_.find(path) == nullptr;
    const int error = *isNew ? logs_[index].append({RecordKind::key, path}) : 0;
    logs_[index].unlock();
    return error;
}

int RegistryStore::setValue(const RegistryRecord& value, LogIndex home) {
    LogIndex index;
    if (const int error = lockFor(value.path, home, &index))
        return error;
    const int error = logs_[index].append(value);
    logs_[index].unlock();
    return error;
}

int RegistryStore::remove(RegistryText path, bool withSubkeys) {
    const KeyNode* key = keys_.find(path);
    if (key == nullptr)
        return missing();
    bool has[kLogs] = {key->in[kPersistent], key->in[kVolatile]};
    int error = 0;
    for (const LogIndex index : {kPersistent, kVolatile}) // everybody takes the locks in this order
        if (has[index]) {
            error = error != 0 ? error : logs_[index].lock();
            has[index] = error == 0;
        }
    if (error == 0)
        error = refresh();
    key = keys_.find(path);
    if (error == 0 && !withSubkeys && key != nullptr && key->count != 0)
        error = ENOTEMPTY;
    for (const LogIndex index : {kVolatile, kPersistent}) // with the persistent one the key is gone
        if (has[index]) {
            error = error != 0 ? error : logs_[index].append({RecordKind::deleted, path});
            logs_[index].unlock();
        }
    return error;
}
