#include "platform/registry/store.h"

#include <cerrno>
#include <cstring>

// The trees at one moment, as far as a key is concerned.
struct RegistryStore::Moment {
    uint32_t sequence[kTrees];
    KeyStamp stamp;
    bool quiet() const { return sequence[kPersistent] % 2 == 0 && sequence[kVolatile] % 2 == 0; }
    bool sameSequences(const Moment& other) const {
        return std::memcmp(sequence, other.sequence, sizeof sequence) == 0;
    }
};

RegistryStore::RegistryStore(const RegistryPlace& place) : place_(place) {
    trees_[kPersistent].place(place_.persistent, false);
    trees_[kPersistent].attach();
    char folder[PATH_MAX];
    if (volatileFolder(place_, folder))
        trees_[kVolatile].place(folder, true);
    trees_[kVolatile].attach();
}

RegistryStore::~RegistryStore() {
    for (RegistryTree& tree : trees_)
        tree.detach();
}

void RegistryStore::look() {
    for (RegistryTree& tree : trees_)
        if (!tree.attached() || tree.changes.orphaned()) {
            tree.attach();
            keys_.forgetAll();
        }
}

RegistryStore::Moment RegistryStore::momentOf(uint32_t slot) const {
    return {{trees_[kPersistent].changes.sequence(), trees_[kVolatile].changes.sequence()}, stampOf(slot)};
}

void RegistryStore::waitForWriters(const Moment& moment) {
    for (int t = 0; t < kTrees; t++) {
        bool replaced = false;
        if (moment.sequence[t] % 2 != 0 && trees_[t].hold(&replaced) == 0)
            trees_[t].release();
        if (replaced)
            keys_.forgetAll();
    }
}

// Runs `read` so that no writer disturbs it. `*lasting` becomes true when what it read holds for as long as
// the counters stand at `*stamp`.
template <class Read>
int RegistryStore::readSteadily(uint32_t slot, KeyStamp* stamp, bool* lasting, Read read) {
    const bool counted = trees_[kPersistent].attached() && trees_[kVolatile].attached();
    constexpr int kTries = 4;
    for (int attempt = 0; attempt < kTries; attempt++) {
        const Moment before = momentOf(slot);
        if (!before.quiet()) {
            waitForWriters(before);
            continue;
        }
        const int error = read();
        if (momentOf(slot).sameSequences(before)) {
            *stamp = before.stamp;
            *lasting = counted;
            return error;
        }
    }
    // Writers follow close upon each other: keep them out for once.
    bool held[kTrees], replaced = false;
    for (int t = 0; t < kTrees; t++)
        held[t] = trees_[t].hold(&replaced) == 0;
    if (replaced)
        keys_.forgetAll();
    const Moment during = momentOf(slot);
    const int error = read();
    *stamp = during.stamp;
    *lasting = held[kPersistent] && held[kVolatile] && during.quiet();
    for (int t = 0; t < kTrees; t++)
        if (held[t])
            trees_[t].release();
    return error;
}

// A key of either tree is there; the persistent tree speaks first, and takes new values where it has the key.
int RegistryStore::readTrees(KeyNode& node, const KeyPath& path) {
    node.exists = false;
    node.value.clear();
    for (const TreeIndex t : {kPersistent, kVolatile}) {
        const int error = node.value.present() ? ENOENT : trees_[t].readValue(path, "@", node.value);
        if (error != 0 && error != ENOENT)
            return error;
        if (!node.exists && (error == 0 || trees_[t].hasKey(path))) {
            node.exists = true;
            node.home = t;
        }
        if (node.value.present())
            return 0;
    }
    // Where the settings cannot be reached, nothing is known to be missing.
    return node.exists || trees_[kPersistent].reachable() ? 0 : EIO;
}

int RegistryStore::read(KeyNode& node) {
    node.known = false;
    KeyPath path;
    if (!pathOf(&node, path))
        return ENAMETOOLONG;
    bool lasting = false;
    const int error = readSteadily(node.slot, &node.stamp, &lasting, [&] { return readTrees(node, path); });
    node.known = error == 0 && lasting;
    return error;
}

int RegistryStore::refreshSubkeys(KeyNode& node) {
    if (node.subkeysKnown && node.subkeysStamp == stampOf(node.slot))
        return 0;
    KeyPath path;
    if (!pathOf(&node, path))
        return ENAMETOOLONG;
    const auto add = [](void* list, const char* folder) {
        FileName name;
        return !fromFolderName(folder, name) || static_cast<SubkeyList*>(list)->add(name.text);
    };
    return readSteadily(node.slot, &node.subkeysStamp, &node.subkeysKnown, [&] {
        node.subkeys.clear();
        for (const RegistryTree& tree : trees_) {
            const int error = tree.listSubkeys(path, add, &node.subkeys);
            if (error != 0 && error != ENOENT && error != ENOTDIR)
                return error;
        }
        node.subkeys.order();
        return 0;
    });
}

int RegistryStore::readNote(KeyNode& node, const char* note, FileName& text) {
    KeyPath path;
    if (!pathOf(&node, path))
        return ENAMETOOLONG;
    const int error = trees_[kPersistent].readNote(path, note, text);
    return error == 0 ? 0 : trees_[kVolatile].readNote(path, note, text);
}

int RegistryStore::readNamedValue(KeyNode& node, const char* name, RegistryValue& value) {
    KeyPath path;
    FileName file;
    if (!pathOf(&node, path) || !toValueFileName(name, file))
        return ENAMETOOLONG;
    const int error = trees_[kPersistent].readValue(path, file.text, value);
    return error == ENOENT ? trees_[kVolatile].readValue(path, file.text, value) : error;
}

int RegistryStore::lock(TreeIndex index) {
    bool replaced = false;
    const int error = trees_[index].lock(&replaced);
    if (replaced)
        keys_.forgetAll();
    return error;
}

// Where the key is, without reading it.
void RegistryStore::locate(KeyNode& node, const KeyPath& path) {
    if (isFresh(node))
        return;
    node.known = false;
    node.exists = false;
    for (const TreeIndex t : {kPersistent, kVolatile})
        if (!node.exists && trees_[t].hasKey(path)) {
            node.exists = true;
            node.home = t;
        }
}

// Makes a key in a tree that is locked, and the way to it.
int RegistryStore::makeNode(KeyNode& node, TreeIndex home, const NewKey& made) {
    if (node.parent == nullptr)
        return ENOENT; // the tree itself is gone
    KeyPath path;
    if (!pathOf(&node, path))
        return ENAMETOOLONG;
    RegistryTree& tree = trees_[home];
    tree.changes.touch(node.slot);
    tree.changes.touch(node.parent->slot);
    int error = tree.makeKey(path, made);
    node.parent->takesKeys[home] = error == 0;
    if (error != ENOENT)
        return error;
    FileName spelling;
    NewKey way;
    way.spelling = node.parent->spelling;
    if (way.spelling == nullptr && readNote(*node.parent, kSpellingNote, spelling) == 0)
        way.spelling = spelling.text;
    error = makeNode(*node.parent, home, way);
    return error == 0 ? tree.makeKey(path, made) : error;
}

// Sees to it that the key can be made with its first value: the way to it is there and takes new folders.
int RegistryStore::prepare(KeyNode& node, TreeIndex home) {
    if (node.parent->takesKeys[home])
        return 0;
    RegistryTree& tree = trees_[home];
    if (!tree.attached())
        look();
    if (!tree.attached())
        return EIO;
    KeyPath above;
    if (!pathOf(node.parent, above))
        return ENAMETOOLONG;
    int error = tree.mayMakeKeysIn(above);
    if (error != ENOENT || node.parent->parent == nullptr)
        return error;
    error = lock(home);
    if (error != 0)
        return error;
    NewKey way;
    way.spelling = node.parent->spelling;
    error = makeNode(*node.parent, home, way);
    tree.unlock();
    return error;
}

// Makes a key, with what it is made with known; `isNew` asks whether somebody else did meanwhile.
int RegistryStore::makeKey(KeyNode& node, const KeyPath& path, NewKey made, bool* isNew) {
    if (const int error = lock(node.home))
        return error;
    int error = 0;
    if (isNew != nullptr && (trees_[kPersistent].hasKey(path) || trees_[kVolatile].hasKey(path))) {
        *isNew = false;
    } else {
        made.spelling = node.spelling;
        made.className = node.className;
        error = makeNode(node, node.home, made);
        if (error == 0)
            remember(node, made);
    }
    trees_[node.home].unlock();
    if (error == 0)
        node.pending = false;
    return error;
}

int RegistryStore::create(KeyNode& node, TreeIndex home, const char* className, bool now, bool* isNew) {
    *isNew = false;
    if (node.pending)
        return settle(node);
    KeyPath path;
    if (!pathOf(&node, path))
        return ENAMETOOLONG;
    locate(node, path);
    if (node.exists)
        return 0;
    const bool plainClass = className != nullptr && std::strcmp(className, "string") == 0;
    if (!replaceText(node.className, plainClass ? nullptr : className != nullptr ? className : ""))
        return ENOMEM;
    *isNew = true;
    node.home = home;
    const int error = prepare(node, home);
    if (error != 0)
        return error;
    if (now)
        return makeKey(node, path, NewKey(), isNew);
    node.pending = true;
    return 0;
}

int RegistryStore::settle(KeyNode& node) {
    if (!node.pending)
        return 0;
    KeyPath path;
    return pathOf(&node, path) ? makeKey(node, path, NewKey(), nullptr) : ENAMETOOLONG;
}

// Keeps a default value that was just set in the key's home, whose lock is held: what stands in the
// persistent tree is the key's value whatever the other one holds.
void RegistryStore::remember(KeyNode& node, const NewKey& made) {
    node.known = false;
    if (node.home != kPersistent || made.valueFile == nullptr || made.valueFile[1] != 0)
        return;
    node.exists = true;
    node.stamp = stampOf(node.slot);
    node.known = trees_[kVolatile].attached() && node.value.assign(made.type, made.data, made.size);
}

int RegistryStore::replaceValue(KeyNode& node, const KeyPath& path, const NewKey& made) {
    if (const int error = lock(node.home))
        return error;
    RegistryTree& tree = trees_[node.home];
    tree.changes.touch(node.slot);
    const int error = tree.replaceValue(path, made.valueFile, made.type, made.data, made.size);
    if (error == 0)
        remember(node, made);
    tree.unlock();
    return error;
}

int RegistryStore::setValue(KeyNode& node, const char* name, uint32_t type, const uint8_t* data,
                            uint32_t size) {
    KeyPath path;
    FileName file;
    if (!pathOf(&node, path) || !toValueFileName(name, file))
        return ENAMETOOLONG;
    NewKey made;
    made.valueFile = file.text;
    made.type = type;
    made.data = data;
    made.size = size;
    // Since this process last looked the key may have become persistent, and a volatile value would not be
    // seen.
    if (node.home == kVolatile && trees_[kPersistent].hasKey(path)) {
        node.home = kPersistent;
        node.pending = false;
    }
    int error = node.pending ? ENOENT : replaceValue(node, path, made);
    if (error == ENOENT && !node.pending) {
        node.known = false;
        locate(node, path);
        if (node.exists)
            error = replaceValue(node, path, made);
    }
    if (error == ENOENT)
        error = makeKey(node, path, made, nullptr);
    node.pending = false; // a key whose first value failed does not appear without it
    return error;
}

// Removes the key from the trees that hold it, which are locked.
int RegistryStore::removeFrom(KeyNode& node, const KeyPath& path, const bool (&holds)[kTrees]) {
    KeyNode& above = *node.parent;
    for (int t = 0; t < kTrees; t++)
        if (holds[t] && trees_[t].hasSubkeys(path))
            return ENOTEMPTY;
    bool listStands = above.subkeysKnown && above.subkeysStamp == stampOf(above.slot);
    int error = 0;
    for (const TreeIndex t : {kVolatile, kPersistent}) { // the persistent one last: with it the key is gone
        if (!holds[t] || error != 0)
            continue;
        trees_[t].changes.touch(node.slot);
        trees_[t].changes.touch(above.slot);
        error = trees_[t].removeKey(path);
    }
    if (listStands && error == 0) {
        // The list without the key is as true as it was with it. Only the halves whose lock is held may be
        // read.
        above.subkeys.remove(node.name());
        const KeyStamp now = stampOf(above.slot);
        const KeyStamp low = UINT32_MAX;
        above.subkeysStamp = (holds[kPersistent] ? now & ~low : above.subkeysStamp & ~low) |
                             (holds[kVolatile] ? now & low : above.subkeysStamp & low);
    }
    return error;
}

int RegistryStore::remove(KeyNode& node) {
    KeyPath path;
    if (!pathOf(&node, path))
        return ENAMETOOLONG;
    const bool wasPending = node.pending;
    node.pending = node.known = false;
    bool holds[kTrees];
    for (int t = 0; t < kTrees; t++)
        holds[t] = trees_[t].hasKey(path);
    if (!holds[kPersistent] && !holds[kVolatile])
        return wasPending ? 0 : ENOENT;
    int error = 0;
    bool locked[kTrees] = {};
    for (const TreeIndex t : {kPersistent, kVolatile}) // everybody takes the locks in this order
        if (holds[t] && error == 0) {
            error = lock(t);
            locked[t] = error == 0;
        }
    if (error == 0)
        error = removeFrom(node, path, holds);
    for (int t = 0; t < kTrees; t++)
        if (locked[t])
            trees_[t].unlock();
    return error;
}
