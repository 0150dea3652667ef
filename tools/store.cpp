#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/picture.h"
#include "tools/progress.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <iostream>

namespace {

struct Arguments {
    std::string archive;
    std::vector<std::string> pictures;
    bool plain = false;
    uint32_t memory = 0;
};

Picture readPicture(const std::string& path) {
    try {
        const File file = File::openIfThere(path, O_RDONLY);
        if (!file.isOpen())
            throw Failure(hostErrorText(ENOENT));
        return Picture(file);
    } catch (const Failure& failure) {
        throw Failure(path, failure.what());
    }
}

std::vector<uint16_t> storeAll(const Arguments& arguments) {
    const auto archive = Archive::forStoring(
        arguments.archive, arguments.plain ? Archive::Compression::None : Archive::Compression::AsItIs);
    const Progress progress(arguments.pictures.size());
    std::vector<uint16_t> ids;
    for (const std::string& path : arguments.pictures) {
        progress.show(ids.size(), path);
        Picture picture = readPicture(path);
        ids.push_back(archive->put([&picture](OpList* list, uint16_t id) { picture.put(list, id); }));
    }
    archive->commit();
    return ids;
}

void store(const Arguments& arguments) {
    const MovableMemory memory(arguments.memory);
    // Another process may make the archive at the same time: then these pictures are added to that one.
    for (int attempt = 0; attempt < 3; attempt++) {
        try {
            const std::vector<uint16_t> ids = storeAll(arguments);
            for (size_t i = 0; i < ids.size(); i++)
                std::cout << ids[i] << '\t' << arguments.pictures[i] << '\n';
            return;
        } catch (const ArchiveAppeared&) {
        }
    }
    throw Failure(arguments.archive, hostErrorText(EEXIST));
}

} // namespace

void addStore(CLI::App& program) {
    CLI::App* command = program.add_subcommand(
        "store", "Store BMP files in an archive, all or none, and print the id of each");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("ARCHIVE", arguments->archive, "The archive; made where there is none")->required();
    command
        ->add_option("PICTURE", arguments->pictures, "Uncompressed BMP files of 1, 4, 8 or 24 bits per pixel")
        ->required();
    command->add_flag("--plain", arguments->plain, "Do not compress (a new archive, or one made so)");
    addMemoryOption(command, arguments->memory);
    command->callback([arguments] { store(*arguments); });
}
