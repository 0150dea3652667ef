#include "tools/rows.h"

#include "tools/manners.h"

#include <algorithm>
#include <iostream>

Cell numberCell(uint64_t number) {
    return {std::to_string(number), std::to_string(number), true};
}

Cell bytesCell(uint64_t bytes) {
    return {std::to_string(bytes), shownBytes(bytes), true};
}

Cell textCell(const std::string& text, Encoding encoding) {
    return {jsonText(text, encoding), escaped(text)};
}

Cell flagCell(bool flag, const char* yes, const char* no) {
    return {flag ? "true" : "false", flag ? yes : no};
}

std::string Rows::json() const {
    std::string text = "[";
    for (const auto& row : rows_) {
        text += &row == rows_.data() ? "\n  {" : ",\n  {";
        const char* between = "\"";
        for (size_t i = 0; i < columns_.size(); i++) {
            if (columns_[i].member == nullptr || row[i].json.empty())
                continue;
            ((text += between) += columns_[i].member) += "\": " + row[i].json;
            between = ", \"";
        }
        text += '}';
    }
    return text + (rows_.empty() ? "]" : "\n]");
}

// Each column as wide as its widest cell, the last as wide as it comes.
std::string Rows::table() const {
    std::string text;
    std::vector<size_t> widths;
    std::vector<bool> right;
    for (size_t i = 0; i < columns_.size(); i++) {
        widths.push_back(columns_[i].heading != nullptr ? std::char_traits<char>::length(columns_[i].heading)
                                                        : 0);
        right.push_back(!rows_.empty() && rows_[0][i].right);
        for (const auto& row : rows_)
            widths[i] = std::max(widths[i], row[i].shown.size());
    }
    std::string line;
    const auto put = [&](size_t i, const std::string& shown) {
        const std::string padding(widths[i] - shown.size(), ' ');
        line += (line.empty() ? "" : "  ") + (right[i] ? padding + shown : shown + padding);
    };
    const auto end = [&] {
        text += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
        line.clear();
    };
    const auto each = [&](auto shown) {
        for (size_t i = 0; i < columns_.size(); i++)
            if (columns_[i].heading != nullptr)
                put(i, shown(i));
        end();
    };
    each([this](size_t i) { return std::string(columns_[i].heading); });
    for (const auto& row : rows_)
        each([&row](size_t i) { return row[i].shown; });
    return text;
}

void Rows::print() const {
    std::cout << (asked.json ? json() + '\n' : table());
}
