// Compound files: what is in them, one stream out, one stream in.
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/file.h"
#include "tools/interrupt.h"
#include "tools/manners.h"
#include "tools/progress.h"
#include "tools/recover.h"
#include "tools/rows.h"

#include <kal/compound.h>

#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

namespace {

constexpr uint32_t kReading = STGM_READ | STGM_SHARE_DENY_WRITE;
constexpr uint32_t kUpdate = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr uint32_t kPiece = 1 << 20;
constexpr uint64_t kLongestStream = 0x80000000;
constexpr int kDeepest = 1000; // storages inside one another

struct Arguments {
    std::string file;
    std::string stream;
    std::string input;
};

template <class Interface>
struct Releaser {
    void operator()(Interface* object) const { object->Release(); }
};
using StoragePtr = std::unique_ptr<IStorage, Releaser<IStorage>>;
using StreamPtr = std::unique_ptr<IStream, Releaser<IStream>>;

const char* reasonOf(HRESULT result) {
    switch (result) {
    case STG_E_FILENOTFOUND:
        return "there is no such stream";
    case STG_E_FILEALREADYEXISTS:
        return "the name is a storage's";
    case STG_E_INVALIDNAME:
        return "not a name for a stream";
    case STG_E_SHAREVIOLATION:
        return "in use";
    case STG_E_MEDIUMFULL:
        return "no room";
    case STG_E_DOCFILECORRUPT:
        return "not a compound file, or a damaged one";
    default:
        return "cannot be read or written";
    }
}

void require(HRESULT result, const std::string& what) {
    if (result == STG_E_INSUFFICIENTMEMORY)
        throw std::bad_alloc();
    if (result < 0)
        throw Failure(what, reasonOf(result));
}

// --- Names -------------------------------------------------------------------------------------------------
// On the command line they are UTF-8; a control character, with which the names of many streams begin, is `\x`
// and two hexadecimal digits, and a backslash is doubled. `/` stands between a storage and what is in it.

std::string shown(const std::wstring& name) {
    std::string text;
    for (const wchar_t character : name) {
        const auto code = static_cast<uint32_t>(character); // NOLINT(bugprone-signed-char-misuse): wide
        if (code < 0x80) {
            text += static_cast<char>(code);
        } else {
            const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
            text += static_cast<char>((0xFF00 >> (more + 1) & 0xFF) | code >> (6 * more));
            for (int k = more - 1; k >= 0; k--)
                text += static_cast<char>(0x80 | (code >> (6 * k) & 0x3F));
        }
    }
    return escaped(text);
}

std::wstring meant(const std::string& text) {
    std::wstring name;
    for (size_t at = 0; at < text.size();) {
        const auto lead = static_cast<unsigned char>(text[at++]);
        unsigned code = lead;
        const auto isDigit = [&text](size_t place) {
            return place < text.size() && std::isxdigit(static_cast<unsigned char>(text[place])) != 0;
        };
        if (lead == '\\' && text[at] == 'x' && isDigit(at + 1) && isDigit(at + 2)) {
            code = static_cast<unsigned>(std::stoul(text.substr(at + 1, 2), nullptr, 16));
            at += 3;
        } else if (lead == '\\' && text[at] == '\\') {
            at++;
        }
        const int more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
        if (more > 0)
            code = lead & (0x3Fu >> more);
        for (int k = 0; k < more && at < text.size(); k++)
            code = code << 6 | (static_cast<unsigned char>(text[at++]) & 0x3F);
        name += static_cast<wchar_t>(code);
    }
    return name;
}

// --- Files -------------------------------------------------------------------------------------------------

File openToRead(const std::string& path) {
    return named(path, [&] { return File::toRead(path); });
}

// A compound file by the host's own name: the storage is told of the open file, so that no letter of the name
// is taken for a drive or a separator.
class CompoundFile {
public:
    // Waits for one that is in use.
    CompoundFile(const std::string& path, File file, uint32_t mode) : file_(std::move(file)) {
        HRESULT result = S_OK;
        waitUntil(path, [&] {
            result = StgOpenStorage(name().c_str(), nullptr, mode, nullptr, 0, &raw_);
            return result != STG_E_SHAREVIOLATION;
        });
        take(result, path);
    }
    // Lays a compound file over a new file.
    CompoundFile(const std::string& path, const File& made) : file_(::dup(made.handle())) {
        take(StgCreateDocfile(name().c_str(), kUpdate | STGM_CREATE, 0, &raw_), path);
    }
    IStorage* root() const { return storage_.get(); }

private:
    std::wstring name() const {
        const std::string text = "/proc/self/fd/" + std::to_string(file_.handle());
        return std::wstring(text.begin(), text.end());
    }
    void take(HRESULT result, const std::string& path) {
        storage_.reset(raw_);
        require(result, path);
    }

    File file_;
    IStorage* raw_ = nullptr;
    StoragePtr storage_;
};

// Calls `use(storage, name)` with the storage that holds the last part of a path.
template <class Use>
void inStorageOf(IStorage* root, const std::string& path, Use use) {
    StoragePtr inner;
    IStorage* storage = root;
    std::string rest = path;
    for (size_t slash = rest.find('/'); slash != std::string::npos; slash = rest.find('/')) {
        IStorage* next;
        require(
            storage->OpenStorage(meant(rest.substr(0, slash)).c_str(), nullptr, STGM_READ, nullptr, 0, &next),
            path);
        inner.reset(next);
        storage = next;
        rest.erase(0, slash + 1);
    }
    use(storage, meant(rest));
}

// --- The commands --------------------------------------------------------------------------------------

struct Element {
    std::string name;
    bool isStream;
    uint64_t bytes;
};

void gather(IStorage* storage, const std::string& prefix, int depth, std::vector<Element>& elements) {
    IEnumSTATSTG* raw = nullptr;
    require(depth < kDeepest ? storage->EnumElements(0, nullptr, 0, &raw) : STG_E_DOCFILECORRUPT, prefix);
    const std::unique_ptr<IEnumSTATSTG, Releaser<IEnumSTATSTG>> all(raw);
    STATSTG element;
    for (;;) {
        const HRESULT result = all->Next(1, &element, nullptr);
        require(result, prefix);
        if (result == S_FALSE)
            break;
        const std::unique_ptr<wchar_t, decltype(&CoTaskMemFree)> text(element.pwcsName, CoTaskMemFree);
        const std::wstring name = text.get();
        const std::string path = prefix + shown(name);
        elements.push_back({path, element.type == STGTY_STREAM, element.cbSize});
        IStorage* inner;
        if (element.type == STGTY_STREAM)
            continue;
        require(storage->OpenStorage(name.c_str(), nullptr, STGM_READ, nullptr, 0, &inner), path);
        gather(StoragePtr(inner).get(), path + "/", depth + 1, elements);
    }
}

void list(const Arguments& arguments) {
    const CompoundFile file(arguments.file, openToRead(arguments.file), kReading);
    std::vector<Element> elements;
    gather(file.root(), "", 0, elements);
    Rows rows({{"name", nullptr}, {"kind", "kind"}, {"bytes", "bytes"}, {nullptr, "name"}});
    for (const Element& element : elements)
        rows.add({textCell(element.name),
                  textCell(element.isStream ? "stream" : "storage"),
                  bytesCell(element.bytes),
                  {element.name}});
    rows.print();
}

void cat(const Arguments& arguments) {
    const CompoundFile file(arguments.file, openToRead(arguments.file), kReading);
    const std::string what = arguments.file + ": " + arguments.stream;
    inStorageOf(file.root(), arguments.stream, [&what](IStorage* storage, const std::wstring& name) {
        IStream* raw;
        require(storage->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &raw), what);
        const StreamPtr stream(raw);
        std::vector<char> piece(kPiece);
        uint32_t got;
        const Progress progress(0);
        do {
            throwIfInterrupted();
            require(stream->Read(piece.data(), kPiece, &got), what);
            Progress::add(got);
            std::cout.write(piece.data(), got);
        } while (got > 0 && std::cout);
    });
}

void write(IStream* stream, const File& input, uint64_t bytes, const std::string& what) {
    const Progress progress(bytes);
    input.forPieces(0, bytes, [&](ByteView piece) {
        uint32_t written = 0;
        require(stream->Write(piece.data(), static_cast<uint32_t>(piece.size()), &written), what);
        if (written < piece.size())
            throw Failure(what, reasonOf(STG_E_MEDIUMFULL));
    });
}

// Whatever ends this early, the file stays as it was.
void putInto(IStorage* root, const Arguments& arguments, const File& input, uint64_t bytes) {
    const std::string what = arguments.file + ": " + arguments.stream;
    try {
        inStorageOf(root, arguments.stream, [&](IStorage* storage, const std::wstring& name) {
            IStream* raw;
            require(storage->CreateStream(name.c_str(), kUpdate | STGM_CREATE, 0, 0, &raw), what);
            write(StreamPtr(raw).get(), input, bytes, what);
        });
        require(root->Commit(0), what);
    } catch (...) {
        root->Revert();
        throw;
    }
}

void put(const Arguments& arguments) {
    const File input = openToRead(arguments.input);
    const uint64_t bytes = input.size();
    if (bytes > kLongestStream)
        throw Failure(arguments.input, "too long for a stream");
    // Another process may make the file at the same time: then the stream is put into that one.
    for (int attempt = 0; attempt < 3; attempt++) {
        const std::string& path = arguments.file;
        if (File there = named(path, [&] { return File::openIfThere(path, O_RDWR); }); there.isOpen()) {
            const CompoundFile file(path, std::move(there), kUpdate);
            return putInto(file.root(), arguments, input, bytes);
        }
        std::optional<NewFile> made;
        named(path, [&] { made.emplace(path); });
        putInto(CompoundFile(path, made->file()).root(), arguments, input, bytes);
        if (named(path, [&] { return made->place(); }))
            return;
    }
    throw Failure(arguments.file, hostErrorText(EEXIST));
}

// The new file, unlike what is read, must not fail.
struct CannotWrite {
    HRESULT why;
};
void requireWritten(HRESULT result) {
    if (result < 0 && result != STG_E_INVALIDNAME)
        throw CannotWrite{result};
    require(result, "its name");
}

void requireRead(HRESULT result) {
    if (result == STG_E_INSUFFICIENTMEMORY)
        throw std::bad_alloc();
    if (result < 0)
        throw Failure("its sectors cannot be read");
}

// Gives all bytes of a stream, piece by piece.
template <class Use>
void forPieces(IStorage* root, const Element& element, Use use) {
    inStorageOf(root, element.name, [&](IStorage* storage, const std::wstring& name) {
        IStream* raw;
        requireRead(storage->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &raw));
        const StreamPtr stream(raw);
        std::vector<char> piece(std::min<uint64_t>(kPiece, element.bytes));
        uint32_t got;
        for (uint64_t done = 0; done < element.bytes; done += got) {
            throwIfInterrupted();
            requireRead(stream->Read(piece.data(), static_cast<uint32_t>(piece.size()), &got));
            if (got == 0)
                throw Failure("its bytes end early");
            Progress::add(got);
            use(piece.data(), got);
        }
    });
}

// A stream is read whole before any of it is written.
void copyElement(IStorage* from, IStorage* to, const Element& element) {
    if (element.isStream)
        forPieces(from, element, [](const char*, uint32_t) {});
    inStorageOf(to, element.name, [&](IStorage* storage, const std::wstring& name) {
        if (!element.isStream) {
            IStorage* made;
            requireWritten(storage->CreateStorage(name.c_str(), kUpdate, 0, 0, &made));
            return made->Release();
        }
        IStream* made;
        requireWritten(storage->CreateStream(name.c_str(), kUpdate | STGM_CREATE, 0, 0, &made));
        const StreamPtr stream(made);
        forPieces(from, element, [&stream](const char* bytes, uint32_t count) {
            uint32_t written = 0;
            const HRESULT result = stream->Write(bytes, count, &written);
            requireWritten(result >= 0 && written < count ? STG_E_MEDIUMFULL : result);
        });
        return 0U;
    });
}

} // namespace

// Elements whose names can be read but not be given, those with a slash in them, are lost.
Recovered recoverCompound(const StoredFile& damaged, const std::string& out) {
    const std::string& path = damaged.path();
    const CompoundFile from(path, File::toRead(path), kReading);
    std::vector<Element> elements;
    gather(from.root(), "", 0, elements);
    Recovered recovered;
    makeNewFile(out, [&](const File& file) {
        const CompoundFile to(out, file);
        try {
            for (const Element& element : elements) {
                try {
                    copyElement(from.root(), to.root(), element);
                    recovered.saved++;
                } catch (const Failure& failure) {
                    recovered.lost.push_back({element.name, failure.what()});
                }
            }
            requireWritten(to.root()->Commit(0));
        } catch (const CannotWrite& failed) {
            throw Failure(reasonOf(failed.why));
        }
    });
    return recovered;
}

void addCompound(const Command& program) {
    const Command compound =
        program.add({"compound", "Look into compound files and change them",
                     R"(Streams are named as list shows them, with / between a storage and what is in it.

Example:
  kal compound list letter.doc)"});
    auto arguments = std::make_shared<Arguments>();
    const auto add = [&](const CommandText& text, void (*action)(const Arguments&)) {
        return compound.add(text)
            .needs("FILE", arguments->file, "The compound file")
            .does([arguments, action] { action(*arguments); });
    };
    const char* streamHelp = "The stream, as list shows it";
    add({"list", "Show the storages and streams of a file", R"(Example:
  kal compound list letter.doc)"},
        list)
        .json()
        .human();
    add({"cat", "Write a stream to standard output", R"(Example:
  kal compound cat letter.doc Contents > contents)"},
        cat)
        .needs("STREAM", arguments->stream, streamHelp);
    add({"put", "Make a stream, or replace it, from a file",
         R"(The compound file is made where there is none. Whatever ends this early, the file has the old stream or the new one.

Example:
  kal compound put letter.doc Notes notes.txt)"},
        put)
        .needs("STREAM", arguments->stream, streamHelp)
        .needs("INPUT", arguments->input, "The file with the stream's bytes; - is standard input");
}
