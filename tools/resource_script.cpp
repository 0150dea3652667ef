#include "tools/resource_script.h"

#include "tools/failure.h"
#include "tools/file.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <set>

namespace {

constexpr uint64_t kLargestScript = 64 << 20;

std::vector<uint8_t> readWhole(const std::string& path, uint64_t most) {
    const File file = File::toRead(path);
    const uint64_t size = file.size();
    if (size > most)
        throw Failure("it is larger than " + std::to_string(most) + " bytes");
    return file.readAt(0, static_cast<size_t>(size));
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// One line, taken apart from its start. What is wrong is a Failure without the line's number.
class Line {
public:
    explicit Line(std::string text) : text_(std::move(text)) {
        while (!text_.empty() && (isBlank(text_.back()) || text_.back() == '\r'))
            text_.pop_back();
        skipBlanks();
    }

    bool isOver() const { return at_ == text_.size(); }
    bool isComment() const { return !isOver() && text_[at_] == '#'; }
    std::string word() {
        const size_t start = at_;
        while (!isOver() && !isBlank(text_[at_]))
            at_++;
        std::string word = text_.substr(start, at_ - start);
        skipBlanks();
        return word;
    }
    std::string rest() const { return text_.substr(at_); }
    std::string string() {
        if (text_[at_] != '"')
            throw Failure("a string must stand in quotes");
        std::string value;
        for (at_++; !isOver() && text_[at_] != '"';)
            value += text_[at_] == '\\' ? escaped() : text_[at_++];
        if (isOver())
            throw Failure("the last string has no closing quote");
        at_++;
        if (!isOver() && !isBlank(text_[at_]))
            throw Failure("a blank must follow a string");
        skipBlanks();
        return value;
    }

private:
    void skipBlanks() {
        while (!isOver() && isBlank(text_[at_]))
            at_++;
    }
    char escaped() {
        const char kind = at_ + 1 < text_.size() ? text_[at_ + 1] : ' ';
        at_ += 2;
        switch (kind) {
        case '"':
        case '\\':
            return kind;
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        case 'x':
            return byteOfDigits();
        default:
            throw Failure("unknown escape in a string");
        }
    }
    char byteOfDigits() {
        const char* const digits = text_.data() + std::min(at_, text_.size());
        const size_t left = text_.size() - std::min(at_, text_.size());
        uint8_t byte = 0;
        const auto [end, error] = std::from_chars(digits, digits + std::min<size_t>(2, left), byte, 16);
        if (error != std::errc() || end != digits + 2 || byte == 0)
            throw Failure("\\x wants two hexadecimal digits other than 00");
        at_ += 2;
        return static_cast<char>(byte);
    }

    std::string text_;
    size_t at_ = 0;
};

uint16_t parseId(const std::string& word) {
    uint16_t id = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), id);
    if (error != std::errc() || end != word.data() + word.size() || id == KAL_ITEM_FREE)
        throw Failure("a line begins with an id from 0 to 65534");
    return id;
}

// The strings, each ended by 0, and an empty one that ends them all.
std::vector<uint8_t> textBytes(Line& line) {
    if (line.isOver())
        throw Failure("a text needs a string");
    std::vector<uint8_t> bytes;
    while (!line.isOver()) {
        const std::string string = line.string();
        if (string.empty() && !bytes.empty())
            throw Failure("only the first string may be empty: an empty one ends the text");
        bytes.insert(bytes.end(), string.begin(), string.end());
        bytes.push_back(0);
    }
    bytes.push_back(0);
    return bytes;
}

std::vector<uint8_t> fileBytes(const Line& line, const std::filesystem::path& folder) {
    if (line.isOver())
        throw Failure("the name of a file is missing");
    return named(line.rest(), [&] { return readWhole((folder / line.rest()).string(), kLargestResource); });
}

Resource parse(Line& line, const std::filesystem::path& folder) {
    const uint16_t id = parseId(line.word());
    const std::string kind = line.word();
    if (kind != "text" && kind != "file")
        throw Failure("behind the id stands \"text\" or \"file\"");
    Resource resource{id, kind == "text" ? textBytes(line) : fileBytes(line, folder)};
    if (resource.bytes.size() > kLargestResource)
        throw Failure("the text is larger than " + std::to_string(kLargestResource) + " bytes");
    return resource;
}

std::vector<std::string> linesOf(const std::string& path) {
    const std::vector<uint8_t> bytes = named(path, [&] { return readWhole(path, kLargestScript); });
    std::vector<std::string> lines;
    for (auto start = bytes.begin(); start != bytes.end();) {
        const auto end = std::find(start, bytes.end(), uint8_t('\n'));
        lines.emplace_back(start, end);
        start = end == bytes.end() ? end : end + 1;
    }
    return lines;
}

} // namespace

std::vector<Resource> readResourceScript(const std::string& path) {
    const std::vector<std::string> lines = linesOf(path);
    std::vector<Resource> resources;
    std::set<uint16_t> ids;
    for (size_t i = 0; i < lines.size(); i++) {
        try {
            Line line(lines[i]);
            if (line.isOver() || line.isComment())
                continue;
            resources.push_back(parse(line, std::filesystem::path(path).parent_path()));
            if (!ids.insert(resources.back().id).second)
                throw Failure("the id stands in an earlier line already");
        } catch (const Failure& failure) {
            throw Failure(path + ":" + std::to_string(i + 1), failure.what());
        }
    }
    return resources;
}
