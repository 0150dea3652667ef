#include "tests/support/files.h"

namespace {

std::string text(const std::string& name) {
    const Bytes bytes = readFile(std::string(KAL_SOURCE_DIR) + "/" + name);
    return {bytes.begin(), bytes.end()};
}

// Each piece of code that says from which example it is stands there as it is shown.
TEST(Documents, ShowExamplesAsTheyAre) {
    int pieces = 0;
    for (const char* name : {"README.md", "docs/guide.md"}) {
        const std::string document = text(name);
        const std::string mark = "<!-- examples/";
        const std::string fence = " -->\n```cpp\n";
        for (size_t at = 0; (at = document.find("```cpp\n", at)) != std::string::npos; pieces++) {
            const size_t named = document.rfind(mark, at) + mark.size();
            const size_t start = document.find(fence, named) + fence.size();
            ASSERT_EQ(start, at + 7) << name << ": a piece that does not say whence it is";
            const std::string example =
                text("examples/" + document.substr(named, start - fence.size() - named));
            at = document.find("```", start);
            EXPECT_NE(example.find(document.substr(start, at - start)), std::string::npos)
                << name << ":\n"
                << document.substr(named, at - named);
            at += 3;
        }
    }
    EXPECT_GT(pieces, 5);
    EXPECT_NE(text("README.md").find(text("examples/first_steps.cpp")), std::string::npos);
}

} // namespace
