#include "tools/rows.h"

#include "tools/manners.h"

#include <algorithm>
#include <cstring>
#include <iostream>

Cell numberCell(uint64_t number) {
    return {std::to_string(number), true};
}

Cell bytesCell(uint64_t bytes) {
    return {asked.json ? std::to_string(bytes) : shownBytes(bytes), true};
}

Cell textCell(const std::string& text, Encoding encoding) {
    return {asked.json ? jsonText(text, encoding) : escaped(text)};
}

Cell flagCell(bool flag, const char* yes, const char* no) {
    if (asked.json)
        return {flag ? "true" : "false"};
    return {flag ? yes : no};
}

void Rows::add(std::initializer_list<Cell> row) {
    for (const Cell& cell : row) {
        texts_ += cell.text;
        cells_.push_back({texts_.size(), cell.right});
    }
}

std::string_view Rows::textOf(size_t cell) const {
    const size_t start = cell > 0 ? cells_[cell - 1].end : 0;
    return std::string_view(texts_).substr(start, cells_[cell].end - start);
}

std::string Rows::json() const {
    std::string text = "[";
    for (size_t row = 0; row < cells_.size(); row += columns_.size()) {
        text += row == 0 ? "\n  {" : ",\n  {";
        const char* between = "\"";
        for (size_t i = 0; i < columns_.size(); i++) {
            if (columns_[i].member == nullptr || textOf(row + i).empty())
                continue;
            (((text += between) += columns_[i].member) += "\": ") += textOf(row + i);
            between = ", \"";
        }
        text += '}';
    }
    return text + (cells_.empty() ? "]" : "\n]");
}

// Each column as wide as its widest cell; no spaces at the end of a line.
std::string Rows::table() const {
    std::vector<size_t> widths;
    for (const Column& column : columns_)
        widths.push_back(column.heading != nullptr ? std::strlen(column.heading) : 0);
    for (size_t i = 0; i < cells_.size(); i++) {
        size_t& width = widths[i % columns_.size()];
        width = std::max(width, textOf(i).size());
    }

    std::string text;
    const auto line = [&](auto textAt) {
        const size_t start = text.size();
        for (size_t i = 0; i < columns_.size(); i++) {
            if (columns_[i].heading == nullptr)
                continue;
            const std::string_view shown = textAt(i);
            const size_t padding = widths[i] - shown.size();
            const bool right = !cells_.empty() && cells_[i].right;
            text.append(text.size() == start ? 0 : 2, ' ').append(right ? padding : 0, ' ');
            text.append(shown).append(right ? 0 : padding, ' ');
        }
        text.resize(std::max(text.find_last_not_of(' ') + 1, start));
        text += '\n';
    };
    line([this](size_t i) { return std::string_view(columns_[i].heading); });
    for (size_t row = 0; row < cells_.size(); row += columns_.size())
        line([this, row](size_t i) { return textOf(row + i); });
    return text;
}

std::string Rows::text() const {
    return asked.json ? json() : table();
}

void Rows::print() const {
    std::cout << text() << (asked.json ? "\n" : "");
}
