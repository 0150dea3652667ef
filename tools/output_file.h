// A file that appears whole or not at all: written beside its place, then moved there.
#ifndef KAL_TOOLS_OUTPUT_FILE_H
#define KAL_TOOLS_OUTPUT_FILE_H

#include "tools/file.h"

class OutputFile {
public:
    // Where `path` is a link, the file that it leads to is meant. Throws a Failure when `path` is something
    // else than a regular file, or nothing can be made beside it.
    explicit OutputFile(const std::string& path);
    // Takes the file away again unless it was put in its place.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void append(ByteView bytes);
    // Puts the file in its place, over one that stands there.
    void commit();

private:
    std::string path_;
    std::string target_;
    std::string beside_;
    File file_;
};

#endif
