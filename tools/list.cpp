#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/manners.h"
#include "tools/picture.h"
#include "tools/rows.h"

#include <algorithm>
#include <string>

namespace {

struct Arguments {
    std::string archive;
};

// What part of `of` a number is, with so many decimal places.
std::string fraction(uint64_t number, uint64_t of, size_t places) {
    for (size_t i = 0; i < places; i++)
        number *= 10;
    std::string text = std::to_string((number + of / 2) / std::max<uint64_t>(of, 1));
    text.insert(0, places + 1 - std::min(places + 1, text.size()), '0');
    return text.insert(text.size() - places, ".");
}

void addRow(Rows& rows, const kal::Entry& item, const PictureForm& form) {
    const std::string ratio = asked.json ? fraction(item.size, form.fileBytes, 4)
                                         : fraction(uint64_t{item.size} * 100, form.fileBytes, 1) + '%';
    rows.add({numberCell(item.id),
              textCell(form.kind == PictureKind::Bmp ? "bmp" : "png"),
              {std::to_string(form.width) + "x" + std::to_string(form.height), true},
              numberCell(form.width),
              numberCell(form.height),
              numberCell(form.bits),
              flagCell(form.topDown, "top-down", "bottom-up"),
              bytesCell(form.fileBytes),
              bytesCell(item.size),
              {ratio, true}});
}

void list(const Arguments& arguments) {
    const auto archive = Archive::forReading(arguments.archive);
    Rows rows({{"id", "id"},
               {"kind", "kind"},
               {nullptr, "size"},
               {"width", nullptr},
               {"height", nullptr},
               {"bits", "bits"},
               {"topDown", "rows"},
               {"bytes", "bytes"},
               {"stored", "stored"},
               {"ratio", "ratio"}});
    uint32_t lastId = 0;
    Failures failures;
    for (const kal::Entry& item : archive->pictures())
        failures.collect([&] {
            if (item.id <= lastId && !archive->isAlbum()) // ids only ever count up
                throw Failure(arguments.archive, "its index is damaged at id " + std::to_string(item.id));
            archive->get(item.id, [&](OpList* ops) { addRow(rows, item, getPictureForm(ops, item.id)); });
            lastId = item.id;
        });
    // What can be read is listed even where some cannot.
    rows.print();
    failures.end();
}

} // namespace

void addList(const Command& program) {
    auto arguments = std::make_shared<Arguments>();
    program
        .add(
            {"list", "List the pictures of an archive",
             R"(Of each picture: id, kind of file, size in pixels, bits a pixel, order of rows, bytes of its file, bytes stored, and their ratio.

Example:
  kal list pictures.kal)"})
        .needs("ARCHIVE", arguments->archive, "The archive")
        .json()
        .human()
        .does([arguments] { list(*arguments); });
}
