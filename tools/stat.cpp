#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/manners.h"
#include "tools/picture.h"
#include "tools/rows.h"

#include <algorithm>

namespace {

struct Holes {
    uint64_t count = 0;
    uint64_t bytes = 0;
};

// What lies behind the index's room and belongs to no item.
Holes holesOf(Archive& archive) {
    std::vector<kal::Entry> items = archive.items();
    std::sort(items.begin(), items.end(),
              [](const kal::Entry& a, const kal::Entry& b) { return a.offset < b.offset; });
    Holes holes;
    uint64_t end = archive.indexRoom();
    const auto passTo = [&](uint64_t offset) {
        if (offset > end) {
            holes.count++;
            holes.bytes += offset - end;
        }
    };
    for (const kal::Entry& item : items) {
        passTo(item.offset);
        end = std::max(end, uint64_t{item.offset} + item.size);
    }
    passTo(archive.bytes());
    return holes;
}

void stat(const std::string& path) {
    const auto archive = Archive::forReading(path);
    Failures failures;
    uint64_t bmp = 0, png = 0, files = 0, rows = 0, stored = 0;
    for (const kal::Entry& item : archive->pictures())
        failures.collect([&] {
            archive->get(item.id, [&](OpList* list) {
                const PictureForm form = getPictureForm(list, item.id);
                (form.kind == PictureKind::Bmp ? bmp : png)++;
                files += form.fileBytes;
                rows += form.rowsBytes();
                stored += item.size;
            });
        });
    const uint64_t entries = archive->index().count;
    const Holes holes = holesOf(*archive);
    const struct {
        const char* member;
        const char* what;
        Cell value;
    } facts[] = {
        {"pictures", "pictures", numberCell(bmp + png)},
        {"bmp", "  of BMP files", numberCell(bmp)},
        {"png", "  of PNG files", numberCell(png)},
        {"compressed", "compressed", flagCell(archive->compresses(), "yes", "no")},
        {"files", "bytes of the files", bytesCell(files)},
        {"rows", "bytes of their rows", bytesCell(rows)},
        {"stored", "bytes stored of them", bytesCell(stored)},
        {"archive", "bytes of the archive", bytesCell(archive->bytes())},
        {"index", "bytes of the index", bytesCell(archive->indexRoom())},
        {"entries", "entries in the index", numberCell(entries)},
        {"free", "  of removed pictures", numberCell(entries - archive->items().size())},
        {"holes", "holes", numberCell(holes.count)},
        {"holeBytes", "bytes in holes", bytesCell(holes.bytes)},
    };
    std::vector<Column> columns = {{nullptr, "what"}, {nullptr, "value"}};
    if (asked.json) {
        columns.clear();
        for (const auto& fact : facts)
            columns.push_back({fact.member, nullptr});
    }
    Rows table(columns);
    for (const auto& fact : facts)
        asked.json ? table.add({fact.value}) : table.add({{fact.what}, {fact.value.text, true}});
    table.print();
    failures.end();
}

} // namespace

void addStat(const Command& program) {
    auto archive = std::make_shared<std::string>();
    program
        .add(
            {"stat", "Show how an archive is filled",
             R"(Pictures, their bytes as files, as rows and as stored, and what of the archive removed pictures left free, in the index and in holes between the others.

Example:
  kal stat --human pictures.kal)"})
        .needs("ARCHIVE", *archive, "The archive")
        .json()
        .human()
        .does([archive] { stat(*archive); });
}
