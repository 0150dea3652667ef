// Sets layered over each other.
#include "settings/tag_cache.h"
#include "settings/tag_keys.h"

#include <kal/tagset.h>

#include <cstring>

TagSet* TagSet::Deepest() {
    TagSet* set = this;
    while (set->lastChild != nullptr)
        set = set->lastChild;
    return set;
}

void TagSet::Link(TagSet* above, TagSet* below) {
    // A ring of parents, or of children, would be walked for ever.
    for (TagSet* set = above; set != nullptr; set = set->parent)
        if (set == below)
            return;
    for (TagSet* set = below; set != nullptr; set = set->lastChild)
        if (set == above)
            return;
    TagCache::chainChanges++;
    above->lastChild = below;
    below->parent = above;
    below->SetTag(kParentTag, above->path, nullptr);
}

void TagSet::Unlink(TagSet*& link) {
    TagCache::chainChanges++;
    link = nullptr;
}

TagSet* TagSet::CreateChild() {
    auto* child = new TagSet;
    if (child != nullptr)
        Link(this, child);
    return child;
}

void TagSet::SetChild(TagSet* child) {
    if (child != nullptr)
        Link(this, child);
    else
        Unlink(lastChild);
}

void TagSet::SetParent(TagSet* newParent) {
    if (newParent != nullptr)
        Link(newParent, this);
    else
        Unlink(parent);
}

TagSet* TagSet::GetParent() {
    return parent;
}

TagSet* TagSet::GetLastChild() {
    return lastChild;
}

void TagSet::DestroyChild() {
    delete lastChild;
    Unlink(lastChild);
}

void TagSet::ForTags(KalTagCallback callback, void* context) {
    char name[kTagNameSize];
    for (uint32_t i = 0; RegEnumKeyA(hKey, i, name, sizeof name) == ERROR_SUCCESS; i++)
        if (callback(this, name, context) == 0)
            return;
}

int TagSet::FuseTag(TagSet* set, const char* tag, void*) {
    if (sameName(tag, kParentTag))
        return 1;
    const char* value = set->GetTempTag(tag);
    // "" stands for a value longer than a result buffer; or there is none, as in the patterns' key.
    if (value != nullptr && *value == 0)
        set->FuseKey(set->hKey, tag);
    else if (value != nullptr)
        set->parent->SetRawTag(tag, value, nullptr);
    return 1;
}

void TagSet::FuseKey(void* above, const char* name) {
    const HKEY key = openKey(above, name);
    char* value = key != nullptr ? loadValue(key) : nullptr;
    if (value != nullptr)
        parent->SetRawTag(name, value, nullptr);
    KalFreeSMem(value);
    RegCloseKey(key);
}

void TagSet::FusePatterns() {
    char name[kTagNameSize];
    if (WildKey() == nullptr)
        return;
    for (uint32_t i = 0; RegEnumKeyA(hWildKey, i, name, sizeof name) == ERROR_SUCCESS; i++)
        FuseKey(hWildKey, name);
}

int16_t TagSet::FuseWithParent() {
    if (parent == nullptr)
        return KAL_ERR_TAG_PARENT;
    ForTags(FuseTag, nullptr);
    FusePatterns();
    return KAL_OK;
}

int16_t TagSet::ClearTags() {
    RegCloseKey(hWildKey);
    hWildKey = nullptr;
    deleteSubkeys(hKey);
    return KAL_OK;
}
