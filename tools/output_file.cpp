#include "tools/output_file.h"

#include "tools/failure.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

OutputFile::OutputFile(const std::string& path) : path_(path), target_(path) {
    try {
        if (const File there = File::openIfThere(path, O_PATH); there.isOpen()) {
            target_ = fs::canonical(path).string();
            file_ = createBeside(target_, beside_);
            struct stat facts = {};
            if (::fstat(there.handle(), &facts) == 0) // the file's permissions outlive its contents
                ::fchmod(file_.handle(), facts.st_mode & 0777);
        } else {
            file_ = createBeside(target_, beside_);
        }
    } catch (const std::exception& failure) {
        throw Failure(path, failure.what());
    }
}

OutputFile::~OutputFile() {
    if (!beside_.empty())
        ::unlink(beside_.c_str());
}

void OutputFile::append(ByteView bytes) {
    try {
        file_.append(bytes);
    } catch (const Failure& failure) {
        throw Failure(path_, failure.what());
    }
}

void OutputFile::commit() {
    if (::close(file_.release()) != 0 || std::rename(beside_.c_str(), target_.c_str()) != 0)
        throw Failure(path_, hostErrorText(errno));
    beside_.clear();
}
