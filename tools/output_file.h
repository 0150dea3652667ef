// A file that appears whole or not at all: written beside its place, then moved there.
#ifndef KAL_TOOLS_OUTPUT_FILE_H
#define KAL_TOOLS_OUTPUT_FILE_H

#include "tools/file.h"

#include <optional>

class OutputFile {
public:
    // Where `path` is a link, the file that it leads to is meant; `-` is standard output. Throws a Failure when `path` is something
    // else than a regular file, or nothing can be made beside it.
    explicit OutputFile(const std::string& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void append(ByteView bytes);
    File& file() { return file_ ? file_->file() : spool_; }
    // Puts the file in its place, over one that stands there, or writes it to standard output.
    void commit();

private:
    std::string path_;
    std::optional<NewFile> file_;
    File spool_; // what goes to standard output
};

#endif
