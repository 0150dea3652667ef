// What a command found, as a table or, where --json asks for it, as a JSON array with an object a row.
#ifndef KAL_TOOLS_ROWS_H
#define KAL_TOOLS_ROWS_H

#include "tools/text.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

struct Column {
    const char* member;  // its name in JSON; null for one that only the table has
    const char* heading; // null for one that only JSON has
};

// Made for what is asked: the table or JSON.
struct Cell {
    std::string text; // JSON itself; empty: the row's object lacks the member
    bool right = false;
};
Cell numberCell(uint64_t number);
Cell bytesCell(uint64_t bytes);
// In the table escaped.
Cell textCell(const std::string& text, Encoding encoding = Encoding::Utf8);
Cell flagCell(bool flag, const char* yes, const char* no);
inline Cell noNumberCell() {
    return {"", true};
}

class Rows {
public:
    explicit Rows(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // A cell a column.
    void add(std::initializer_list<Cell> row);
    // The array without a line's end, or the table.
    std::string text() const;
    // To standard output.
    void print() const;

private:
    std::string json() const;
    std::string table() const;

    // A cell's text in `texts_`, in which there are all, row after row.
    struct Place {
        size_t end;
        bool right;
    };
    std::string_view textOf(size_t cell) const;

    std::vector<Column> columns_;
    std::vector<Place> cells_;
    std::string texts_;
};

#endif
