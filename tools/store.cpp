#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/in_order.h"
#include "tools/manners.h"
#include "tools/picture.h"
#include "tools/picture_source.h"
#include "tools/progress.h"

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <map>

namespace {

struct Arguments {
    std::string archive;
    std::vector<std::string> pictures;
    bool plain = false;
    bool dib = false;
    size_t jobs = 1;
};

struct Stored {
    uint16_t id;
    const char* lost; // why it will not come back as it was; or null
};

Stored storeOne(Archive& archive, uint16_t id, const std::string& path, bool bands) {
    try {
        const File file = File::toRead(path);
        const auto source = PictureSource::open(file);
        const StoreOptions options = {path, bands, archive.compresses()};
        archive.put(id, [&](OpList* list) { putPicture(*source, options, list, id); });
        return {id, source->whatIsLost()};
    } catch (const Failure& failure) {
        throw failure.of(path);
    }
}

// What the user is told of pictures that will not come back as they were: a line a reason.
std::vector<std::string> notesOn(const std::vector<Stored>& stored, const std::vector<std::string>& paths) {
    std::map<std::string, std::vector<size_t>> reasons;
    for (size_t i = 0; i < stored.size(); i++)
        if (stored[i].lost != nullptr)
            reasons[stored[i].lost].push_back(i);
    std::vector<std::string> notes;
    for (const auto& [reason, pictures] : reasons) {
        const size_t more = pictures.size() - 1;
        notes.push_back(paths[pictures[0]] + (more > 0 ? " and " + std::to_string(more) + " more: " : ": ") +
                        reason);
    }
    return notes;
}

void storeAll(const Arguments& arguments) {
    const auto archive = Archive::forStoring(
        arguments.archive, arguments.plain ? Archive::Compression::None : Archive::Compression::AsItIs);
    uint64_t bytes = 0;
    for (const std::string& path : arguments.pictures) {
        std::error_code error;
        if (const auto size = std::filesystem::file_size(path, error); !error)
            bytes += size;
    }
    const Progress progress(bytes);
    const size_t count = arguments.pictures.size();
    const uint16_t firstId = archive->nextId(count);
    std::vector<Stored> stored(count);
    const auto storeIn = [&](Archive& to, size_t i) {
        stored[i] = storeOne(to, static_cast<uint16_t>(firstId + i), arguments.pictures[i], arguments.dib);
    };
    if (arguments.jobs == 1 || count == 1) {
        for (size_t i = 0; i < count; i++) {
            Progress::of(arguments.pictures[i]);
            storeIn(*archive, i);
        }
    } else {
        size_t done = 0;
        inOrder(
            count, arguments.jobs,
            [&](size_t i, size_t end) {
                auto part = archive->scratch();
                for (; i < end; i++)
                    storeIn(*part, i);
                return part;
            },
            [&](const std::unique_ptr<Archive>& part) {
                Progress::of(arguments.pictures[done]);
                done += part->index().count;
                archive->takeAll(*part);
            });
    }
    const std::vector<std::string> notes = notesOn(stored, arguments.pictures);
    archive->commit(); // what comes now takes no memory, so that nothing fails once all is done
    Progress::hide();
    for (size_t i = 0; i < count; i++)
        std::cout << stored[i].id << '\t' << arguments.pictures[i] << '\n';
    for (const std::string& note : notes)
        tell(note);
}

void store(const Arguments& arguments) {
    // Another process may make the archive at the same time: then these pictures are added to that one.
    for (int attempt = 0; attempt < 3; attempt++) {
        try {
            return storeAll(arguments);
        } catch (const ArchiveAppeared&) {
        }
    }
    throw Failure(arguments.archive, hostErrorText(EEXIST));
}

} // namespace

void addStore(const Command& program) {
    auto arguments = std::make_shared<Arguments>();
    program
        .add(
            {"store", "Store pictures in an archive, all or none, and print the id of each",
             R"(A BMP file without runs comes back byte for byte; of other BMP files and of PNG files the pixels come back exactly, and the command says so. An archive holds 3,265 pictures.

Example:
  kal store pictures.kal lake.bmp hill.bmp)"})
        .needs("ARCHIVE", arguments->archive, "The archive; made where there is none")
        .needs("PICTURE", arguments->pictures, "BMP and PNG files; - is standard input")
        .flag("--plain", arguments->plain, "Do not compress (a new archive, or one made so)")
        .flag("--dib", arguments->dib,
              "Store rows as DIB operations, for programs that play them into a bitmap list")
        .jobs(arguments->jobs)
        .does([arguments] { store(*arguments); });
}
