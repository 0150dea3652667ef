#include "settings/tag_cache.h"

#include <kal/heap.h>

#include <cstring>

namespace {

constexpr uint32_t kFewestBuckets = 64;
constexpr uint32_t kMostTags = 16384; // then all are forgotten
constexpr uint32_t kMostNameLength = 259;

} // namespace

std::atomic<uint32_t> TagCache::chainChanges;

char* TagCache::makePath(const char* path) {
    const size_t size = std::strlen(path) + 1;
    void* block = KalAllocSMem(static_cast<uint32_t>(sizeof(TagCache) + size));
    if (block == nullptr)
        return nullptr;
    char* copy = static_cast<char*>(block) + sizeof(TagCache);
    std::memcpy(copy, path, size);
    return copy;
}

TagCache& TagCache::of(char* path) {
    return *reinterpret_cast<TagCache*>(path - sizeof(TagCache));
}

void TagCache::freePath(char* path) {
    if (path == nullptr)
        return;
    of(path).clear();
    KalFreeSMem(&of(path));
}

void TagCache::clear() {
    for (uint32_t b = 0; b < bucketCount_; b++)
        while (CachedTag* tag = buckets_[b]) {
            buckets_[b] = tag->next;
            KalFreeSMem(tag);
        }
    KalFreeSMem(buckets_);
    buckets_ = nullptr;
    bucketCount_ = count_ = 0;
}

// The link to the tag, or to where it would be; there are buckets.
CachedTag** TagCache::linkTo(const char* tag, uint32_t length) const {
    uint64_t hash = length;
    uint32_t i = 0;
    for (uint64_t word; i + sizeof word <= length; i += static_cast<uint32_t>(sizeof word)) {
        std::memcpy(&word, tag + i, sizeof word);
        hash = (hash ^ word) * 0x9E3779B97F4A7C15u;
    }
    for (; i < length; i++)
        hash = (hash ^ static_cast<uint8_t>(tag[i])) * 0x9E3779B97F4A7C15u;
    CachedTag** link = &buckets_[hash >> 32 & (bucketCount_ - 1)];
    while (*link != nullptr &&
           ((*link)->nameLength != length || std::memcmp((*link)->name(), tag, length) != 0))
        link = &(*link)->next;
    return link;
}

CachedTag* TagCache::find(const char* tag, uint64_t state) const {
    const size_t length = std::strlen(tag);
    if (bucketCount_ == 0 || length > kMostNameLength)
        return nullptr;
    CachedTag* found = *linkTo(tag, static_cast<uint32_t>(length));
    return found != nullptr && found->state == state ? found : nullptr;
}

// Room for another tag.
bool TagCache::grow() {
    if (count_ == kMostTags)
        clear();
    if (count_ < bucketCount_)
        return true;
    const uint32_t wanted = bucketCount_ == 0 ? kFewestBuckets : bucketCount_ * 4;
    auto** fresh = static_cast<CachedTag**>(KalAllocSMem(wanted * static_cast<uint32_t>(sizeof(CachedTag*))));
    if (fresh == nullptr)
        return false;
    CachedTag** const old = buckets_;
    const uint32_t oldCount = bucketCount_;
    buckets_ = fresh;
    bucketCount_ = wanted;
    for (uint32_t b = 0; b < oldCount; b++)
        while (CachedTag* tag = old[b]) {
            old[b] = tag->next;
            tag->next = nullptr;
            *linkTo(tag->name(), tag->nameLength) = tag;
        }
    KalFreeSMem(old);
    return true;
}

void TagCache::keep(const char* tag, uint64_t state, const uint8_t* value, uint32_t valueSize) {
    const size_t length = std::strlen(tag);
    if (length > kMostNameLength || !grow())
        return;
    const auto bytes = static_cast<uint32_t>(sizeof(CachedTag) + length + valueSize);
    auto* kept = static_cast<CachedTag*>(KalAllocSMem(bytes));
    if (kept == nullptr)
        return;
    CachedTag** link = linkTo(tag, static_cast<uint32_t>(length));
    CachedTag* const old = *link;
    *kept = {old != nullptr ? old->next : nullptr, state, static_cast<uint32_t>(length), valueSize};
    std::memcpy(kept->name(), tag, length);
    std::memcpy(kept->value(), value, valueSize);
    *link = kept;
    count_ += old == nullptr;
    KalFreeSMem(old);
}
