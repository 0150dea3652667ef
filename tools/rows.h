// What a command found, as a table or, where --json asks for it, as a JSON array with an object a row.
#ifndef KAL_TOOLS_ROWS_H
#define KAL_TOOLS_ROWS_H

#include "tools/text.h"

#include <cstdint>
#include <initializer_list>
#include <string>
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
    void add(std::initializer_list<Cell> row) { cells_.insert(cells_.end(), row); }
    // The array without a line's end, or the table.
    std::string text() const;
    // To standard output.
    void print() const;

private:
    std::string json() const;
    std::string table() const;

    std::vector<Column> columns_;
    std::vector<Cell> cells_; // row after row
};

#endif
