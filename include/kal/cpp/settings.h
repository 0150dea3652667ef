// Settings that close themselves, as a range of names and values, and drafts of changes to them:
//
//     auto settings = kal::Settings::open("Maker\\App");
//     settings->set("View.Unit", "mm");
//     for (auto [name, value] : *settings)
//         std::printf("%s = %s\n", name.data(), value.data());
#ifndef KAL_CPP_SETTINGS_H
#define KAL_CPP_SETTINGS_H

#include <kal/cpp/owner.h>
#include <kal/tagset.h>

#include <iterator>
#include <memory>
#include <string>

namespace kal {

// A tag and its value, each ended by a zero; they stay until the iterator that showed them moves on.
struct Setting {
    std::string_view name;  // behind the prefix that was asked for
    std::string_view value; // whole, whatever its length
};

// The value of a tag through the chain of sets, as TagSet::GetTag finds it but of any length; KAL_ERR_TAG_MISSING
// where there is no such tag.
inline Expected<std::string> tagValue(TagSet* set, const char* tag) {
    // GetTag leaves the buffer as it was when the value does not fit, and no value is longer than this.
    constexpr size_t most = size_t{1} << 20;
    for (size_t size = 256;; size *= 16) {
        std::string value(size, '\0');
        const Status status = set->GetTag(tag, value.data(), static_cast<int>(size));
        if (!status.ok())
            return Unexpected{status};
        value.resize(std::strlen(value.c_str()));
        if (!value.empty() || size >= most)
            return value;
    }
}

// Goes over the tags whose names begin with a prefix, as TagSearch has them: those of the set in the order of their
// names, then those of its parent, and so on. Once.
class SettingIterator {
public:
    using value_type = Setting;        // made for each look
    using difference_type = ptrdiff_t; // of tags

    // At the first. The prefix is not copied.
    SettingIterator() = default;
    SettingIterator(TagSet* set, const char* prefix)
        : set_(set), prefix_(prefix), search_(new TagSearch(set, prefix)) {
        ++*this;
    }

    // The tag; see the standard's iterators.
    Setting operator*() const { return {name_, value_}; }
    SettingIterator& operator++() {
        name_ = search_ != nullptr ? search_->NextTag() : nullptr;
        if (name_ == nullptr)
            return *this;
        value_ = name_ + std::strlen(name_) + 1;
        // A value that fills what the search has for both may be cut, and one that is longer is not there at all.
        constexpr size_t room = 260;
        if (value_.empty() || size_t(value_.data() + value_.size() + 1 - name_) == room) {
            longValue_ = tagValue(set_, (prefix_ + std::string(name_)).c_str()).value_or("");
            value_ = longValue_;
        }
        return *this;
    }
    void operator++(int) { ++*this; }
    // Whether there is no tag any more.
    friend bool operator==(const SettingIterator& at, std::default_sentinel_t) { return at.name_ == nullptr; }

private:
    TagSet* set_ = nullptr;
    const char* prefix_ = "";
    std::unique_ptr<TagSearch> search_;
    const char* name_ = nullptr;
    std::string_view value_;
    std::string longValue_;
};

// The settings whose names begin with a prefix.
class SettingRange {
public:
    // Neither set nor prefix is copied.
    SettingRange(TagSet* set, const char* prefix) : set_(set), prefix_(prefix) {}
    SettingIterator begin() const { return {set_, prefix_}; }
    static std::default_sentinel_t end() { return {}; }

private:
    TagSet* set_;
    const char* prefix_;
};

// How a set ends. A temporary one goes with its tags.
struct SettingsTraits : RecordTraits<TagSet> {
    // Always 0.
    static Status close(TagSet* set) {
        delete set;
        return KAL_OK;
    }
};

// The parents that opening a set opened, the nearest first.
struct ParentsTraits : RecordTraits<TagSet> {
    // Ends all of them. Always 0.
    static Status close(TagSet* set) {
        while (set != nullptr)
            delete std::exchange(set, set->GetParent());
        return KAL_OK;
    }
};

// How a draft ends.
struct DraftTraits : RecordTraits<TagSet> {
    // Drops the changes. Always 0.
    static Status close(TagSet* set) {
        set->DestroyChild();
        return KAL_OK;
    }
};
// Changes that are collected in a child of a set, which hides the set's own values, until they are kept or dropped.
class Draft : public Owner<DraftTraits> {
public:
    using Owner::Owner;
    // Writes the changes to the set and ends the draft. The status of FuseWithParent.
    Status keep() {
        const Status status = get()->GetLastChild()->FuseWithParent();
        close();
        return status;
    }
};

// A set of settings. What it does not offer is reached by ->, which is the TagSet.
class Settings : public Owner<SettingsTraits> {
public:
    using Owner::Owner;
    // Moved as every owner is; ended before its parents.
    Settings(Settings&&) = default;
    Settings& operator=(Settings&&) = default;
    ~Settings() { close(); }

    // The set at a path, which is made and kept, or a temporary one, which goes with this. The statuses of
    // TagSet::SetPath, or KAL_ERR_MEMORY.
    static Expected<Settings> open(const char* path) {
        auto made = temporary();
        const Status status = made ? Status((*made)->SetPath(path, 1)) : made.error();
        if (!status.ok())
            return Unexpected{status};
        made->parents_ = Owner<ParentsTraits>((*made)->GetParent());
        return made;
    }
    static Expected<Settings> temporary() {
        return opened<Settings>([](TagSet** out) {
            *out = new TagSet;
            return *out != nullptr ? KAL_OK : KAL_ERR_MEMORY;
        });
    }

    // Read and write through the chain of sets; an empty value removes the tag. Statuses as those of TagSet.
    Expected<std::string> get(const char* tag) const { return tagValue(get(), tag); }
    Status set(const char* tag, const char* value) { return get()->SetTag(tag, value); }
    Status set(const char* tag, const std::string& value) { return set(tag, value.c_str()); }
    using Owner::get;

    // Starts a draft: from now on set() writes to it and get() sees it. One at a time; KAL_ERR_MEMORY.
    Expected<Draft> draft() {
        if (get()->CreateChild() == nullptr)
            return Unexpected{KAL_ERR_MEMORY};
        return Draft(get());
    }

    // All tags, or those whose names begin with a prefix, which must outlive the range.
    SettingIterator begin() const { return {get(), ""}; }
    static std::default_sentinel_t end() { return {}; }
    SettingRange withPrefix(const char* prefix) const { return {get(), prefix}; }

private:
    Owner<ParentsTraits> parents_;
};

static_assert(std::input_iterator<SettingIterator>);

} // namespace kal

#endif
