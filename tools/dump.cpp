// kal dump and kal cat: the operations of a stored picture as they are.
#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/manners.h"
#include "tools/ops.h"
#include "tools/picture_ops.h"
#include "tools/rows.h"

#include <kal/cpp/bitmap.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace {

constexpr size_t shownBytes = 16;

struct Arguments {
    std::string archive;
    uint32_t id = 0;
    uint32_t op = 0;
};

struct NumberedOp {
    uint32_t number;   // from 1 on
    uint64_t position; // of its header in the list, as it was before compression
    uint16_t type;
    ByteView bytes;

    const char* name() const {
        constexpr const char* names[] = {"form", "before", "transparency", "rows", "padding", "after", "end"};
        return type == KAL_OP_DIB                   ? "band"
               : type == kal::Bitmap::descriptionOp ? "description"
               : type >= opForm && type <= opEnd    ? names[type - opForm]
                                                    : "unknown";
    }
    bool isBand() const { return type == KAL_OP_DIB && bytes.size() >= KAL_DIB_OP_HEADER; }
    uint32_t firstRow() const { return isBand() ? load16(bytes, 2) : 0; }
    uint32_t rows() const { return isBand() ? load16(bytes, 6) : 0; }
};

// Calls `use` with one operation of a picture after another.
template <class Use>
void forOps(const Arguments& arguments, Use use) {
    const auto archive = Archive::forReading(arguments.archive);
    archive->get(arguments.id, [&](OpList* list) {
        NumberedOp numbered = {1, 0, 0, {}};
        while (const Op op = nextOp(list)) {
            numbered.type = KalOpType(op.get());
            numbered.bytes = payload(op);
            use(numbered);
            numbered.number++;
            numbered.position += KAL_OP_HEADER + numbered.bytes.size();
        }
    });
}

Cell cellOf(bool there, uint32_t number) {
    return there ? numberCell(number) : noNumberCell();
}

void dump(const Arguments& arguments) {
    Rows rows({{"op", "op"},
               {"position", "position"},
               {"type", "type"},
               {"name", "name"},
               {"firstRow", "first row"},
               {"rows", "rows"},
               {"bytes", "bytes"},
               {"start", "start"}});
    Failures failures;
    failures.collect([&] {
        forOps(arguments, [&](const NumberedOp& op) {
            std::string start;
            char text[8];
            for (const uint8_t byte : op.bytes.first(std::min(shownBytes, op.bytes.size()))) {
                std::snprintf(text, sizeof text, "%s%02x", start.empty() ? "" : " ", byte);
                start += text;
            }
            std::snprintf(text, sizeof text, "0x%04x", op.type);
            rows.add({numberCell(op.number),
                      numberCell(op.position),
                      {asked.json ? std::to_string(op.type) : text},
                      textCell(op.name()),
                      cellOf(op.isBand(), op.firstRow()),
                      cellOf(op.isBand(), op.rows()),
                      bytesCell(op.bytes.size()),
                      textCell(start)});
        });
    });
    rows.print(); // what can be read, also where the rest cannot
    failures.end();
}

void cat(const Arguments& arguments) {
    bool found = false;
    forOps(arguments, [&](const NumberedOp& op) {
        if (op.number != arguments.op)
            return;
        found = true;
        std::cout.write(reinterpret_cast<const char*>(op.bytes.data()),
                        static_cast<std::streamsize>(op.bytes.size()));
    });
    if (!found)
        throw Failure(arguments.archive, "picture " + std::to_string(arguments.id) + " has no operation " +
                                             std::to_string(arguments.op));
}

} // namespace

void addDump(const Command& program) {
    auto arguments = std::make_shared<Arguments>();
    const auto add = [&](const CommandText& text, void (*action)(const Arguments&)) {
        return program.add(text)
            .needs("ARCHIVE", arguments->archive, "The archive")
            .needs("ID", arguments->id, "The picture's id, as list shows it")
            .does([arguments, action] { action(*arguments); });
    };
    add({"dump", "Show the operations in which a picture is stored",
         R"(Of each operation: its number, where it stands in the list, its type, its first row and number of rows where it is a band of them, its bytes, and the first of these.

Example:
  kal dump pictures.kal 2)"},
        dump)
        .json()
        .human();
    add({"cat", "Write the bytes of an operation to standard output", R"(Example:
  kal cat pictures.kal 2 1 | od -A d -t x1)"},
        cat)
        .needs("OP", arguments->op, "The operation's number, as dump shows it");
}
