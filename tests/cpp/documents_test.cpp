#include "tests/support/files.h"

#include <filesystem>

namespace {

std::string text(const std::string& path) {
    const Bytes bytes = readFile(path);
    return {bytes.begin(), bytes.end()};
}

// Each piece of code that a document shows stands in an example, as it is shown.
TEST(Documents, ShowExamplesAsTheyAre) {
    const std::string root = KAL_SOURCE_DIR "/", fence = "```cpp\n";
    std::string examples;
    for (const auto& file : std::filesystem::directory_iterator(root + "examples"))
        examples += file.is_regular_file() ? text(file.path()) : "";
    int pieces = 0;
    for (const char* name : {"README.md", "docs/guide.md"}) {
        const std::string document = text(root + name);
        for (size_t at = 0; (at = document.find(fence, at)) != std::string::npos; pieces++) {
            at += fence.size();
            const std::string piece = document.substr(at, document.find("```", at) - at);
            EXPECT_NE(examples.find(piece), std::string::npos) << name << ":\n" << piece;
        }
    }
    EXPECT_GT(pieces, 5);
    EXPECT_NE(text(root + "README.md").find(text(root + "examples/first_steps.cpp")), std::string::npos);
}

} // namespace
