#include "platform/registry/keys.h"

#include <kal/heap.h>

#include <cstring>

namespace {

unsigned char folded(char c) {
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
}

int order(RegistryText a, RegistryText b) {
    for (uint32_t i = 0; i < a.length && i < b.length; i++)
        if (a.text[i] != b.text[i])
            if (const int difference = folded(a.text[i]) - folded(b.text[i]))
                return difference;
    return a.length < b.length ? -1 : a.length > b.length;
}

// Takes the first name off a path.
RegistryText nextName(RegistryText& path) {
    const auto* end = static_cast<const char*>(std::memchr(path.text, '\\', path.length));
    const auto length = end != nullptr ? static_cast<uint32_t>(end - path.text) : path.length;
    const RegistryText name = {path.text, length};
    path = {path.text + length + (end != nullptr), path.length - length - (end != nullptr)};
    return name;
}

// Where the name stands, or would stand, among the subkeys.
uint32_t placeOf(const KeyNode& above, RegistryText name, bool* found) {
    uint32_t first = 0, end = above.count;
    // A log that was written anew tells its keys in order: each comes behind the last one.
    if (end != 0 && order(name, above.below[end - 1]->name()) > 0)
        first = end;
    while (first < end) {
        const uint32_t middle = first + (end - first) / 2;
        const int side = order(name, above.below[middle]->name());
        if ((*found = side == 0))
            return middle;
        (side < 0 ? end : first) = middle + (side > 0);
    }
    *found = false;
    return first;
}

KeyNode* add(KeyNode& above, uint32_t place, RegistryText name) {
    if (above.count * sizeof(KeyNode*) == KalSizeSMem(above.below)) {
        const auto bytes = static_cast<uint32_t>((above.count < 4 ? 4 : above.count * 2) * sizeof(KeyNode*));
        void* moved = above.below != nullptr ? KalReAllocSMem(above.below, bytes) : KalAllocSMem(bytes);
        if (moved == nullptr)
            return nullptr;
        above.below = static_cast<KeyNode**>(moved);
    }
    auto* key = static_cast<KeyNode*>(KalAllocSMem(static_cast<uint32_t>(sizeof(KeyNode) + name.length)));
    if (key == nullptr)
        return nullptr;
    key->nameLength = static_cast<uint8_t>(name.length);
    std::memcpy(key + 1, name.text, name.length);
    std::memmove(&above.below[place + 1], &above.below[place], (above.count - place) * sizeof(KeyNode*));
    above.count++;
    return above.below[place] = key;
}

bool setValue(KeyNode& key, LogIndex log, const RegistryRecord& record) {
    const auto bytes = static_cast<uint32_t>(sizeof(KeyValue)) + record.name.length + record.size;
    KeyValue** link = &key.values;
    while (*link != nullptr && ((*link)->log != log || order(record.name, (*link)->name()) != 0))
        link = &(*link)->next;
    KeyValue* const old = *link;
    KeyValue* const value = KalSizeSMem(old) == bytes ? old : static_cast<KeyValue*>(KalAllocSMem(bytes));
    if (value == nullptr)
        return false;
    *value = {old != nullptr ? old->next : nullptr, record.type, record.size, log,
              static_cast<uint8_t>(record.name.length)};
    *link = value;
    copyBytes(value + 1, record.name.text, record.name.length);
    copyBytes(reinterpret_cast<char*>(value + 1) + record.name.length, record.data, record.size);
    if (old != value)
        KalFreeSMem(old);
    return true;
}

// Takes back what a log said of a key and all below it. Whether no log has the key any more; it is freed then.
bool drop(KeyNode& key, LogIndex log) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < key.count; i++)
        if (!drop(*key.below[i], log))
            key.below[kept++] = key.below[i];
    key.count = kept;
    for (KeyValue** link = &key.values; *link != nullptr;) {
        KeyValue* const value = *link;
        if (value->log == log) {
            *link = value->next;
            KalFreeSMem(value);
        } else {
            link = &value->next;
        }
    }
    key.in[log] = false;
    const bool gone = !key.in[kPersistent] && !key.in[kVolatile];
    if (gone) {
        KalFreeSMem(key.below);
        KalFreeSMem(&key);
    }
    return gone;
}

// Goes over all that a log says, in order.
struct Packing {
    LogIndex log;
    uint32_t logNumber;
    uint8_t* at;
    uint64_t bytes;
    char path[kMostPathBytes + 1];

    void say(const RegistryRecord& record) {
        if (at != nullptr)
            record.store(logNumber, at + bytes);
        bytes += record.bytes();
    }

    // A key that has neither values nor subkeys is told by itself.
    void keysBelow(const KeyNode& above, uint32_t pathLength) {
        for (uint32_t i = 0; i < above.count; i++) {
            const KeyNode& key = *above.below[i];
            if (!key.in[log])
                continue;
            const uint64_t start = bytes;
            const uint32_t length = pathLength + key.nameLength;
            std::memcpy(path + pathLength, key.name().text, key.nameLength);
            for (const KeyValue* value = key.values; value != nullptr; value = value->next)
                if (value->log == log)
                    say({RecordKind::value,
                         {path, length},
                         value->name(),
                         value->type,
                         value->data(),
                         value->size});
            path[length] = '\\';
            keysBelow(key, length + 1);
            if (bytes == start)
                say({RecordKind::key, {path, length}});
        }
    }
};

} // namespace

const KeyValue* KeyNode::value(RegistryText wanted) const {
    const KeyValue* found = nullptr;
    for (const KeyValue* value = values; value != nullptr; value = value->next)
        if ((found == nullptr || value->log == kPersistent) && order(wanted, value->name()) == 0)
            found = value;
    return found;
}

KeyTree::~KeyTree() {
    forget(kPersistent);
    forget(kVolatile);
    KalFreeSMem(top_.below);
}

const KeyNode* KeyTree::find(RegistryText path) const {
    const KeyNode* key = &top_;
    for (bool found = true; path.length != 0;) {
        const uint32_t place = placeOf(*key, nextName(path), &found);
        if (!found)
            return nullptr;
        key = key->below[place];
    }
    return key;
}

bool KeyTree::apply(LogIndex log, const RegistryRecord& record) {
    const bool makes = record.kind != RecordKind::deleted;
    KeyNode* key = &top_;
    for (RegistryText path = record.path; path.length != 0;) {
        const RegistryText name = nextName(path);
        bool found;
        const uint32_t place = placeOf(*key, name, &found);
        if (!found && !makes)
            return true;
        KeyNode* const next = found ? key->below[place] : add(*key, place, name);
        if (next == nullptr)
            return false;
        if (makes)
            next->in[log] = true;
        else if (path.length == 0 && drop(*next, log))
            std::memmove(&key->below[place], &key->below[place + 1],
                         (--key->count - place) * sizeof(KeyNode*));
        key = next;
    }
    return record.kind != RecordKind::value || setValue(*key, log, record);
}

void KeyTree::forget(LogIndex log) {
    drop(top_, log);
    top_.in[log] = true;
}

uint64_t KeyTree::pack(LogIndex log, uint32_t logNumber, uint8_t* at) const {
    Packing packing = {log, logNumber, at, 0, {}};
    packing.keysBelow(top_, 0);
    return packing.bytes;
}
