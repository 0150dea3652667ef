#include "platform/registry/keys.h"

#include <new>

namespace {

int folded(char c) {
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
}

int order(std::string_view a, std::string_view b) {
    if (a == b) // as nearly always
        return 0;
    for (size_t i = 0; i < a.size() && i < b.size(); i++)
        if (a[i] != b[i] && folded(a[i]) != folded(b[i]))
            return folded(a[i]) - folded(b[i]);
    return a.size() < b.size() ? -1 : a.size() > b.size();
}

std::string_view takeName(std::string_view& path) {
    const std::string_view name = path.substr(0, path.find('\\'));
    path.remove_prefix(std::min(path.size(), name.size() + 1));
    return name;
}

// Null when there is none; `*place` is where it stands, or would stand, among the subkeys.
KeyNode* subkey(const KeyNode& above, std::string_view name, size_t* place) {
    const auto& below = above.below;
    // Often it is the last one, or comes behind it: a log that was written anew tells its keys in order.
    const int last = below.empty() ? 1 : order(name, below.end()[-1]->name());
    auto* found = below.end() - (last == 0);
    if (last < 0)
        found = std::lower_bound(
            below.begin(), below.end(), name,
            [](const KeyNode* key, std::string_view wanted) { return order(key->name(), wanted) < 0; });
    *place = static_cast<size_t>(found - below.begin());
    return last == 0 || (last < 0 && order(name, (*found)->name()) == 0) ? *found : nullptr;
}

KeyNode* add(KeyNode& above, size_t place, std::string_view name) {
    void* block = KalAllocSMem(static_cast<uint32_t>(sizeof(KeyNode) + name.size()));
    if (block == nullptr || !above.below.insert(place, static_cast<KeyNode*>(block))) {
        KalFreeSMem(block);
        return nullptr;
    }
    auto* key = new (block) KeyNode;
    key->nameLength =
        static_cast<uint8_t>(name.copy(static_cast<char*>(block) + sizeof(KeyNode), name.size()));
    return key;
}

bool setValue(KeyNode& key, LogIndex log, const RegistryRecord& record) {
    const auto size = static_cast<uint32_t>(record.bytes.size());
    void* block = KalAllocSMem(static_cast<uint32_t>(sizeof(KeyValue) + record.name.size() + size));
    if (block == nullptr)
        return false;
    KeyValue** link = &key.values[log];
    while (*link != nullptr && order(record.name, (*link)->name()) != 0)
        link = &(*link)->next;
    KeyValue* const old = *link;
    *link = new (block) KeyValue{old != nullptr ? old->next : nullptr, record.type, size,
                                 static_cast<uint8_t>(record.name.size())};
    char* name = static_cast<char*>(block) + sizeof(KeyValue);
    record.bytes.copy(name + record.name.copy(name, record.name.size()), size);
    KalFreeSMem(old);
    return true;
}

// Takes back what a log said of a key and all below it. Whether no log has the key any more; it is freed then.
bool drop(KeyNode& key, LogIndex log) {
    auto& below = key.below;
    auto* const kept =
        std::remove_if(below.begin(), below.end(), [log](KeyNode* each) { return drop(*each, log); });
    below.shrink(static_cast<size_t>(kept - below.begin()));
    while (KeyValue* const value = key.values[log]) {
        key.values[log] = value->next;
        KalFreeSMem(value);
    }
    key.in[log] = false;
    if (key.in[kPersistent] || key.in[kVolatile])
        return false;
    key.~KeyNode();
    KalFreeSMem(&key);
    return true;
}

// `path` holds the way to the keys, of `length` bytes.
uint64_t packBelow(const KeyNode& above, LogIndex log, uint32_t logNumber, Array<char>* to, char* path,
                   size_t length) {
    uint64_t bytes = 0;
    const auto say = [&](const RegistryRecord& record) {
        bytes += record.length();
        if (to != nullptr)
            record.store(logNumber, *to);
    };
    for (const KeyNode* key : above.below) {
        if (!key->in[log])
            continue;
        const uint64_t start = bytes;
        const std::string_view own = {path, length + key->name().copy(path + length, key->nameLength)};
        for (const KeyValue* value = key->values[log]; value != nullptr; value = value->next)
            say({RecordKind::value, own, value->name(), value->type, value->bytes()});
        path[own.size()] = '\\';
        bytes += packBelow(*key, log, logNumber, to, path, own.size() + 1);
        if (bytes == start) // neither values nor subkeys tell of it
            say({RecordKind::key, own});
    }
    return bytes;
}

} // namespace

const KeyValue* KeyNode::value(std::string_view wanted) const {
    for (const KeyValue* value : values)
        for (; value != nullptr; value = value->next)
            if (order(wanted, value->name()) == 0)
                return value;
    return nullptr;
}

const KeyNode* KeyTree::find(std::string_view path) const {
    const KeyNode* key = &top_;
    for (size_t place; key != nullptr && !path.empty();)
        key = subkey(*key, takeName(path), &place);
    return key;
}

bool KeyTree::apply(LogIndex log, const RegistryRecord& record) {
    const bool makes = record.kind != RecordKind::deleted;
    KeyNode* key = &top_;
    for (std::string_view path = record.path; !path.empty();) {
        size_t place;
        auto& below = key->below;
        const std::string_view name = takeName(path);
        KeyNode* next = subkey(*key, name, &place);
        if (next == nullptr && makes)
            next = add(*key, place, name);
        if (next == nullptr)
            return !makes;
        next->in[log] |= makes;
        if (!makes && path.empty() && drop(*next, log)) {
            std::move(below.begin() + place + 1, below.end(), below.begin() + place);
            below.shrink(below.size() - 1);
        }
        key = next;
    }
    return record.kind != RecordKind::value || setValue(*key, log, record);
}

void KeyTree::forget(LogIndex log) {
    drop(top_, log);
    top_.in[log] = true;
}

uint64_t KeyTree::pack(LogIndex log, uint32_t logNumber, Array<char>* to) const {
    char path[kMostPathBytes + 1];
    return packBelow(top_, log, logNumber, to, path, 0);
}
