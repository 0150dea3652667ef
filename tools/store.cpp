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
};

// The whole file, once its headers have shown that it is one to store.
std::vector<uint8_t> readPicture(const std::string& path) {
    const File file = File::openIfThere(path, O_RDONLY);
    if (!file.isOpen())
        throw Failure(hostErrorText(ENOENT));
    const uint64_t size = file.size();
    if (size > UINT32_MAX)
        throw Failure("it is larger than 4 GiB");
    bmpLayout(file.readAt(0, 8192), static_cast<uint32_t>(size));
    std::vector<uint8_t> bytes = file.readAt(0, static_cast<size_t>(size));
    checkPicture(bytes);
    return bytes;
}

std::vector<uint16_t> storeAll(const Arguments& arguments) {
    const auto archive = Archive::forStoring(
        arguments.archive, arguments.plain ? Archive::Compression::None : Archive::Compression::AsItIs);
    const Progress progress(arguments.pictures.size());
    std::vector<uint16_t> ids;
    for (const std::string& path : arguments.pictures) {
        progress.show(ids.size(), path);
        std::vector<uint8_t> file;
        try {
            file = readPicture(path);
        } catch (const Failure& failure) {
            throw Failure(path, failure.what());
        }
        ids.push_back(archive->put([&file](OpList* list, uint16_t id) { putPicture(list, id, file); }));
    }
    archive->commit();
    return ids;
}

void store(const Arguments& arguments) {
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
    command->callback([arguments] { store(*arguments); });
}
