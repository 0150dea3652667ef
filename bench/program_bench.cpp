// The program `kal` beside the tools of the TIFF library: runs of both, from start to end, by the clock.
#include "bench/row.h"
#include "bench/samples.h"

#include "platform/little_endian.h"

#include <tiffio.h>

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Bytes = std::vector<uint8_t>;
using Words = std::vector<std::string>;

constexpr uint32_t kWidth = 1024; // as samplePicture has it
constexpr char kFolder[] = "/dev/shm/kal-program-bench";

void run(Words words) {
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    for (const int fd : {1, 2})
        posix_spawn_file_actions_addopen(&quiet, fd, "/dev/null", O_WRONLY, 0);
    pid_t child;
    int status;
    check(posix_spawnp(&child, arguments[0], &quiet, nullptr, arguments.data(), environ) == 0);
    check(waitpid(child, &status, 0) == child && status == 0);
    posix_spawn_file_actions_destroy(&quiet);
}

// Soft shapes in colours, under noise.
Bytes pixels(uint32_t width, uint32_t height, uint32_t seed) {
    Bytes bytes;
    for (const uint8_t grey : samplePicture(size_t{width} * height, seed))
        bytes.insert(bytes.end(), {grey, uint8_t(20 + grey * 3 / 4), uint8_t(255 - grey)});
    return bytes;
}

// The width is a multiple of 4, so that no row needs padding.
void writeBmp(const std::string& name, uint32_t width, uint32_t height, const Bytes& bytes) {
    constexpr uint32_t kHead = 54;
    uint8_t head[kHead] = {'B', 'M'};
    const auto put = [&head](size_t at, uint32_t value) { storeLittle<uint32_t>(head + at, value); };
    put(2, kHead + uint32_t(bytes.size())), put(10, kHead), put(14, 40), put(18, width), put(22, height);
    put(26, 1 | 24 << 16), put(34, uint32_t(bytes.size()));
    FILE* file = std::fopen(name.c_str(), "wb");
    check(std::fwrite(head, 1, kHead, file) == kHead);
    check(std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() && std::fclose(file) == 0);
}

void writeTiff(const char* name, uint32_t height, const Bytes& bytes) {
    TIFF* tiff = TIFFOpen(name, "w");
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kWidth), TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8), TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 64);
    for (uint32_t row = 0; row < height; row++)
        check(TIFFWriteScanline(tiff, const_cast<uint8_t*>(&bytes[size_t{row} * kWidth * 3]), row) == 1);
    TIFFClose(tiff);
}

// A program's run; what it writes is deleted before.
void timed(const std::string& row, const char* who, const Words& words, const std::string& made = "") {
    cell(row, who, [words, made](benchmark::State& state) {
        for (auto _ : state) {
            if (!made.empty())
                std::filesystem::remove_all(made);
            const auto start = std::chrono::steady_clock::now();
            run(words);
            state.SetIterationTime(
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
    })->UseManualTime();
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::filesystem::create_directories(kFolder);
    std::filesystem::current_path(kFolder);

    constexpr uint32_t kHeight = 12000;
    const Bytes large = pixels(kWidth, kHeight, 1);
    writeBmp("picture.bmp", kWidth, kHeight, large);
    writeTiff("picture.tif", kHeight, large);
    run({KAL_PROGRAM, "store", "stored.kal", "picture.bmp"});
    run({"tiffcp", "-c", "lzw:2", "picture.tif", "stored.tif"});
    timed("36 MB picture stored", "kal", {KAL_PROGRAM, "store", "new.kal", "picture.bmp"}, "new.kal");
    timed("36 MB picture stored", "tiffcp", {"tiffcp", "-c", "lzw:2", "picture.tif", "new.tif"}, "new.tif");
    timed("36 MB picture extracted", "kal", {KAL_PROGRAM, "extract", "stored.kal", "1", "-o", "new.bmp"},
          "new.bmp");
    timed("36 MB picture extracted", "tiffcp", {"tiffcp", "-c", "none", "stored.tif", "new.tif"}, "new.tif");

    Words eight = {KAL_PROGRAM, "store", "-j", "1", "eight.kal"};
    for (uint32_t i = 0; i < 8; i++) {
        eight.push_back(std::to_string(i) + ".bmp");
        writeBmp(eight.back(), kWidth, kHeight / 8, pixels(kWidth, kHeight / 8, i));
    }
    for (const char* jobs : {"1", "2"}) {
        eight[3] = jobs;
        timed("eight pictures of 4.6 MB stored, -j " + eight[3], "kal", eight, "eight.kal");
    }

    Words many = {KAL_PROGRAM, "store", "many.kal"};
    for (uint32_t i = 0; i < 3000; i++) {
        many.push_back("small" + std::to_string(i) + ".bmp");
        writeBmp(many.back(), 16, 16, pixels(16, 16, i));
    }
    run(many);
    timed("3,000 pictures listed", "kal", {KAL_PROGRAM, "list", "many.kal"});

    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all(kFolder);
}
