// A set by itself: opening, temporary sets, and tags read and written through a chain of sets.
#include "settings/tag_cache.h"
#include "settings/tag_keys.h"

#include "platform/c_text.h"

#include <kal/tagset.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// How often a number that another process took is drawn again.
constexpr int kMostDraws = 1 << 16;

// As a reading of the registry gives a value.
void copyValue(CachedTag& tag, char* buffer, int size) {
    const uint32_t room = size > 0 ? static_cast<uint32_t>(size) : 0;
    if (buffer == nullptr || tag.size > room)
        return;
    std::memcpy(buffer, tag.value(), tag.size);
    if (tag.size < room)
        buffer[tag.size] = 0;
}

int16_t readAndClose(HKEY key, char* buffer, int size, const char* valueName) {
    if (key == nullptr)
        return KAL_ERR_TAG_MISSING;
    readValue(key, valueName, buffer, size);
    RegCloseKey(key);
    return KAL_OK;
}

} // namespace

struct TagSet::Layout {
    static_assert(offsetof(TagSet, rootPath) == 0);
    static_assert(offsetof(TagSet, hWildKey) == 3 * sizeof(void*));
    static_assert(offsetof(TagSet, bufIndex) == 4 * sizeof(void*));
    static_assert(offsetof(TagSet, persistent) == 4 * sizeof(void*) + 4);
    static_assert(offsetof(TagSet, buffers) == 4 * sizeof(void*) + 8);
    static_assert(offsetof(TagSet, parent) == 4 * sizeof(void*) + 8 + 20 * 256);
    static_assert(sizeof(TagSet) == 6 * sizeof(void*) + 8 + 20 * 256);
};

TagSet::TagSet()
    : rootPath(KAL_SETTINGS_ROOT), path(nullptr), hKey(nullptr), hWildKey(nullptr), bufIndex(0),
      persistent(0), buffers{}, parent(nullptr), lastChild(nullptr) {}

TagSet::~TagSet() {
    Close();
}

void TagSet::Close() {
    TagCache::chainChanges++;
    if (hKey != nullptr) {
        if (hWildKey != nullptr)
            RegCloseKey(hWildKey);
        hWildKey = nullptr;
        RegCloseKey(hKey);
        char name[KAL_TAG_PATH_SIZE];
        if (persistent == 0 && path != nullptr && join(name, rootPath, path))
            RegDeleteTreeA(HKEY_CLASSES_ROOT, name);
    }
    hKey = nullptr;
    TagCache::freePath(path);
    path = nullptr;
}

int16_t TagSet::Open(const char* newPath, int newPersistent) {
    // Before closing: it may be the set's own path.
    char* copy = newPath != nullptr ? TagCache::makePath(newPath) : nullptr;
    Close();
    path = copy;
    persistent = newPersistent;
    char name[KAL_TAG_PATH_SIZE];
    if (path != nullptr && join(name, rootPath, path))
        hKey = makeKey(HKEY_CLASSES_ROOT, name, persistent != 0);
    return hKey != nullptr ? int16_t(KAL_OK) : int16_t(KAL_ERR_TAG_KEY);
}

int16_t TagSet::SetPath(const char* newPath, int newPersistent) {
    const int16_t status = Open(newPath, newPersistent);
    for (TagSet* set = this; set->hKey != nullptr; set = set->parent) {
        const char* above = set->GetTempTag(kParentTag);
        bool repeats = above == nullptr;
        for (TagSet* seen = this; !repeats; seen = seen->parent) {
            repeats = sameName(seen->path, above);
            if (seen == set)
                break;
        }
        TagSet* opened = repeats ? nullptr : new TagSet;
        if (opened == nullptr)
            break;
        set->parent = opened;
        opened->Open(above, 1);
    }
    return status;
}

char* TagSet::GetPath() {
    return path;
}

void TagSet::GetReady() {
    if (hKey == nullptr)
        SetTempPath();
}

int16_t TagSet::SetTempPath() {
    char counterTag[KAL_TAG_PATH_SIZE];
    join(counterTag, rootPath, "NextTemp");
    for (int draw = 0; draw < kMostDraws; draw++) {
        const HKEY counter = makeKey(HKEY_CLASSES_ROOT, counterTag, persistent != 0);
        char number[kTagNameSize] = "";
        readValue(counter, nullptr, number, sizeof number - 1);
        if (number[0] == 0)
            std::strcpy(number, "0");
        char next[40];
        _itoa(static_cast<int>(static_cast<uint32_t>(std::atoi(number)) + 1), next, 10);
        char fresh[kTagNameSize + 8];
        join(fresh, "Temp\\", number);
        TagCache::freePath(path);
        path = TagCache::makePath(fresh);
        persistent = 0;
        hKey = nullptr;
        char name[KAL_TAG_PATH_SIZE];
        bool isNew = false;
        if (path != nullptr && join(name, rootPath, path))
            registryDraw(counter, next, name, &hKey, &isNew);
        RegCloseKey(counter);
        if (hKey == nullptr)
            break;
        if (isNew)
            return KAL_OK;
        RegCloseKey(hKey); // somebody else drew the number too
        hKey = nullptr;
    }
    TagCache::freePath(path);
    path = nullptr;
    return KAL_ERR_TAG_KEY;
}

// Of all that a read through the chain depends on; 0 when it is not known.
uint64_t TagSet::State() {
    const uint64_t registry = path != nullptr ? registryState(hKey) : 0;
    return registry != 0 ? registry + TagCache::chainChanges : 0;
}

int16_t TagSet::GetTag(const char* tag, char* buffer, int size, const char* valueName) {
    TagSet* const set = Deepest();
    const bool isDefault = tag != nullptr && (valueName == nullptr || *valueName == 0);
    const uint64_t state = isDefault ? set->State() : 0;
    if (state != 0)
        if (CachedTag* known = TagCache::of(set->path).find(tag, state)) {
            copyValue(*known, buffer, size);
            return KAL_OK;
        }
    HKEY key = set->FindTag(tag);
    if (key == nullptr)
        key = set->FindPattern(tag);
    uint8_t value[TagCache::kMostValueSize];
    uint32_t valueSize = sizeof value;
    // What changed meanwhile, in whatever process, is not kept.
    if (state != 0 && RegQueryValueExA(key, nullptr, nullptr, nullptr, value, &valueSize) == ERROR_SUCCESS &&
        set->State() == state)
        TagCache::of(set->path).keep(tag, state, value, valueSize);
    return readAndClose(key, buffer, size, valueName);
}

// The open key of the first set that has the tag; null when none has. FindPattern() looks among the patterns.
void* TagSet::FindTag(const char* tag) {
    HKEY key = nullptr;
    for (TagSet* set = this; set != nullptr && key == nullptr; set = set->parent) {
        set->GetReady();
        key = openKey(set->hKey, tag);
    }
    return key;
}

void* TagSet::FindPattern(const char* tag) {
    char name[kTagNameSize];
    for (TagSet* set = this; set != nullptr && tag != nullptr; set = set->parent) {
        if (set->WildKey() == nullptr)
            continue;
        if (const HKEY key = openKey(set->hWildKey, tag))
            return key;
        for (uint32_t i = 0; RegEnumKeyA(set->hWildKey, i, name, sizeof name) == ERROR_SUCCESS; i++)
            if (matchesPattern(name, tag))
                if (const HKEY key = openKey(set->hWildKey, name))
                    return key;
    }
    return nullptr;
}

int16_t TagSet::GetRawTag(const char* tag, char* buffer, int size, const char* valueName) {
    return readAndClose(FindTag(tag), buffer, size, valueName);
}

int16_t TagSet::GetWildTag(const char* tag, char* buffer, int size, const char* valueName) {
    return readAndClose(FindPattern(tag), buffer, size, valueName);
}

void* TagSet::WildKey() {
    if (hWildKey == nullptr)
        hWildKey = openKey(hKey, kPatternsKey);
    return hWildKey;
}

int16_t TagSet::SetTag(const char* tag, const char* value, const char* valueName) {
    return Deepest()->SetRawTag(tag, value, valueName);
}

int16_t TagSet::SetGlobalTag(const char* tag, const char* value) {
    TagSet* root = this;
    while (root->parent != nullptr)
        root = root->parent;
    return root->SetRawTag(tag, value, nullptr);
}

int16_t TagSet::SetRawTag(const char* tag, const char* value, const char* valueName) {
    GetReady();
    if (hKey == nullptr || tag == nullptr)
        return KAL_ERR_TAG_WRITE;
    char name[kTagNameSize];
    if (!join(name, std::strchr(tag, '?') != nullptr ? "Wildcards\\" : "", tag))
        return KAL_OK; // no key can have that name
    if (value == nullptr || *value == 0) {
        RegDeleteKeyA(hKey, name);
        return KAL_OK;
    }
    const HKEY key = makeKey(hKey, name, persistent != 0);
    if (key == nullptr)
        return KAL_OK;
    const int32_t code = RegSetValueExA(key, valueName, 0, REG_SZ, reinterpret_cast<const uint8_t*>(value),
                                        static_cast<uint32_t>(std::strlen(value) + 1));
    RegCloseKey(key);
    return code == ERROR_SUCCESS ? int16_t(KAL_OK) : int16_t(KAL_ERR_TAG_WRITE);
}

char* TagSet::NextBuf() {
    bufIndex = bufIndex + 1 < 20 ? bufIndex + 1 : 0;
    return CurBuf();
}

char* TagSet::CurBuf() {
    return buffers[bufIndex];
}

char* TagSet::GetTempTag(const char* tag) {
    char* buffer = NextBuf();
    *buffer = 0; // a value that is missing or too long leaves the buffer alone
    if (GetTag(tag, buffer, sizeof buffers[0], nullptr) != KAL_OK)
        return nullptr;
    buffer[sizeof buffers[0] - 1] = 0;
    return CurBuf();
}
