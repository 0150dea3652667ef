// kal resource make and kal resource list.
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/manners.h"
#include "tools/output_file.h"
#include "tools/resource_script.h"
#include "tools/rows.h"
#include "tools/stored_file.h"

#include <algorithm>
#include <memory>

namespace {

constexpr size_t kHeader = 4;
constexpr size_t kSpareEntries = 10; // a new file has room for these
constexpr size_t kMostResources = KAL_ITEMS_MAX_NARROW;

struct Arguments {
    std::string file;
    std::string script;
};

void require(bool done) {
    if (!done)
        throw Failure(statusText(KAL_ERR_MEMORY));
}

// The resources as an item file: behind the index, which has its final size from the start, one item after
// the other.
std::vector<uint8_t> itemFileOf(const std::vector<Resource>& resources) {
    auto memory = kal::Stream::open(nullptr, KAL_MODE_MEMORY | KAL_MODE_CREATE | KAL_MODE_UPDATE);
    require(memory.has_value());
    SFILE* const stream = memory->get();
    auto items = kal::ItemFile::over(std::move(*memory));
    require(items.has_value());
    require(items->reserve(static_cast<uint16_t>(resources.size())).ok());
    size_t end = kHeader + std::max(resources.size(), kSpareEntries) * sizeof(ItemIndexNarrow);
    for (const Resource& resource : resources) {
        const auto size = static_cast<uint16_t>(resource.bytes.size());
        ItemIndex* entry = KalAppendItemIndex(items->get());
        require(entry != nullptr);
        entry->narrow = {resource.id, size, static_cast<uint32_t>(end)};
        require(KalWriteItem(items->get(), entry, resource.bytes.data()) == size);
        end += size;
    }
    require(items->flush().ok());
    std::vector<uint8_t> bytes(end);
    stream->seek(stream, 0, KAL_SEEK_END);
    stream->seek(stream, 0, KAL_SEEK_START);
    require(stream->read(stream, bytes.data(), uint32_t(end)) == int32_t(end));
    return bytes;
}

void make(const Arguments& arguments) {
    const std::vector<Resource> resources = readResourceScript(arguments.script);
    if (resources.size() > kMostResources)
        throw Failure(arguments.script, std::to_string(kMostResources) + " resources are the most");
    OutputFile output(arguments.file);
    output.append(itemFileOf(resources));
    output.commit();
}

// --- Listing -------------------------------------------------------------------------------------------

// The strings of what can be a text: strings up to an empty one that ends the item. Empty where it cannot.
std::vector<std::string> stringsOf(const std::string& bytes) {
    std::vector<std::string> strings;
    size_t at = 0;
    do {
        const size_t end = bytes.find('\0', at);
        if (end == std::string::npos)
            return {};
        strings.push_back(bytes.substr(at, end - at));
        at = end + 1;
    } while (at < bytes.size() && bytes[at] != '\0');
    const auto isControl = [](char c) { return (c >= 0 && c < ' ' && c != '\n' && c != '\r' && c != '\t'); };
    const bool readable = std::none_of(strings.begin(), strings.end(), [&](const std::string& string) {
        return std::any_of(string.begin(), string.end(), isControl);
    });
    return readable && at + 1 == bytes.size() ? strings : std::vector<std::string>{};
}

struct Row {
    uint16_t id;
    std::string bytes;
    std::vector<std::string> strings;
};

template <class Write>
std::string join(const std::vector<std::string>& strings, const char* between, Write write) {
    std::string all;
    for (const std::string& string : strings)
        all += (&string == strings.data() ? "" : between) + write(string);
    return all;
}

void addRow(Rows& rows, const Row& row) {
    const auto text = [](const std::string& string) { return jsonText(string, Encoding::Bytes); };
    std::string content = asked.json ? "" : "data";
    if (!row.strings.empty())
        content =
            asked.json ? '[' + join(row.strings, ", ", text) + ']' : "text " + join(row.strings, " ", quoted);
    rows.add({numberCell(row.id), bytesCell(row.bytes.size()), {content}});
}

// The item file at `path`, open for reading.
kal::ItemFile openItems(const std::string& path) {
    return named(path, [&] {
        auto items = kal::ItemFile::over(kal::Stream(streamOver(File::toRead(path), 0).release()));
        require(items || items.error().code() != KAL_ERR_MEMORY);
        if (!items)
            throw Failure("not a resource file");
        return std::move(*items);
    });
}

Row readRow(IFILE* file, uint16_t id) {
    int32_t size = 0;
    const std::unique_ptr<char, int16_t (*)(void*)> bytes(KalGetItem(file, id, &size), KalFreeSMem);
    if (bytes == nullptr)
        throw Failure("resource " + std::to_string(id) + " is damaged");
    Row row{id, std::string(bytes.get(), static_cast<size_t>(size)), {}};
    row.strings = stringsOf(row.bytes);
    return row;
}

void list(const Arguments& arguments) {
    const kal::ItemFile items = openItems(arguments.file);
    Rows rows({{"id", "id"}, {"bytes", "bytes"}, {"text", "content"}});
    Failures damage;
    for (const kal::Entry& item : itemsOf(items.get()))
        damage.collect([&] { addRow(rows, readRow(items.get(), item.id)); });
    // What can be read is listed even where some cannot.
    rows.print();
    named(arguments.file, [&] { damage.end(); });
}

} // namespace

void addResource(const Command& program) {
    const Command resource = program.add({"resource", "Make or list a resource file", R"(Example:
  kal resource list program.res)"});
    auto arguments = std::make_shared<Arguments>();
    resource
        .add({"make", "Make a resource file from a script",
              R"(The script has a resource a line, the id, 0 to 65534, first:
  1 text "Open" "Close \"now\""
  2 file icon.bmp
  # a comment
Strings know \" \\ \n \r \t and \xHH. The name of a file is the rest of the line; a relative one counts from the script's folder.

Example:
  kal resource make program.res script.txt)"})
        .needs("OUT", arguments->file,
               "The resource file; one that is there is replaced; - is standard output")
        .needs("SCRIPT", arguments->script, "The script; - is standard input")
        .does([arguments] { make(*arguments); });
    resource
        .add({"list", "List the resources of a file",
              R"(Of each resource its id and bytes, and its strings where it can be a text.

Example:
  kal resource list program.res)"})
        .needs("FILE", arguments->file, "The resource file")
        .json()
        .human()
        .does([arguments] { list(*arguments); });
}
