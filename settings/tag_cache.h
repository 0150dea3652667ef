// What a set's reads through its chain came to, by tag: kept while neither the registry nor any chain changes.
//
// The cache goes with the set's path, in front of which it stands:
//
//     +----------+-------------------+
//     | TagCache | path, zero at end |
//     +----------+-------------------+
//                ^ TagSet::path
#ifndef KAL_SETTINGS_TAG_CACHE_H
#define KAL_SETTINGS_TAG_CACHE_H

#include <atomic>
#include <cstdint>

struct CachedTag {
    CachedTag* next;
    uint64_t state; // in which this was found
    uint32_t nameLength;
    uint32_t size; // of the value

    // Behind it: the name as it was asked for, then the value.
    char* name() { return reinterpret_cast<char*>(this + 1); }
    uint8_t* value() { return reinterpret_cast<uint8_t*>(name() + nameLength); }
};

class TagCache {
public:
    static constexpr uint32_t kMostValueSize = 4096; // larger ones are not kept
    // Grows with every change of how sets are linked to each other, or opened.
    static std::atomic<uint32_t> chainChanges;

    // A path with an empty cache; null when memory is short.
    static char* makePath(const char* path);
    static void freePath(char* path); // null too
    static TagCache& of(char* path);

    // Null when nothing is known of the tag in this state.
    CachedTag* find(const char* tag, uint64_t state) const;
    // Keeps a tag's value in place of what was known, if memory allows.
    void keep(const char* tag, uint64_t state, const uint8_t* value, uint32_t valueSize);

private:
    CachedTag** linkTo(const char* tag, uint32_t length) const;
    bool grow();
    void clear();

    CachedTag** buckets_;
    uint32_t bucketCount_;
    uint32_t count_;
};

#endif
