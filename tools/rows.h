// What a command found, as a table or, where --json asks for it, as a JSON array with an object a row.
#ifndef KAL_TOOLS_ROWS_H
#define KAL_TOOLS_ROWS_H

#include "tools/text.h"

#include <cstdint>
#include <string>
#include <vector>

struct Column {
    const char* member;  // its name in JSON; null for one that only the table has
    const char* heading; // null for one that only JSON has
};

struct Cell {
    std::string json;  // JSON itself; empty: the row's object lacks the member
    std::string shown; // in the table
    bool right = false;
};
Cell numberCell(uint64_t number);
Cell bytesCell(uint64_t bytes);
// In the table escaped.
Cell textCell(const std::string& text, Encoding encoding = Encoding::Utf8);
Cell flagCell(bool flag, const char* yes, const char* no);

class Rows {
public:
    explicit Rows(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // A cell a column.
    void add(std::vector<Cell> cells) { rows_.push_back(std::move(cells)); }
    // To standard output.
    void print() const;
    std::string json() const;
    std::string table() const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

#endif
