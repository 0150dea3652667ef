#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/in_order.h"
#include "tools/manners.h"
#include "tools/picture_file.h"
#include "tools/progress.h"

#include <filesystem>
#include <iostream>
#include <strings.h>

namespace {

struct Arguments {
    std::string archive;
    std::vector<uint32_t> ids;
    std::string output;
    bool all = false;
    bool png = false;
    size_t jobs = 1;
};

bool endsInPng(const std::string& path) {
    return path.size() >= 4 && ::strcasecmp(path.c_str() + path.size() - 4, ".png") == 0;
}

// In a folder a picture's file is named by its id and of the kind that was stored.
std::string nameIn(const std::string& folder, uint32_t id, bool png) {
    return (std::filesystem::path(folder) / std::to_string(id)).string() + (png ? ".png" : ".bmp");
}

std::string extractOne(Archive& archive, uint32_t id, const Arguments& arguments, bool toFolder) {
    std::string path = arguments.output;
    archive.get(id, [&](OpList* list) {
        std::optional<Progress> progress;
        std::optional<OutputFile> out;
        std::unique_ptr<PictureFile> file;
        getPicture(list, static_cast<uint16_t>(id), [&](const PictureForm& form) -> PictureTaker& {
            if (toFolder)
                path = nameIn(arguments.output, id, arguments.png || form.kind == PictureKind::Png);
            else
                progress.emplace(form.fileBytes);
            out.emplace(path);
            file = makePictureFile(
                *out, form, arguments.png || endsInPng(path) ? PictureFileAs::Png : PictureFileAs::Bmp);
            return *file;
        });
        file->finish();
        out->commit();
    });
    return path;
}

// Of a picture that cannot be had the others take no notice.
void extractToFolder(const Arguments& arguments, const std::vector<uint32_t>& ids) {
    struct Extracted {
        std::vector<std::pair<uint32_t, std::string>> files;
        Failures failures;
    };
    Failures failures;
    const Progress progress(0);
    inOrder(
        ids.size(), arguments.jobs,
        [&](size_t i, size_t end) {
            const auto archive = Archive::forReading(arguments.archive);
            Extracted done;
            for (; i < end; i++)
                done.failures.collect(
                    [&] { done.files.emplace_back(ids[i], extractOne(*archive, ids[i], arguments, true)); });
            return done;
        },
        [&](const Extracted& done) {
            for (const auto& [id, path] : done.files)
                std::cout << id << '\t' << path << '\n';
            failures.add(done.failures);
        });
    failures.end();
}

void extract(const Arguments& arguments) {
    const auto archive = Archive::forReading(arguments.archive);
    std::vector<uint32_t> ids = arguments.ids;
    if (arguments.all)
        for (const kal::Entry& picture : archive->pictures())
            ids.push_back(picture.id);
    if (std::filesystem::is_directory(arguments.output))
        return extractToFolder(arguments, ids);
    if (ids.size() != 1)
        throw Failure(arguments.output, "several pictures want a folder");
    extractOne(*archive, ids[0], arguments, false);
}

} // namespace

void addExtract(const Command& program) {
    auto arguments = std::make_shared<Arguments>();
    program
        .add(
            {"extract", "Write pictures of an archive as files again",
             R"(A file that is there is replaced once the picture is known to be whole. Of several pictures those that cannot be had are told of, and the others written.

Example:
  kal extract pictures.kal 2 -o hill.bmp
  kal extract --all pictures.kal -o folder)"})
        .needs("ARCHIVE", arguments->archive, "The archive")
        .takes("ID", arguments->ids, "The pictures' ids, as list shows them")
        .flag("--all", arguments->all, "All pictures")
        .needs("-o,--output", arguments->output,
               "The file to write, a PNG file where the name ends in .png, else a BMP file; - is standard "
               "output; into "
               "a folder go the files ID.bmp and ID.png, as they were stored",
               "FILE")
        .flag("--png", arguments->png, "Write PNG files, whatever the name")
        .jobs(arguments->jobs)
        .does([arguments] {
            if (arguments->ids.empty() != arguments->all)
                throw WrongUsage("either ID or --all is required");
            extract(*arguments);
        });
}
