// kal remove and kal pack: pictures out of an archive, and their bytes.
#include "tools/archive.h"
#include "tools/command.h"
#include "tools/manners.h"

namespace {

struct Arguments {
    std::string archive;
    std::vector<uint32_t> ids;
};

void remove(const Arguments& arguments) {
    const auto archive = Archive::forChanging(arguments.archive);
    for (const uint32_t id : arguments.ids)
        archive->remove(id);
    archive->commit();
}

} // namespace

void addRemove(const Command& program) {
    auto arguments = std::make_shared<Arguments>();
    program
        .add({"remove", "Remove pictures from an archive, all or none",
              R"(Their bytes stay in the archive until it is packed; their ids may be given again.

Example:
  kal remove pictures.kal 2 5)"})
        .needs("ARCHIVE", arguments->archive, "The archive")
        .needs("ID", arguments->ids, "The pictures' ids, as list shows them")
        .does([arguments] { remove(*arguments); });
    program
        .add(
            {"pack", "Write an archive anew, without what removed pictures left",
             R"(The old archive stays whole until the new one takes its place; other commands wait until then. The pictures keep their ids and are not read: damage stays.

Example:
  kal pack pictures.kal)"})
        .needs("ARCHIVE", arguments->archive, "The archive")
        .does([arguments] { Archive::forChanging(arguments->archive)->pack(); });
}
