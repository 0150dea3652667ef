#include "tests/support/files.h"

namespace {

TEST(Readme, ShowsTheExampleAsItIs) {
    const auto text = [](const std::string& name) {
        const Bytes bytes = readFile(std::string(KAL_SOURCE_DIR) + "/" + name);
        return std::string(bytes.begin(), bytes.end());
    };
    const std::string readme = text("README.md");
    const std::string fence = "```cpp\n";
    const size_t start = readme.find(fence) + fence.size();
    const size_t end = readme.find("```", start);
    ASSERT_LT(end, readme.size());
    EXPECT_EQ(readme.substr(start, end - start), text("examples/first_steps.cpp"));
}

} // namespace
