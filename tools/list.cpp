#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/picture.h"
#include "tools/text.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>

namespace {

struct Arguments {
    std::string archive;
    bool json = false;
};

struct Row {
    kal::Entry item;
    PictureForm form;
    const char* kind() const { return form.kind == PictureKind::Bmp ? "bmp" : "png"; }
    double ratio() const { return static_cast<double>(item.size) / form.fileBytes; }
};

template <class... Parts>
std::string format(const char* pattern, Parts... parts) {
    char text[256];
    const int length = std::snprintf(text, sizeof text, pattern, parts...);
    return {text, static_cast<size_t>(length)};
}

void printTable(const std::vector<Row>& rows) {
    std::cout << format("%5s  %-4s  %11s  %4s  %-9s  %10s  %10s  %6s\n", "id", "kind", "size", "bits", "rows",
                        "bytes", "stored", "ratio");
    for (const Row& row : rows) {
        const PictureForm& form = row.form;
        const std::string size = std::to_string(form.width) + "x" + std::to_string(form.height);
        std::cout << format("%5u  %-4s  %11s  %4u  %-9s  %10u  %10u  %5.1f%%\n", row.item.id, row.kind(),
                            size.c_str(), form.bits, form.topDown ? "top-down" : "bottom-up", form.fileBytes,
                            row.item.size, 100 * row.ratio());
    }
}

void printJson(const std::vector<Row>& rows) {
    JsonRows json;
    for (const Row& row : rows) {
        const PictureForm& form = row.form;
        json.add({{"id", std::to_string(row.item.id)},
                  {"kind", jsonText(row.kind(), Encoding::Utf8)},
                  {"width", std::to_string(form.width)},
                  {"height", std::to_string(form.height)},
                  {"bits", std::to_string(form.bits)},
                  {"topDown", form.topDown ? "true" : "false"},
                  {"bytes", std::to_string(form.fileBytes)},
                  {"stored", std::to_string(row.item.size)},
                  {"ratio", format("%.4f", row.ratio())}});
    }
    json.end();
}

void list(const Arguments& arguments) {
    const auto archive = Archive::forReading(arguments.archive);
    std::vector<Row> rows;
    std::string firstDamage;
    size_t damaged = 0;
    for (const kal::Entry& item : archive->pictures()) {
        try {
            if (!rows.empty() && item.id <= rows.back().item.id) // ids only ever count up
                throw Failure(arguments.archive, "its index is damaged at id " + std::to_string(item.id));
            archive->get(item.id, [&](OpList* ops) { rows.push_back({item, getPictureForm(ops, item.id)}); });
        } catch (const Failure& failure) {
            if (damaged++ == 0)
                firstDamage = failure.what();
        }
    }
    // What can be read is listed even where some cannot.
    arguments.json ? printJson(rows) : printTable(rows);
    if (damaged > 1)
        firstDamage += " (and " + std::to_string(damaged - 1) + " more)";
    if (damaged > 0)
        throw Failure(firstDamage);
}

} // namespace

void addList(CLI::App& program) {
    CLI::App* command = program.add_subcommand("list", "List the pictures of an archive");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("ARCHIVE", arguments->archive, "The archive")->required();
    command->add_flag("--json", arguments->json, "Print JSON");
    command->callback([arguments] { list(*arguments); });
}
