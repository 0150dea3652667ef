// Runs a fuzz target over saved inputs: files, and the files of folders, given on the command line.
#include "fuzz/fuzz_target.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;

// Leaks are found by counting blocks; the search for them would not follow pointers in packed records.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options() {
    return "detect_leaks=0:malloc_context_size=3:quarantine_size_mb=16";
}

namespace {

void runOn(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s, %zu bytes\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int count, char** arguments) {
    std::vector<fs::path> files;
    for (int k = 1; k < count; k++) {
        if (!fs::is_directory(arguments[k])) {
            files.emplace_back(arguments[k]);
            continue;
        }
        for (const auto& entry : fs::directory_iterator(arguments[k]))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files)
        runOn(file);
    if (files.empty())
        std::fprintf(stderr, "no inputs\n");
    return files.empty() ? 1 : 0;
}
