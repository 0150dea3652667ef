// kal check: every fault of a stored file, and what still reads of it saved.
#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/manners.h"
#include "tools/progress.h"
#include "tools/recover.h"
#include "tools/rows.h"

#include <kal/verify.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <map>
#include <optional>

namespace {

struct Arguments {
    std::string file;
    std::string kind;
    std::string recoverTo;
};

// The faults, as they are told.
class Faults final : public FaultSink {
public:
    void Fault(uint64_t offset, uint32_t id, const char* text) override {
        const bool ofFile = id == KAL_FAULT_OF_FILE;
        rows.add({numberCell(offset), ofFile ? noNumberCell() : numberCell(id), textCell(text)});
        firstOf.emplace(id, text);
        count++;
    }
    Rows rows{{{"offset", "offset"}, {"id", "id"}, {"fault", "fault"}}};
    std::map<uint32_t, std::string> firstOf; // each id
    size_t count = 0;
};

const KindNames& namesOf(FileKind kind) {
    return *std::find_if(std::begin(kindNames), std::end(kindNames),
                         [kind](const KindNames& names) { return names.kind == kind; });
}

FileKind kindOf(const StoredFile& file, const std::string& name) {
    for (const KindNames& names : kindNames)
        if (name == names.name)
            return names.kind;
    return file.kind();
}

int32_t walk(SFILE* stream, FileKind kind, FaultSink& sink) {
    switch (kind) {
    case FileKind::Archive:
    case FileKind::Lists:
        return KalVerifyIOpFile(stream, sink);
    case FileKind::Items:
        return KalVerifyIFile(stream, sink);
    case FileKind::Resources:
        return KalVerifyResources(stream, sink);
    case FileKind::Compound:
        return KalVerifyCompoundFile(stream, sink);
    case FileKind::Registry:
        return KalVerifyRegistry(stream, sink);
    }
    return 0;
}

// Whether the archive's first list is the mark that it is one.
bool isMarked(const std::string& archive) {
    try {
        return !Archive::forReading(archive)->isAlbum();
    } catch (const Damaged&) {
        return false;
    }
}

// Beyond what any list must be: that it is an archive, and that each picture is the one that was stored.
void checkArchive(const StoredFile& file, Faults& faults) {
    IOPFILE* raw = nullptr;
    if (KalMakeIOpFile(&raw, file.stream(), 0) != 0)
        return faults.Fault(0, KAL_FAULT_OF_FILE, "it cannot be opened as an archive");
    const ListsPtr lists(raw);
    for (const kal::Entry& item : itemsOf(raw->ifile)) {
        if (faults.firstOf.count(item.id) != 0)
            continue;
        try {
            if (item.id != 0)
                checkPicture(*raw, item.id);
            else if (!isMarked(file.path()))
                faults.Fault(item.offset, item.id, "it is not the mark of a picture archive");
        } catch (const Damaged& damaged) {
            faults.Fault(item.offset, item.id, damaged.what());
        }
    }
}

Recovered save(const StoredFile& file, FileKind kind, const Faults& faults, const std::string& out) {
    switch (kind) {
    case FileKind::Archive:
        return recoverArchive(file, out);
    case FileKind::Lists:
        return recoverLists(file, out);
    case FileKind::Compound:
        return recoverCompound(file, out);
    case FileKind::Registry:
        return recoverRegistry(file, out, [&](uint32_t record) { return faults.firstOf.count(record) == 0; });
    default:
        return recoverItems(file, out);
    }
}

Recovered recover(const StoredFile& file, FileKind kind, const Faults& faults, const std::string& out) {
    Recovered recovered = save(file, kind, faults, out);
    if (kind != FileKind::Compound) // the walk says more than a reader does
        for (Lost& one : recovered.lost)
            if (const auto fault = faults.firstOf.find(static_cast<uint32_t>(std::stoul(one.name)));
                fault != faults.firstOf.end())
                one.why = fault->second;
    return recovered;
}

void print(const Arguments& arguments, FileKind kind, const Faults& faults,
           const std::optional<Recovered>& recovered) {
    Rows lost({{"id", "lost"}, {"why", "why"}});
    if (recovered)
        for (const Lost& one : recovered->lost)
            lost.add({textCell(one.name), textCell(one.why)});
    if (asked.json) {
        std::cout << "{\"kind\": " << jsonText(namesOf(kind).name, Encoding::Utf8)
                  << ", \"whole\": " << (faults.count == 0 ? "true" : "false")
                  << ", \"faults\": " << faults.rows.text();
        if (recovered)
            std::cout << ", \"saved\": " << recovered->saved << ", \"lost\": " << lost.text();
        std::cout << "}\n";
        return;
    }
    if (faults.count > 0)
        std::cout << faults.rows.text();
    else if (!asked.quiet)
        std::cout << arguments.file << ": " << namesOf(kind).words << ", whole\n";
    if (recovered && !recovered->lost.empty())
        std::cout << '\n' << lost.text();
    if (recovered && !asked.quiet)
        std::cout << (faults.count > 0 ? "\n" : "") << "saved " << recovered->saved << ", lost "
                  << recovered->lost.size() << ": " << arguments.recoverTo << '\n';
}

void check(const Arguments& arguments) {
    const StoredFile file(arguments.file);
    const FileKind kind = kindOf(file, arguments.kind);
    Faults faults;
    std::optional<Recovered> recovered;
    std::exception_ptr failed;
    {
        const uint64_t rounds = (kind == FileKind::Archive ? 2 : 1) + (arguments.recoverTo.empty() ? 0 : 2);
        const Progress progress(file.file().size() * rounds);
        const int32_t result = walk(file.stream(), kind, faults);
        throwIfInterrupted();
        if (result < 0)
            throw Failure(arguments.file, statusText(static_cast<int16_t>(result)));
        if (kind == FileKind::Archive)
            checkArchive(file, faults);
        try {
            if (!arguments.recoverTo.empty())
                recovered = recover(file, kind, faults, arguments.recoverTo);
        } catch (const Failure&) {
            failed = std::current_exception(); // once the faults are told
        }
    }
    print(arguments, kind, faults, recovered);
    if (failed)
        std::rethrow_exception(failed);
    if (faults.count > 0)
        throw Failure(arguments.file, std::string("a damaged ") + namesOf(kind).words + ": " +
                                          std::to_string(faults.count) +
                                          (faults.count == 1 ? " fault" : " faults"));
}

} // namespace

void addCheck(const Command& program) {
    auto arguments = std::make_shared<Arguments>();
    std::vector<std::string> kinds;
    for (const KindNames& names : kindNames)
        kinds.emplace_back(names.name);
    program
        .add(
            {"check", "Look for damage in a file of any kind that the library stores",
             R"(Prints each fault with its offset in bytes, the id of the picture, list or item (in a compound file the number of the directory entry, in the registry's log that of the record), and what is wrong. The exit status is 1 when there is any.

What the file is shows from its bytes; where it does not, --as says it: archive, lists (operation lists), items, resources, compound, registry.

--recover makes a new file of the same kind with every picture, list, item, stream or record that still reads, and says what is lost.

Example:
  kal check pictures.kal
  kal check pictures.kal --recover saved.kal)"})
        .needs("FILE", arguments->file, "The file")
        .takes("--as", arguments->kind, "What the file is", {.shown = "KIND", .words = kinds})
        .takes("--recover", arguments->recoverTo, "Save what still reads in this new file", {"OUT"})
        .json()
        .does([arguments] { check(*arguments); });
}
