// Listing the tags of a chain by prefix.
#include "settings/tag_keys.h"

#include <kal/tagset.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

struct TagSearch::Layout {
    static_assert(offsetof(TagSearch, prefixLen) == 2 * sizeof(void*));
    static_assert(offsetof(TagSearch, entry) == 2 * sizeof(void*) + 4);
    static_assert(offsetof(TagSearch, enumIndex) == 2 * sizeof(void*) + 4 + 260);
};

TagSearch::TagSearch(TagSet* searched, const char* searchedPrefix)
    : set(searched), prefix(searchedPrefix != nullptr ? searchedPrefix : ""),
      prefixLen(static_cast<int32_t>(std::strlen(prefix))), entry{}, enumIndex(0) {}

TagSearch::~TagSearch() = default;

char* TagSearch::NextTag() {
    const auto length = static_cast<size_t>(prefixLen);
    while (set != nullptr) {
        if (RegEnumKeyA(set->hKey, static_cast<uint32_t>(enumIndex), entry, kTagNameSize) != ERROR_SUCCESS) {
            if (set->parent == nullptr)
                return nullptr;
            set = set->parent;
            enumIndex = 0;
            continue;
        }
        enumIndex++;
        const size_t nameSize = std::strlen(entry) + 1;
        if (!namesBeginAlike(entry, prefix, length))
            continue;
        const char* value = set->GetTempTag(entry);
        const size_t room = sizeof entry - nameSize;
        const size_t valueLength = value != nullptr ? std::min(std::strlen(value), room - 1) : 0;
        if (valueLength > 0)
            std::memcpy(entry + nameSize, value, valueLength);
        entry[nameSize + valueLength] = 0;
        return entry + length;
    }
    return nullptr;
}
