#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/picture.h"

#include <CLI/CLI.hpp>

namespace {

struct Arguments {
    std::string archive;
    uint32_t id = 0;
    std::string output;
    uint32_t memory = 0;
};

void extract(const Arguments& arguments) {
    const MovableMemory memory(arguments.memory);
    const auto archive = Archive::forReading(arguments.archive);
    if (arguments.id >= KAL_ITEM_FREE)
        throw Failure(arguments.archive, "there is no picture " + std::to_string(arguments.id));
    const auto id = static_cast<uint16_t>(arguments.id);
    archive->get(id, [&](OpList* list) {
        OutputFile out(arguments.output);
        getPicture(list, id, out);
        out.commit();
    });
}

} // namespace

void addExtract(CLI::App& program) {
    CLI::App* command = program.add_subcommand("extract", "Write a picture of an archive as the file it was");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("ARCHIVE", arguments->archive, "The archive")->required();
    command->add_option("ID", arguments->id, "The picture's id, as list shows it")->required();
    command->add_option("-o,--output", arguments->output, "The file to write")->required();
    addMemoryOption(command, arguments->memory);
    command->callback([arguments] { extract(*arguments); });
}
