// Runs a fuzz target over saved inputs: files, and the files of folders, given on the command line.
#include "fuzz/fuzz_target.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace fs = std::filesystem;

int main(int count, char** arguments) {
    std::set<fs::path> files;
    for (int k = 1; k < count; k++)
        if (fs::is_directory(arguments[k]))
            files.insert(fs::directory_iterator(arguments[k]), fs::directory_iterator());
        else
            files.insert(arguments[k]);
    for (const fs::path& file : files) {
        std::ifstream stream(file, std::ios::binary);
        const Bytes bytes(std::istreambuf_iterator<char>(stream), {});
        std::fprintf(stderr, "%s, %zu bytes\n", file.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return files.empty() ? 1 : 0;
}
