#include "tests/support/files.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

static std::string currentFolder;

const std::string& testFolder() {
    return currentFolder;
}

FolderTest::FolderTest(Place place) : before_(fs::current_path()) {
    const bool inMemory = place == kInMemory && fs::exists("/dev/shm");
    std::string name =
        ((inMemory ? fs::path("/dev/shm") : fs::temp_directory_path()) / "kal-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    folder_ = currentFolder = name;
    fs::current_path(folder_);
}

FolderTest::~FolderTest() {
    KalCloseVMem();
    KalSetMaxVMem(0);
    KalTempPath(nullptr);
    KalSetHome(nullptr);
    std::error_code ignored;
    fs::current_path(before_, ignored);
    fs::remove_all(folder_, ignored);
    currentFolder.clear();
}

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    EXPECT_TRUE(in.good()) << path;
    Bytes bytes(in.good() ? static_cast<size_t>(in.tellg()) : 0);
    in.seekg(0);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

void writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.close();
    EXPECT_TRUE(out.good()) << path;
}

bool fileExists(const std::string& path) {
    return fs::exists(path);
}

std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

uint32_t firstSeed() {
    const char* number = std::getenv("KAL_TEST_SEED");
    return number != nullptr ? static_cast<uint32_t>(std::strtoul(number, nullptr, 10)) : 1;
}

Bytes randomBytes(size_t count, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    for (auto& byte : bytes)
        byte = static_cast<uint8_t>(random());
    return bytes;
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes hexExample(const std::string& document, int n) {
    std::ifstream in(KAL_SOURCE_DIR "/" + document);
    Bytes bytes;
    std::string line;
    for (; n >= 0 && std::getline(in, line); n -= line == "```hex" ? 1 : 0) {
    }
    while (std::getline(in, line) && line != "```") {
        std::istringstream words(line);
        for (std::string word; words >> word && word.size() == 2 && isxdigit(word[0]) && isxdigit(word[1]);)
            bytes.push_back(static_cast<uint8_t>(std::stoi(word, nullptr, 16)));
    }
    EXPECT_FALSE(bytes.empty()) << document << " has no such example";
    return bytes;
}

uint64_t FileSizeLimit::set(uint64_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const uint64_t before = std::exchange(limit.rlim_cur, bytes);
    setrlimit(RLIMIT_FSIZE, &limit);
    return before;
}

FileSizeLimit::FileSizeLimit(size_t bytes) : before_(set(bytes)), handler_(std::signal(SIGXFSZ, SIG_IGN)) {}

FileSizeLimit::~FileSizeLimit() {
    lift();
    std::signal(SIGXFSZ, handler_);
}
