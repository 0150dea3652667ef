// kal settings: looks at and mends what tag sets keep.
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/manners.h"
#include "tools/rows.h"

#include <kal/cpp/settings.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <vector>

namespace {

struct Arguments {
    std::string path;
    std::string tag;
    std::string value;
};

// A set as a person names it: opened only if it is there, without its parents' tags.
class OpenedSet {
public:
    // Opening makes a set that is missing, so ask the one above first, name by name.
    static bool exists(const std::string& path) {
        for (size_t end = 0; end != std::string::npos && !path.empty();) {
            const size_t start = end == 0 ? 0 : end + 1;
            end = path.find('\\', start);
            const std::string name = path.substr(start, end == std::string::npos ? end : end - start);
            if (name.empty())
                return false;
            OpenedSet above(start == 0 ? "" : path.substr(0, start - 1));
            if (above.set_.GetRawTag(name.c_str(), nullptr, 0) != KAL_OK)
                return false;
        }
        return true;
    }

    explicit OpenedSet(const std::string& path) {
        const int16_t status = set_.SetPath(path.c_str(), 1);
        TagSet* const parents = set_.GetParent();
        set_.SetParent(nullptr);
        kal::ParentsTraits::close(parents);
        if (status != KAL_OK)
            throw Failure("settings " + path, statusText(status));
    }

    TagSet& operator*() { return set_; }

private:
    TagSet set_;
};

struct Entry {
    std::string name;
    std::string value;
};

// Whether the set has the tag or pattern itself.
bool holds(TagSet& set, const std::string& tag) {
    const bool isPattern = tag.find('?') != std::string::npos;
    return (isPattern ? set.GetTag(tag.c_str(), nullptr, 0) : set.GetRawTag(tag.c_str(), nullptr, 0)) ==
           KAL_OK;
}

std::vector<Entry> entriesOf(TagSet& set) {
    std::vector<Entry> entries;
    for (const auto [name, value] : kal::SettingRange(&set, ""))
        entries.push_back({std::string(name), std::string(value)});
    return entries;
}

void printEntries(const std::vector<Entry>& entries) {
    for (const Entry& entry : entries)
        std::cout << escaped(entry.name) << " = " << escaped(entry.value) << '\n';
}

void printJson(const std::vector<Entry>& entries) {
    Rows rows({{"tag", "tag"}, {"value", "value"}});
    for (const Entry& entry : entries)
        rows.add({textCell(entry.name, Encoding::Bytes), textCell(entry.value, Encoding::Bytes)});
    rows.print();
}

// What the library calls missing may be what it had no memory for.
void requireMemory() {
    if (KalFailedSMem() != 0)
        throw std::bad_alloc();
}

void requireSet(const std::string& path) {
    const bool exists = OpenedSet::exists(path);
    requireMemory();
    if (!exists)
        throw Failure("settings " + path, "there is no such set");
}

void list(const Arguments& arguments) {
    requireSet(arguments.path);
    OpenedSet set(arguments.path);
    std::vector<Entry> entries = entriesOf(*set);
    const size_t tags = entries.size();
    std::erase_if(entries, [](const Entry& entry) { return entry.name == "Wildcards"; });
    if (entries.size() < tags) {
        OpenedSet patterns(arguments.path.empty() ? "Wildcards" : arguments.path + "\\Wildcards");
        for (const Entry& pattern : entriesOf(*patterns))
            entries.push_back(pattern);
    }
    requireMemory();
    asked.json ? printJson(entries) : printEntries(entries);
}

void get(const Arguments& arguments) {
    requireSet(arguments.path);
    OpenedSet set(arguments.path);
    const auto value = kal::tagValue(&*set, arguments.tag.c_str());
    requireMemory();
    if (!value)
        throw Failure("settings " + arguments.path, "there is no tag " + arguments.tag);
    std::cout << *value << '\n';
}

void write(const Arguments& arguments, const char* value) {
    OpenedSet set(arguments.path);
    const int16_t status = (*set).SetRawTag(arguments.tag.c_str(), value);
    if (status != KAL_OK)
        throw Failure("settings " + arguments.path, statusText(status));
}

void set(const Arguments& arguments) {
    if (arguments.value.empty())
        throw Failure("settings " + arguments.path, "a tag cannot be empty; unset removes it");
    write(arguments, arguments.value.c_str());
    // A name that no tag can have is not written, and the library does not tell. Where memory was short but the value can be
    // read, it was written all the same.
    OpenedSet opened(arguments.path);
    if (holds(*opened, arguments.tag) &&
        kal::tagValue(&*opened, arguments.tag.c_str()).value_or("") == arguments.value)
        return;
    requireMemory();
    throw Failure("settings " + arguments.path, "no tag can be named " + arguments.tag);
}

void unset(const Arguments& arguments) {
    requireSet(arguments.path);
    OpenedSet opened(arguments.path);
    const bool is = holds(*opened, arguments.tag);
    requireMemory();
    if (!is)
        throw Failure("settings " + arguments.path, "there is no tag " + arguments.tag);
    write(arguments, nullptr);
}

void printTree(const std::string& path, const std::string& indent) {
    std::vector<Entry> entries;
    {
        OpenedSet set(path);
        entries = entriesOf(*set);
        requireMemory();
    }
    for (const Entry& entry : entries) {
        std::cout << indent << escaped(entry.name);
        if (!entry.value.empty())
            std::cout << " = " << escaped(entry.value);
        std::cout << '\n';
        const std::string below = path.empty() ? entry.name : path + "\\" + entry.name;
        if (below.size() + std::strlen(KAL_SETTINGS_ROOT) < size_t(KAL_TAG_PATH_SIZE))
            printTree(below, indent + "  ");
    }
}

} // namespace

void addSettings(const Command& program) {
    const Command settings = program.add(
        {"settings", "Look at and change settings",
         R"(A set of settings is named by its path, its parts with \ between them; a tag whose name holds a ? is a pattern.

Example:
  kal settings list 'Maker\App')"});
    auto arguments = std::make_shared<Arguments>();
    const auto add = [&](const CommandText& text, void (*action)(const Arguments&)) {
        return settings.add(text).does([arguments, action] { action(*arguments); });
    };
    const auto addForTag = [&](const CommandText& text, void (*action)(const Arguments&)) {
        return add(text, action)
            .needs("PATH", arguments->path, "The set, its parts with \\ between them")
            .needs("TAG", arguments->tag, "The tag, or a pattern with ?");
    };
    add({"list", "List the tags and patterns of a set", R"(Example:
  kal settings list 'Maker\App')"},
        list)
        .takes("PATH", arguments->path, "The set; the sets at the top when it is left out")
        .json();
    addForTag({"get", "Print a tag of a set", R"(Example:
  kal settings get 'Maker\App' Colour)"},
              get);
    addForTag({"set", "Set a tag; makes the set if it is new", R"(Example:
  kal settings set 'Maker\App' Colour blue)"},
              set)
        .needs("VALUE", arguments->value, "The text");
    addForTag({"unset", "Remove a tag", R"(Example:
  kal settings unset 'Maker\App' Colour)"},
              unset);
    add({"tree", "Print all sets with their tags", R"(Example:
  kal settings tree)"},
        [](const Arguments&) { printTree("", ""); });
}
