#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/manners.h"
#include "tools/picture.h"
#include "tools/picture_source.h"
#include "tools/progress.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <filesystem>
#include <iostream>

namespace {

struct Arguments {
    std::string archive;
    std::vector<std::string> pictures;
    bool plain = false;
    bool dib = false;
};

uint16_t storeOne(Archive& archive, const std::string& path, bool bands) {
    try {
        const File file = File::openIfThere(path, O_RDONLY);
        if (!file.isOpen())
            throw Failure(hostErrorText(ENOENT));
        const auto source = PictureSource::open(file);
        if (const char* lost = source->whatIsLost())
            tell(path + ": " + lost);
        const StoreOptions options = {path, bands, archive.compresses()};
        return archive.put([&](OpList* list, uint16_t id) { putPicture(*source, options, list, id); });
    } catch (const Failure& failure) {
        throw failure.of(path);
    }
}

std::vector<uint16_t> storeAll(const Arguments& arguments) {
    const auto archive = Archive::forStoring(
        arguments.archive, arguments.plain ? Archive::Compression::None : Archive::Compression::AsItIs);
    uint64_t bytes = 0;
    for (const std::string& path : arguments.pictures) {
        std::error_code error;
        if (const auto size = std::filesystem::file_size(path, error); !error)
            bytes += size;
    }
    const Progress progress(bytes);
    std::vector<uint16_t> ids;
    for (const std::string& path : arguments.pictures) {
        Progress::of(path);
        ids.push_back(storeOne(*archive, path, arguments.dib));
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
    CLI::App* command = addCommand(
        program,
        {"store", "Store pictures in an archive, all or none, and print the id of each",
         R"(A BMP file without runs comes back byte for byte; of other BMP files and of PNG files the pixels come back exactly, and the command says so. An archive holds 3,265 pictures.

Example:
  kal store pictures.kal lake.bmp hill.bmp)"});
    auto arguments = std::make_shared<Arguments>();
    command->add_option("ARCHIVE", arguments->archive, "The archive; made where there is none")->required();
    command->add_option("PICTURE", arguments->pictures, "BMP and PNG files")->required();
    command->add_flag("--plain", arguments->plain, "Do not compress (a new archive, or one made so)");
    command->add_flag("--dib", arguments->dib,
                      "Store rows as DIB operations, for programs that play them into a bitmap list");
    command->callback([arguments] { store(*arguments); });
}
