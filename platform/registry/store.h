// One registry: the persistent tree and the volatile one, whose union it is, and what this process knows of
// them. Calls give 0 or an error of the host.
#ifndef KAL_PLATFORM_REGISTRY_STORE_H
#define KAL_PLATFORM_REGISTRY_STORE_H

#include "platform/registry/keys.h"
#include "platform/registry/place.h"
#include "platform/registry/tree.h"

class RegistryStore {
public:
    explicit RegistryStore(const RegistryPlace& place);
    ~RegistryStore();
    RegistryStore(const RegistryStore&) = delete;
    RegistryStore& operator=(const RegistryStore&) = delete;

    const RegistryPlace& place() const { return place_; }
    KeyTable& keys() { return keys_; }
    uint32_t openHandles = 0;

    // Looks whether the trees are still the ones that others share, and opens them where they were not to be
    // had.
    void look();
    // look() at every so many calls: for reads that are answered without asking the host.
    void lookNowAndThen() {
        if (++calls_ % 4096 == 0)
            look();
    }

    // Makes what the node says about the key true. ENOENT is no error here; `exists` tells.
    int refresh(KeyNode& node) { return isFresh(node) ? 0 : read(node); }
    // The same for its subkeys.
    int refreshSubkeys(KeyNode& node);
    // The spelling of the key in the trees; ENOENT when there is none beside the folded name.
    int readNote(KeyNode& node, const char* note, FileName& text);
    int readNamedValue(KeyNode& node, const char* name, RegistryValue& value);

    // Makes the key in the tree `home`, now or with its first value (see RegCreateKeyExA). `*isNew` tells
    // whether it was not there.
    int create(KeyNode& node, TreeIndex home, const char* className, bool now, bool* isNew);
    // Makes a key that waits for its first value.
    int settle(KeyNode& node);
    int setValue(KeyNode& node, const char* name, uint32_t type, const uint8_t* data, uint32_t size);
    // ENOENT when there is no such key, ENOTEMPTY when it has subkeys.
    int remove(KeyNode& node);

private:
    struct Moment;

    bool isFresh(const KeyNode& node) const { return node.known && node.stamp == stampOf(node.slot); }
    KeyStamp stampOf(uint32_t slot) const {
        return KeyStamp{trees_[kPersistent].changes.counter(slot)} << 32 |
               trees_[kVolatile].changes.counter(slot);
    }
    Moment momentOf(uint32_t slot) const;
    template <class Read>
    int readSteadily(uint32_t slot, KeyStamp* stamp, bool* lasting, Read read);
    void waitForWriters(const Moment& moment);

    int read(KeyNode& node);
    int readTrees(KeyNode& node, const KeyPath& path);
    void locate(KeyNode& node, const KeyPath& path);
    int lock(TreeIndex index);
    int prepare(KeyNode& node, TreeIndex home);
    int makeNode(KeyNode& node, TreeIndex home, const NewKey& made);
    void remember(KeyNode& node, const NewKey& made);
    int makeKey(KeyNode& node, const KeyPath& path, NewKey made, bool* isNew);
    int replaceValue(KeyNode& node, const KeyPath& path, const NewKey& made);
    int removeFrom(KeyNode& node, const KeyPath& path, const bool (&holds)[kTrees]);

    RegistryPlace place_;
    RegistryTree trees_[kTrees];
    KeyTable keys_;
    uint32_t calls_ = 0;
};

#endif
