// The keys that this process has met, each a node under its parent: what the trees said about it and how long
// that holds. A node of a key that does not exist is kept too, so that a miss is as quick as a hit.
#ifndef KAL_PLATFORM_REGISTRY_KEYS_H
#define KAL_PLATFORM_REGISTRY_KEYS_H

#include "platform/registry/names.h"
#include "platform/registry/tree.h"
#include "platform/registry/value.h"

#include <cstddef>
#include <cstdint>

// The names of a key's subkeys, in order.
class SubkeyList {
public:
    SubkeyList() = default;
    SubkeyList(const SubkeyList&) = delete;
    SubkeyList& operator=(const SubkeyList&) = delete;
    ~SubkeyList() { clear(); }

    uint32_t count() const { return count_; }
    const char* name(uint32_t index) const { return entries_[index].name; }
    // Null until it is set. False when memory is short.
    const char* spelling(uint32_t index) const { return entries_[index].spelling; }
    bool setSpelling(uint32_t index, const char* spelling);

    bool add(const char* name); // at the end; false when memory is short
    void order();               // sorts, and drops what is there twice
    void remove(const char* name);
    void clear();

private:
    struct Entry {
        char* name;
        char* spelling;
    };
    static void drop(Entry& entry);

    Entry* entries_ = nullptr;
    uint32_t count_ = 0;
    uint32_t room_ = 0;
};

enum TreeIndex : uint8_t { kPersistent, kVolatile, kTrees };

// What both trees' counters of a key stood at.
using KeyStamp = uint64_t;

// The part of a path up to a `\` or its end, in small letters, zero-filled to whole words.
struct FoldedName {
    uint64_t words[(kMostFileName + 8) / 8];
    uint32_t wordCount;
    uint32_t length; // kMostFileName + 1 for a longer part

    explicit FoldedName(const char* path);
    const char* text() const { return reinterpret_cast<const char*>(words); }
};

struct KeyNode {
    KeyNode* nextInBucket;
    KeyNode* parent; // null in the top
    uint64_t hash;

    // What the trees said last; holds while `known` and the counters stand at `stamp`.
    KeyStamp stamp;
    uint32_t slot; // of the key's change counter
    uint16_t nameLength;
    bool known;
    bool exists;
    TreeIndex home; // the tree that new values go to
    // A key made in this process that is in no tree yet: it waits for its first value. `home` tells where to.
    bool pending;
    bool takesKeys[kTrees]; // a folder was made in the key's folder, and none failed since
    RegistryValue value;    // the default one

    uint32_t pathHash; // of the folder's path; chooses the slot
    uint32_t users;    // handles and nodes below
    uint32_t handles;
    char* className;    // of a key to be made; null: `string`
    char* spelling;     // as last given in making it; null: as the folded name
    SubkeyList subkeys; // kept while handles are open
    KeyStamp subkeysStamp;
    bool subkeysKnown;

    // Behind the node: the words of the folded name, then the folder's name.
    uint64_t* words() { return reinterpret_cast<uint64_t*>(this + 1); }
    const char* name() { return reinterpret_cast<const char*>(words()); }
    char* folderName() { return reinterpret_cast<char*>(words() + nameLength / 8 + 1); }
};

class KeyTable {
public:
    KeyTable() = default;
    KeyTable(const KeyTable&) = delete;
    KeyTable& operator=(const KeyTable&) = delete;
    ~KeyTable();

    // The node of the whole tree; null when memory is short.
    KeyNode* top();
    // The node of the name below `parent`, made if it is new. Null with `*error` set: ENAMETOOLONG, ENOMEM.
    KeyNode* child(KeyNode* parent, const FoldedName& name, int* error);
    // Frees nodes that nobody uses when there are very many. No node that is not in use may be held over
    // this.
    void trim();
    void forgetAll();

private:
    KeyNode* make(KeyNode* parent, const FoldedName& name, uint64_t hash, int* error);
    bool grow();
    void free(KeyNode* node);

    KeyNode* top_ = nullptr;
    KeyNode** buckets_ = nullptr;
    uint32_t bucketCount_ = 0; // a power of two
    uint32_t count_ = 0;
    uint32_t trimAt_ = 1 << 17;
};

// False when the path is too long for the host.
bool pathOf(KeyNode* node, KeyPath& path);

// Replaces an owned text by a copy of `text`, or by null. False when memory is short.
bool replaceText(char*& owned, const char* text);

#endif
