// A set by itself: opening, temporary sets, and tags read and written through a chain of sets.
#include "settings/tag_keys.h"

#include "platform/c_text.h"

#include <kal/tagset.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// How often a number that another process took is drawn again.
constexpr int kMostDraws = 1 << 16;

char* copyOf(const char* text) {
    const size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr)
        std::memcpy(copy, text, size);
    return copy;
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
    if (hKey != nullptr) {
        if (hWildKey != nullptr)
            RegCloseKey(hWildKey);
        hWildKey = nullptr;
        if (persistent == 0)
            ClearTags();
        RegCloseKey(hKey);
        SetKeyName name;
        if (persistent == 0 && path != nullptr && name.join(rootPath, path))
            RegDeleteKeyA(HKEY_CLASSES_ROOT, name.text);
    }
    hKey = nullptr;
    std::free(path);
    path = nullptr;
}

int16_t TagSet::Open(const char* newPath, int newPersistent) {
    char* copy =
        newPath != nullptr ? copyOf(newPath) : nullptr; // before closing: it may be the set's own path
    Close();
    path = copy;
    persistent = newPersistent;
    SetKeyName name;
    if (path != nullptr && name.join(rootPath, path))
        hKey = makeKey(HKEY_CLASSES_ROOT, name.text, persistent != 0);
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
    std::snprintf(counterTag, sizeof counterTag, "%sNextTemp", rootPath);
    for (int draw = 0; draw < kMostDraws; draw++) {
        hKey = HKEY_CLASSES_ROOT; // so that the counter's tag counts from there
        char number[kTagNameSize] = "";
        readSubkey(hKey, counterTag, number, sizeof number - 1, nullptr);
        if (number[0] == 0)
            std::strcpy(number, "0");
        char next[40];
        _itoa(static_cast<int>(static_cast<uint32_t>(std::atoi(number)) + 1), next, 10);
        SetRawTag(counterTag, next, nullptr);

        char fresh[kTagNameSize + 8];
        std::snprintf(fresh, sizeof fresh, "Temp\\%s", number);
        std::free(path);
        path = copyOf(fresh);
        persistent = 0;
        hKey = nullptr;
        SetKeyName name;
        uint32_t disposition = 0;
        if (path != nullptr && name.join(rootPath, path))
            hKey = makeKey(HKEY_CLASSES_ROOT, name.text, false, &disposition);
        if (hKey == nullptr)
            break;
        if (disposition == REG_CREATED_NEW_KEY)
            return KAL_OK;
        RegCloseKey(hKey); // somebody else drew the number too
        hKey = nullptr;
    }
    std::free(path);
    path = nullptr;
    return KAL_ERR_TAG_KEY;
}

int16_t TagSet::GetTag(const char* tag, char* buffer, int size, const char* valueName) {
    TagSet* deepest = Deepest();
    const int16_t status = deepest->GetRawTag(tag, buffer, size, valueName);
    return status == KAL_OK ? status : deepest->GetWildTag(tag, buffer, size, valueName);
}

int16_t TagSet::GetRawTag(const char* tag, char* buffer, int size, const char* valueName) {
    for (TagSet* set = this; set != nullptr; set = set->parent) {
        set->GetReady();
        if (readSubkey(set->hKey, tag, buffer, size, valueName))
            return KAL_OK;
    }
    return KAL_ERR_TAG_MISSING;
}

void* TagSet::WildKey() {
    if (hWildKey == nullptr)
        hWildKey = openKey(hKey, kPatternsKey);
    return hWildKey;
}

int16_t TagSet::GetWildTag(const char* tag, char* buffer, int size, const char* valueName) {
    if (tag == nullptr)
        return KAL_ERR_TAG_MISSING;
    char name[kTagNameSize];
    for (TagSet* set = this; set != nullptr; set = set->parent) {
        if (set->WildKey() == nullptr)
            continue;
        if (readSubkey(set->hWildKey, tag, buffer, size, valueName))
            return KAL_OK;
        for (uint32_t i = 0; RegEnumKeyA(set->hWildKey, i, name, sizeof name) == ERROR_SUCCESS; i++)
            if (matchesPattern(name, tag) && readSubkey(set->hWildKey, name, buffer, size, valueName))
                return KAL_OK;
    }
    return KAL_ERR_TAG_MISSING;
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
    const char* folder = std::strchr(tag, '?') != nullptr ? "Wildcards\\" : "";
    const int length = std::snprintf(name, sizeof name, "%s%s", folder, tag);
    if (length < 0 || static_cast<size_t>(length) >= sizeof name)
        return KAL_OK; // no key can have that name
    const HKEY key = makeKey(hKey, name, persistent != 0);
    if (key == nullptr)
        return KAL_OK;
    int32_t code = ERROR_SUCCESS;
    if (value != nullptr && *value != 0)
        code = RegSetValueExA(key, valueName, 0, REG_SZ, reinterpret_cast<const uint8_t*>(value),
                              static_cast<uint32_t>(std::strlen(value) + 1));
    else
        RegDeleteKeyA(hKey, name);
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
