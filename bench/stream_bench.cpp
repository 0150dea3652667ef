// Streams beside stdio and raw calls: characters, pieces, copies. Files in memory.
#include "bench/row.h"

#include <kal/stream.h>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kFile[] = "/dev/shm/kal-stream-bench";
constexpr char kCopy[] = "/dev/shm/kal-stream-bench-copy";
constexpr uint32_t kCharacters = 64 << 20;
constexpr uint32_t kBytes = 256 << 20;

// A file of `size` bytes.
void prepare(uint32_t size) {
    std::vector<char> piece(1 << 20, 'x');
    FILE* file = std::fopen(kFile, "wb");
    for (uint32_t done = 0; done < size; done += uint32_t(piece.size()))
        check(std::fwrite(piece.data(), 1, piece.size(), file) == piece.size());
    std::fclose(file);
}

// --- What does the work: the library, stdio, and the host's calls with as little as can be around them -----

struct Kal {
    static constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_WRITE;

    Kal(bool write, uint32_t buffer) {
        check(KalOpenFile(&stream, kFile, write ? kNew : 0, 0) == 0 && KalSetBuf(stream, buffer) == 0);
    }
    ~Kal() { check(stream->close(stream) == 0); }
    int get() { return stream->getChar(stream); }
    int next() { return KalNextChar(stream); }
    void put(char c) { stream->putChar(stream, c); }
    size_t read(char* to, size_t count) { return size_t(stream->read(stream, to, uint32_t(count))); }
    void write(const char* from, size_t count) { stream->write(stream, from, uint32_t(count)); }

    SFILE* stream;
};

struct Stdio {
    Stdio(bool write, uint32_t size) : file(std::fopen(kFile, write ? "wb" : "rb")), buffer(size) {
        std::setvbuf(file, buffer.data(), _IOFBF, size);
    }
    ~Stdio() { std::fclose(file); }
    int get() { return std::fgetc(file); }
    int next() { return getc_unlocked(file); }
    void put(char c) { std::fputc(c, file); }
    size_t read(char* to, size_t count) { return std::fread(to, 1, count, file); }
    void write(const char* from, size_t count) { std::fwrite(from, 1, count, file); }

    FILE* file;
    std::vector<char> buffer;
};

// A call through a pointer for each character, or none, and one comparison.
struct Host {
    Host(bool write, uint32_t size)
        : file(write ? open(kFile, O_RDWR | O_CREAT | O_TRUNC, 0600) : open(kFile, O_RDONLY)), writes(write),
          buffer(size), at(buffer.data()), end(write ? at + size : at) {
        benchmark::DoNotOptimize(getSlot);
        benchmark::DoNotOptimize(putSlot);
    }
    ~Host() {
        if (writes)
            flush();
        close(file);
    }
    int get() { return getSlot(this); }
    int next() { return at != end ? uint8_t(*at++) : refill(); }
    void put(char c) { putSlot(this, c); }
    size_t read(char* to, size_t count) { return size_t(::read(file, to, count)); }
    void write(const char* from, size_t count) { check(::write(file, from, count) == ssize_t(count)); }

    void flush() {
        write(buffer.data(), size_t(at - buffer.data()));
        at = buffer.data();
    }
    [[gnu::noinline, gnu::cold]] int refill() {
        const size_t got = read(buffer.data(), buffer.size());
        at = buffer.data();
        end = at + got;
        return got > 0 ? uint8_t(*at++) : -1;
    }

    int file;
    bool writes;
    std::vector<char> buffer;
    char* at;
    char* end;
    int (*getSlot)(Host*) = [](Host* host) { return host->next(); };
    void (*putSlot)(Host*, char) = [](Host* host, char c) {
        if (host->at == host->end) [[unlikely]]
            host->flush();
        char* const to = host->at;
        host->at = to + 1; // first: the character may lie anywhere, this pointer too
        *to = c;
    };
};

// --- The rows ----------------------------------------------------------------------------------------

template <class Who, int (Who::*take)()>
void takeCharacters(benchmark::State& state, uint32_t buffer) {
    prepare(kCharacters);
    for (auto _ : state) {
        Who who(false, buffer);
        uint32_t sum = 0;
        for (int c; (c = (who.*take)()) >= 0;)
            sum += uint32_t(c);
        check(sum == kCharacters * uint32_t('x'));
    }
}

template <class Who>
void putCharacters(benchmark::State& state, uint32_t buffer) {
    for (auto _ : state) {
        Who who(true, buffer);
        for (uint32_t i = 0; i < kCharacters; i++)
            who.put(char(i));
    }
}

template <class Who>
void readPieces(benchmark::State& state, uint32_t pieceBytes) {
    prepare(kBytes);
    std::vector<char> piece(pieceBytes);
    for (auto _ : state) {
        Who who(false, 0x10000);
        while (who.read(piece.data(), pieceBytes) > 0)
            benchmark::ClobberMemory();
    }
}

template <class Who>
void writePieces(benchmark::State& state, uint32_t pieceBytes) {
    const std::vector<char> piece(pieceBytes, 'y');
    for (auto _ : state) {
        Who who(true, 0x10000);
        for (uint32_t done = 0; done < kBytes; done += pieceBytes)
            who.write(piece.data(), pieceBytes);
    }
}

void copyFile() {
    check(KalCopyFile(kCopy, kFile) == 0);
}

void copyFileRange() {
    const int from = open(kFile, O_RDONLY);
    const int to = open(kCopy, O_RDWR | O_CREAT | O_TRUNC, 0600);
    while (copy_file_range(from, nullptr, to, nullptr, kBytes, 0) > 0) {
    }
    close(from);
    close(to);
}

void copying(benchmark::State& state, void (*copy)()) {
    prepare(kBytes);
    for (auto _ : state)
        copy();
}

void rows() {
    for (const uint32_t buffer : {0x10000u, 512u}) {
        const std::string with = buffer == 512 ? ", 512-byte buffer" : ", 64 KiB buffer";
        const auto add = [&](const char* work, const char* who, void (*body)(benchmark::State&, uint32_t)) {
            cell(work + with, who, [=](benchmark::State& state) { body(state, buffer); });
        };
        constexpr char kGet[] = "64 MiB got by character";
        add(kGet, "kal", takeCharacters<Kal, &Kal::get>);
        add(kGet, "fgetc", takeCharacters<Stdio, &Stdio::get>);
        add(kGet, "limit", takeCharacters<Host, &Host::get>);
        constexpr char kNext[] = "64 MiB got inline";
        add(kNext, "kal", takeCharacters<Kal, &Kal::next>);
        add(kNext, "getc_unlocked", takeCharacters<Stdio, &Stdio::next>);
        add(kNext, "limit", takeCharacters<Host, &Host::next>);
        constexpr char kPut[] = "64 MiB put by character";
        add(kPut, "kal", putCharacters<Kal>);
        add(kPut, "fputc", putCharacters<Stdio>);
        add(kPut, "limit", putCharacters<Host>);
    }
    for (const uint32_t piece : {100u, 4096u, 32768u}) {
        const auto add = [&](const char* work, const char* who, void (*body)(benchmark::State&, uint32_t)) {
            cell(work + std::to_string(piece), who, [=](benchmark::State& state) { body(state, piece); });
        };
        add("256 MiB read in pieces of ", "kal", readPieces<Kal>);
        add("256 MiB read in pieces of ", "fread", readPieces<Stdio>);
        add("256 MiB written in pieces of ", "kal", writePieces<Kal>);
        add("256 MiB written in pieces of ", "fwrite", writePieces<Stdio>);
        if (piece >= 4096) {
            add("256 MiB read in pieces of ", "read", readPieces<Host>);
            add("256 MiB written in pieces of ", "write", writePieces<Host>);
        }
    }
    cell("256 MiB copied", "kal", [](benchmark::State& state) { copying(state, copyFile); });
    cell("256 MiB copied", "copy_file_range", [](benchmark::State& state) { copying(state, copyFileRange); });
}

} // namespace

int main(int argc, char** argv) {
    rows();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::remove(kFile);
    std::remove(kCopy);
    return 0;
}
