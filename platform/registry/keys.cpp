#include "platform/registry/keys.h"

#include "platform/heap_faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr uint32_t kFewestBuckets = 1024;

void* allocate(size_t size) {
    return heapFaultDue() ? nullptr : std::malloc(size);
}

char* copyText(const char* text) {
    const size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(allocate(size));
    if (copy != nullptr)
        std::memcpy(copy, text, size);
    return copy;
}

// FNV-1a; others who write the tree count with it too.
constexpr uint32_t kPathHashStart = 2166136261u;
uint32_t pathHash(uint32_t hash, const char* text) {
    for (; *text != 0; text++)
        hash = (hash ^ static_cast<uint8_t>(*text)) * 16777619u;
    return hash;
}

uint64_t hashBelow(const KeyNode& parent, const FoldedName& name) {
    uint64_t hash = parent.hash;
    for (uint32_t i = 0; i < name.wordCount; i++) {
        hash = (hash ^ name.words[i]) * 0x9E3779B97F4A7C15u;
        hash ^= hash >> 29;
    }
    return hash;
}

bool isNamed(KeyNode& node, const FoldedName& name) {
    for (uint32_t i = 0; i < name.wordCount; i++)
        if (node.words()[i] != name.words[i])
            return false;
    return node.nameLength == name.length;
}

} // namespace

FoldedName::FoldedName(const char* path) : length(0) {
    auto* text = reinterpret_cast<char*>(words);
    for (char c; length <= kMostFileName && (c = path[length]) != 0 && c != '\\'; length++)
        text[length] = foldedCharacter(c);
    wordCount = length / 8 + 1;
    for (uint32_t i = length; i < wordCount * 8; i++)
        text[i] = 0;
}

bool replaceText(char*& owned, const char* text) {
    char* copy = text != nullptr ? copyText(text) : nullptr;
    if (text != nullptr && copy == nullptr)
        return false;
    std::free(owned);
    owned = copy;
    return true;
}

void SubkeyList::drop(Entry& entry) {
    std::free(entry.name);
    std::free(entry.spelling);
}

bool SubkeyList::setSpelling(uint32_t index, const char* spelling) {
    return replaceText(entries_[index].spelling, spelling);
}

bool SubkeyList::add(const char* name) {
    if (count_ == room_) {
        const uint32_t room = room_ == 0 ? 16 : room_ * 2;
        void* moved = heapFaultDue() ? nullptr : std::realloc(entries_, room * sizeof(Entry));
        if (moved == nullptr)
            return false;
        entries_ = static_cast<Entry*>(moved);
        room_ = room;
    }
    char* copy = copyText(name);
    if (copy == nullptr)
        return false;
    entries_[count_++] = {copy, nullptr};
    return true;
}

void SubkeyList::order() {
    std::sort(entries_, entries_ + count_,
              [](const Entry& a, const Entry& b) { return std::strcmp(a.name, b.name) < 0; });
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count_; i++) {
        if (kept > 0 && std::strcmp(entries_[kept - 1].name, entries_[i].name) == 0)
            drop(entries_[i]);
        else
            entries_[kept++] = entries_[i];
    }
    count_ = kept;
}

void SubkeyList::remove(const char* name) {
    Entry* const end = entries_ + count_;
    Entry* const found = std::lower_bound(entries_, end, name, [](const Entry& entry, const char* n) {
        return std::strcmp(entry.name, n) < 0;
    });
    if (found == end || std::strcmp(found->name, name) != 0)
        return;
    drop(*found);
    std::copy(found + 1, end, found);
    count_--;
}

void SubkeyList::clear() {
    for (uint32_t i = 0; i < count_; i++)
        drop(entries_[i]);
    std::free(entries_);
    entries_ = nullptr;
    count_ = room_ = 0;
}

KeyTable::~KeyTable() {
    for (uint32_t b = 0; b < bucketCount_; b++)
        while (KeyNode* node = buckets_[b]) {
            buckets_[b] = node->nextInBucket;
            free(node);
        }
    if (top_ != nullptr)
        free(top_);
    std::free(buckets_);
}

void KeyTable::free(KeyNode* node) {
    std::free(node->className);
    std::free(node->spelling);
    node->~KeyNode();
    std::free(node);
}

KeyNode* KeyTable::make(KeyNode* parent, const FoldedName& name, uint64_t hash, int* error) {
    FileName folder;
    *error = ENAMETOOLONG;
    if (!toFolderName(name.text(), name.length, folder))
        return nullptr;
    *error = ENOMEM;
    const size_t folderSize = std::strlen(folder.text) + 1;
    void* block = allocate(sizeof(KeyNode) + name.wordCount * sizeof(uint64_t) + folderSize);
    if (block == nullptr)
        return nullptr;
    *error = 0;
    auto* node = new (block) KeyNode();
    node->parent = parent;
    node->hash = hash;
    node->nameLength = static_cast<uint16_t>(name.length);
    std::memcpy(node->words(), name.words, name.wordCount * sizeof(uint64_t));
    std::memcpy(node->folderName(), folder.text, folderSize);
    node->pathHash = kPathHashStart;
    if (parent != nullptr) {
        parent->users++;
        node->pathHash = pathHash(
            parent->parent != nullptr ? pathHash(parent->pathHash, "/") : parent->pathHash, folder.text);
    }
    node->slot = 1 + node->pathHash % (kChangeCounters - 1);
    return node;
}

KeyNode* KeyTable::top() {
    int error;
    if (top_ == nullptr)
        top_ = make(nullptr, FoldedName(""), 0, &error);
    return top_;
}

bool KeyTable::grow() {
    const uint32_t wanted = bucketCount_ == 0 ? kFewestBuckets : bucketCount_ * 2;
    auto** fresh = heapFaultDue() ? nullptr : static_cast<KeyNode**>(std::calloc(wanted, sizeof(KeyNode*)));
    if (fresh == nullptr)
        return bucketCount_ != 0;
    for (uint32_t b = 0; b < bucketCount_; b++)
        while (KeyNode* node = buckets_[b]) {
            buckets_[b] = node->nextInBucket;
            KeyNode*& bucket = fresh[node->hash & (wanted - 1)];
            node->nextInBucket = bucket;
            bucket = node;
        }
    std::free(buckets_);
    buckets_ = fresh;
    bucketCount_ = wanted;
    return true;
}

KeyNode* KeyTable::child(KeyNode* parent, const FoldedName& name, int* error) {
    if (name.length > kMostFileName) {
        *error = ENAMETOOLONG;
        return nullptr;
    }
    const uint64_t hash = hashBelow(*parent, name);
    if (bucketCount_ != 0)
        for (KeyNode* node = buckets_[hash & (bucketCount_ - 1)]; node != nullptr; node = node->nextInBucket)
            if (node->hash == hash && node->parent == parent && isNamed(*node, name))
                return node;
    if (count_ >= bucketCount_ && !grow()) {
        *error = ENOMEM;
        return nullptr;
    }
    KeyNode* node = make(parent, name, hash, error);
    if (node == nullptr)
        return nullptr;
    KeyNode*& bucket = buckets_[hash & (bucketCount_ - 1)];
    node->nextInBucket = bucket;
    bucket = node;
    count_++;
    return node;
}

void KeyTable::trim() {
    if (count_ < trimAt_)
        return;
    // A node keeps its parent in use, so each round frees one level more.
    for (bool freed = true; freed;) {
        freed = false;
        for (uint32_t b = 0; b < bucketCount_; b++)
            for (KeyNode** link = &buckets_[b]; *link != nullptr;) {
                KeyNode* node = *link;
                if (node->users != 0 || node->pending) {
                    link = &node->nextInBucket;
                    continue;
                }
                *link = node->nextInBucket;
                node->parent->users--;
                free(node);
                count_--;
                freed = true;
            }
    }
    trimAt_ = std::max(trimAt_, count_ * 2); // where all are in use, looking again at once frees none
}

void KeyTable::forgetAll() {
    for (uint32_t b = 0; b < bucketCount_; b++)
        for (KeyNode* node = buckets_[b]; node != nullptr; node = node->nextInBucket)
            node->known = node->subkeysKnown = false;
    if (top_ != nullptr)
        top_->known = top_->subkeysKnown = false;
}

bool pathOf(KeyNode* node, KeyPath& path) {
    size_t length = 0;
    for (KeyNode* n = node; n->parent != nullptr; n = n->parent)
        length += std::strlen(n->folderName()) + 1;
    path.length = length == 0 ? 0 : length - 1;
    path.text[0] = 0;
    if (length > sizeof path.text)
        return false;
    // From the end to the start; each component writes its `/` or the terminating zero behind it.
    char* place = path.text + length;
    for (KeyNode* n = node; n->parent != nullptr; n = n->parent) {
        const size_t part = std::strlen(n->folderName());
        place -= part + 1;
        std::memcpy(place, n->folderName(), part);
        place[part] = n == node ? 0 : '/';
    }
    return true;
}
