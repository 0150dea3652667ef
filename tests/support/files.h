// Real files for tests, made and read with plain host calls; and what nearly every test includes.
#ifndef KAL_TESTS_SUPPORT_FILES_H
#define KAL_TESTS_SUPPORT_FILES_H

#include "platform/global_memory.h"
#include "platform/heap_faults.h"

#include <gtest/gtest.h>
#include <kal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

using Bytes = std::vector<uint8_t>;

// For loops over modes, formats and ids.
using Words = std::initializer_list<uint16_t>;

// Fails if blocks of small or global memory were leaked or freed too often in its scope.
class HeapBalance {
public:
    HeapBalance() : before_(liveHeapBlocks()), globalBefore_(liveGlobalBlocks()) {}
    ~HeapBalance() {
        EXPECT_EQ(liveHeapBlocks(), before_) << "small-memory blocks leaked or lost";
        EXPECT_EQ(liveGlobalBlocks(), globalBefore_) << "global memory blocks leaked or lost";
    }
    HeapBalance(const HeapBalance&) = delete;
    HeapBalance& operator=(const HeapBalance&) = delete;

private:
    uint64_t before_;
    uint32_t globalBefore_;
};

// A folder of its own for each test, gone afterwards; the current directory while the test runs. What a test has set for
// its task is as it was then, and no memory may be left.
class FolderTest : public ::testing::Test {
protected:
    // In memory, where that is to be had, for thousands of small files, which would have to wait for the disk.
    enum Place { kTemporary, kInMemory };
    explicit FolderTest(Place place = kTemporary);
    ~FolderTest() override;
    std::string path(const std::string& name) const { return folder_ + "/" + name; }

private:
    const HeapBalance balance_;
    std::string folder_;
    std::string before_;
};

// The folder of the test that runs; empty where it has none.
const std::string& testFolder();

Bytes readFile(const std::string& path);
void writeFile(const std::string& path, const Bytes& bytes);
bool fileExists(const std::string& path);
std::vector<std::string> filesIn(const std::string& folder);

// Where the seeds of a random test begin: 1, or the number in KAL_TEST_SEED (scripts/soak).
uint32_t firstSeed();

// Reproducible bytes: the same seed gives the same ones.
Bytes randomBytes(size_t count, uint32_t seed);
Bytes bytesOf(const std::string& text);

// The bytes of the n-th (from 0) ```hex block of a document of this project: the hexadecimal pairs that start
// each line, up to the first word that is none.
Bytes hexExample(const std::string& document, int n = 0);

// Files of this process cannot grow past `bytes` while it is in scope.
class FileSizeLimit {
public:
    explicit FileSizeLimit(size_t bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    void lift() { set(before_); }

private:
    static uint64_t set(uint64_t bytes); // gives what it was

    uint64_t before_;
    void (*handler_)(int);
};

#endif
