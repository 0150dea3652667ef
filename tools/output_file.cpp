#include "tools/output_file.h"

#include "tools/failure.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

OutputFile::OutputFile(const std::string& path) : path_(path == "-" ? "standard output" : path) {
    named(path_, [&] {
        if (path == "-") {
            spool_ = File::temporary();
            return;
        }
        const File there = File::openIfThere(path, O_PATH);
        file_.emplace(there.isOpen() ? std::filesystem::canonical(path).string() : path);
        struct stat facts = {};
        if (there.isOpen() &&
            ::fstat(there.handle(), &facts) == 0) // the file's permissions outlive its contents
            ::fchmod(file_->file().handle(), facts.st_mode & 0777);
    });
}

void OutputFile::append(ByteView bytes) {
    named(path_, [&] { file().append(bytes); });
}

void OutputFile::commit() {
    named(path_, [&] {
        if (file_)
            return file_->replace();
        const File out(::dup(STDOUT_FILENO));
        spool_.forPieces(0, spool_.size(), [&](ByteView piece) { out.append(piece); });
    });
}
