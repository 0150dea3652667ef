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

int RegistryStore::write(const RegistryRecord& record, LogIndex home, bool* isNew) {
    for (;;) {
        const LogIndex index = logOf(record.path, home);
        int error = logs_[index].lock();
        if (error != 0)
            return error;
        // Another process may have made the key persistent.
        error = refresh();
        const bool isThere = logOf(record.path, home) == index;
        const bool isMissing = keys_.find(record.path) == nullptr;
        if (error == 0 && isThere && (isNew == nullptr || isMissing))
            error = logs_[index].append(record);
        logs_[index].unlock();
        if (isNew != nullptr)
            *isNew = isMissing;
        if (error != 0 || isThere)
            return error;
    }
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
