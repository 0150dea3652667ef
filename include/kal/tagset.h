// Tag sets: named groups of text settings ("tags") in the registry, shared by every process of the user.
//
// A set is opened by its path, or becomes a temporary one, with a key of its own that goes with it, when it
// is first used without. Sets are layered: a child over its parent, so that changes can be collected in the
// child and then fused into the parent or thrown away. Reads start at the deepest child and go up through all
// parents; writes go to the deepest child. Names of tags and paths are compared without regard to (ASCII)
// case; a path's parts are separated by `\`. A tag whose name holds a `?` is a pattern: it answers for every
// name of its length that it matches, when no set of the chain has that tag itself.
//
// The links between sets are plain pointers: a set must not outlive the child or parent that it is linked to
// while it is used. A parent that SetPath made is the caller's to delete, after the set.
#ifndef KAL_TAGSET_H
#define KAL_TAGSET_H

#include <kal/base.h>
#include <kal/heap.h>

// In front of every set's path in the registry.
inline constexpr char KAL_SETTINGS_ROOT[] = "Morvek.Image\\Settings\\";

// Root and path together stay below this; a longer path is refused.
inline constexpr int32_t KAL_TAG_PATH_SIZE = 256;

class TagSet;

// Called for a tag of `set`; 0 ends the walk.
using KalTagCallback = int (*)(TagSet* set, const char* tag, void* context);

// One set; see above.
class KAL_API TagSet : public ZEPObject {
public:
    // A set with no path and no key.
    TagSet();
    // Closes the set's keys. A temporary set's tags and key are deleted; a persistent set's stay.
    ~TagSet();
    TagSet(const TagSet&) = delete;
    TagSet& operator=(const TagSet&) = delete;

    // Opens the set at `path`, making its key if it is new: kept for good when `persistent` is not 0, else
    // until the set is destroyed or the machine starts anew. A set that was open is closed first. Where the
    // set has a tag "Parent", that set is opened too (as `parent`, then its own parent, and so on; links that
    // come round are cut where they would repeat). 0, or KAL_ERR_TAG_KEY: the set has no key then and becomes
    // temporary when used.
    int16_t SetPath(const char* path, int persistent);

    // The path, or null before there is one. It belongs to the set.
    char* GetPath();

    // Reads a tag through the chain: an exact one of any set is preferred to a pattern of any set. At most
    // `size` bytes go to `buffer`, terminating zero included. `valueName` names another value of the tag than
    // its own (null). 0, or KAL_ERR_TAG_MISSING. A tag that is there gives 0 even when the value asked for is
    // not, or does not fit; `buffer` is then left as it was.
    int16_t GetTag(const char* tag, char* buffer, int size, const char* valueName = nullptr);

    // The same from this set upwards, not from its deepest child, and without patterns.
    int16_t GetRawTag(const char* tag, char* buffer, int size, const char* valueName = nullptr);

    // Writes a tag to the deepest child. A null or empty value removes the tag with all its values. 0, or
    // KAL_ERR_TAG_WRITE when the value could not be written. A tag that cannot be made at all gives 0.
    int16_t SetTag(const char* tag, const char* value, const char* valueName = nullptr);

    // The same to this set, and to the set without parent at the end of the chain.
    int16_t SetRawTag(const char* tag, const char* value, const char* valueName = nullptr);
    int16_t SetGlobalTag(const char* tag, const char* value);

    // Reads a tag as GetTag into one of the set's 20 result buffers: at most 255 characters, "" for a longer
    // value. Null when there is no such tag. The result stays for the next 19 calls on this set, those that
    // the other members make included.
    char* GetTempTag(const char* tag);

    // Numbers in decimal; 0 for a tag that is not there. Setting 0 removes the tag, so that a parent's shows
    // through. SetIntTag always gives 0, SetFloatTag what SetTag gives; `digits` is 1 to 30 significant
    // digits.
    int GetIntTag(const char* tag);
    int16_t SetIntTag(const char* tag, int value);
    double GetFloatTag(const char* tag);
    int16_t SetFloatTag(const char* tag, double value, int digits);

    // Makes a temporary set over this one. Null when memory is short. DestroyChild deletes it; a child that
    // was there before is no longer linked and stays the caller's.
    TagSet* CreateChild();

    // Links sets, both ways, and writes the tag "Parent" to the lower one; null only clears the pointer. A
    // link that would close a ring is not made. Neither set comes to own the other.
    void SetChild(TagSet* child);
    void SetParent(TagSet* parent);
    TagSet* GetParent();
    TagSet* GetLastChild();

    // Deletes the child, if there is one.
    void DestroyChild();

    // Writes every tag and pattern of this set (default values, whole) but "Parent" into the parent. 0, or
    // KAL_ERR_TAG_PARENT when there is none.
    int16_t FuseWithParent();

    // Removes the set's tags and patterns, and all else below its key, which stays. Always 0.
    int16_t ClearTags();

protected:
    // GetTag among the patterns of this set and its parents.
    int16_t GetWildTag(const char* tag, char* buffer, int size, const char* valueName);
    // Calls back for each subkey of this set, "Wildcards" included.
    void ForTags(KalTagCallback callback, void* context);
    // Gives a set without a key a temporary one.
    void GetReady();
    // 0, or KAL_ERR_TAG_KEY with no path and no key.
    int16_t SetTempPath();
    char* NextBuf();
    char* CurBuf();

private:
    friend class TagSearch;
    struct Layout;

    KAL_LOCAL void Close();
    KAL_LOCAL int16_t Open(const char* path, int persistent);
    KAL_LOCAL TagSet* Deepest();
    KAL_LOCAL static void Link(TagSet* parent, TagSet* child);
    KAL_LOCAL static void Unlink(TagSet*& link);
    KAL_LOCAL static int FuseTag(TagSet* set, const char* tag, void* context);
    KAL_LOCAL void FuseKey(void* above, const char* name);
    KAL_LOCAL void FusePatterns();
    KAL_LOCAL void* WildKey();
    KAL_LOCAL void* FindTag(const char* tag);
    KAL_LOCAL void* FindPattern(const char* tag);
    KAL_LOCAL uint64_t State();

    const char* rootPath;
    char* path;         // owned
    void* hKey;         // the set's open key
    void* hWildKey;     // its open key of patterns; null until the first pattern is looked for
    int32_t bufIndex;   // of the current result buffer
    int32_t persistent; // 0: a temporary set
    char buffers[20][256];
    TagSet* parent;    // where tags are inherited from
    TagSet* lastChild; // the set layered over this one
};

// Lists the tags whose names begin with a prefix, without regard to case: those of a set in the order of
// their names, then those of its parent, and so on. A tag that several sets hold comes once for each, always
// with the value that GetTempTag gives.
class KAL_API TagSearch : public ZEPObject {
public:
    // The prefix is not copied; it must outlive the search, as must the sets.
    TagSearch(TagSet* set, const char* prefix);
    ~TagSearch();

    // The rest of the next tag's name behind the prefix, and behind its terminating zero the tag's value, cut
    // where it does not fit. Null after the last. It stays until the next call.
    char* NextTag();

private:
    struct Layout;

    TagSet* set;
    const char* prefix;
    int32_t prefixLen;
    char entry[260];
    int32_t enumIndex;
};

#endif
