#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/manners.h"
#include "tools/picture_file.h"
#include "tools/progress.h"

#include <CLI/CLI.hpp>

#include <strings.h>

namespace {

struct Arguments {
    std::string archive;
    uint32_t id = 0;
    std::string output;
};

bool endsInPng(const std::string& path) {
    return path.size() >= 4 && ::strcasecmp(path.c_str() + path.size() - 4, ".png") == 0;
}

void extract(const Arguments& arguments) {
    const auto archive = Archive::forReading(arguments.archive);
    if (arguments.id >= KAL_ITEM_FREE)
        throw Failure(arguments.archive, "there is no picture " + std::to_string(arguments.id));
    const auto id = static_cast<uint16_t>(arguments.id);
    const PictureFileAs as = endsInPng(arguments.output) ? PictureFileAs::Png : PictureFileAs::Bmp;
    archive->get(id, [&](OpList* list) {
        OutputFile out(arguments.output);
        std::unique_ptr<PictureFile> file;
        std::optional<Progress> progress;
        getPicture(list, id, [&](const PictureForm& form) -> PictureTaker& {
            progress.emplace(form.fileBytes);
            file = makePictureFile(out, form, as);
            return *file;
        });
        file->finish();
        out.commit();
    });
}

} // namespace

void addExtract(CLI::App& program) {
    CLI::App* command =
        addCommand(program, {"extract", "Write a picture of an archive as a file again",
                             R"(A file that is there is replaced once the picture is known to be whole.

Example:
  kal extract pictures.kal 2 -o hill.bmp)"});
    auto arguments = std::make_shared<Arguments>();
    command->add_option("ARCHIVE", arguments->archive, "The archive")->required();
    command->add_option("ID", arguments->id, "The picture's id, as list shows it")->required();
    command
        ->add_option("-o,--output", arguments->output,
                     "The file to write: a PNG file where the name ends in .png, else a BMP file")
        ->required()
        ->option_text("FILE");
    command->callback([arguments] { extract(*arguments); });
}
