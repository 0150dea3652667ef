// One tree of folders that holds keys: a key is a folder, a value a file in it. docs/formats/registry.md
// shows it.
//
// Keys are given by their folder's path below the tree ("" is the tree itself), values by their file's name.
// Calls give 0 or an error of the host. Those that change anything belong between lock() and unlock().
#ifndef KAL_PLATFORM_REGISTRY_TREE_H
#define KAL_PLATFORM_REGISTRY_TREE_H

#include "platform/registry/changes.h"
#include "platform/registry/names.h"
#include "platform/registry/value.h"

#include <climits>
#include <cstddef>

// A folder's path below the tree.
struct KeyPath {
    char text[PATH_MAX];
    size_t length;
};

// What a new key is made with.
struct NewKey {
    const char* spelling = nullptr;  // null: as the folded name
    const char* className = nullptr; // null: `string`
    const char* valueFile = nullptr; // null: no value yet
    uint32_t type = 0;
    const uint8_t* data = nullptr;
    uint32_t size = 0;
};

class RegistryTree {
public:
    RegistryChanges changes;

    // Names the folder; a private one must belong to the user alone. Nothing is opened yet.
    bool place(const char* folder, bool isPrivate);
    const char* folder() const { return folder_; }

    // Opens the folder and the file of changes, and makes them where they are missing.
    int attach();
    void detach();
    bool reachable() const { return fd_ >= 0; }          // can be read
    bool attached() const { return changes.attached(); } // and what was read can be kept

    // Keeps writers out, for a read that must not be disturbed; lock() is for a change. Both open the tree
    // anew where it was emptied or removed; `*replaced` then becomes true.
    int hold(bool* replaced);
    void release() { changes.release(); }
    int lock(bool* replaced);
    void unlock();

    bool hasKey(const KeyPath& key) const;
    // 0 when folders can be made in the key's folder.
    int mayMakeKeysIn(const KeyPath& key) const;
    // Whether any folder lies in the key's folder.
    bool hasSubkeys(const KeyPath& key) const;
    // ENOENT when there is no such value (or key).
    int readValue(const KeyPath& key, const char* file, RegistryValue& value) const;
    // The text of a note of the key: its spelling or class. ENOENT when it has none.
    int readNote(const KeyPath& key, const char* note, FileName& text) const;
    // Calls `visit` with each folder's name.
    int listSubkeys(const KeyPath& key, bool (*visit)(void* context, const char* folder),
                    void* context) const;

    // ENOENT when the key above is missing. A key that is there keeps what it has and gets the value.
    int makeKey(const KeyPath& key, const NewKey& made);
    // ENOENT when the key is missing.
    int replaceValue(const KeyPath& key, const char* file, uint32_t type, const uint8_t* data, uint32_t size);
    int removeKey(const KeyPath& key);

private:
    int writeFile(const char* path, uint32_t type, const uint8_t* data, uint32_t size);
    int writeNote(const char* path, const char* text);
    int emptyFolder(const char* path);
    void clearAway(const char* path);

    char folder_[PATH_MAX] = {};
    bool private_ = false;
    int fd_ = -1;
};

inline constexpr const char* kSpellingNote = ".name";
inline constexpr const char* kClassNote = ".class";

#endif
