// Streams beside stdio and raw calls: characters, pieces, copies. Files in memory.
#include <kal/stream.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kFile[] = "/dev/shm/kal-stream-bench";
constexpr char kCopy[] = "/dev/shm/kal-stream-bench-copy";
constexpr uint32_t kCharacters = 64 << 20;
constexpr uint32_t kBytes = 256 << 20;

void check(bool held) {
    if (!held)
        std::abort();
}

// A file of `size` bytes.
void prepare(uint32_t size) {
    std::vector<char> piece(1 << 20, 'x');
    FILE* file = std::fopen(kFile, "wb");
    for (uint32_t done = 0; done < size; done += uint32_t(piece.size()))
        check(std::fwrite(piece.data(), 1, piece.size(), file) == piece.size());
    std::fclose(file);
}

SFILE* open(uint16_t mode, uint32_t buffer) {
    SFILE* stream;
    check(KalOpenFile(&stream, kFile, mode, 0) == 0 && KalSetBuf(stream, buffer) == 0);
    return stream;
}

constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_WRITE;

void getCharacters(benchmark::State& state) {
    prepare(kCharacters);
    for (auto _ : state) {
        SFILE* stream = open(0, uint32_t(state.range(0)));
        uint32_t sum = 0;
        for (int c; (c = stream->getChar(stream)) >= 0;)
            sum += uint32_t(c);
        check(sum == kCharacters * uint32_t('x'));
        stream->close(stream);
    }
}

void getCharactersInline(benchmark::State& state) {
    prepare(kCharacters);
    for (auto _ : state) {
        SFILE* stream = open(0, uint32_t(state.range(0)));
        uint32_t sum = 0;
        for (int c; (c = KalNextChar(stream)) >= 0;)
            sum += uint32_t(c);
        check(sum == kCharacters * uint32_t('x'));
        stream->close(stream);
    }
}

void getCharactersStdio(benchmark::State& state) {
    prepare(kCharacters);
    for (auto _ : state) {
        FILE* file = std::fopen(kFile, "rb");
        std::vector<char> buffer(size_t(state.range(0)));
        std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
        uint32_t sum = 0;
        for (int c; (c = std::fgetc(file)) >= 0;)
            sum += uint32_t(c);
        check(sum == kCharacters * uint32_t('x'));
        std::fclose(file);
    }
}

void putCharacters(benchmark::State& state) {
    for (auto _ : state) {
        SFILE* stream = open(kNew, uint32_t(state.range(0)));
        for (uint32_t i = 0; i < kCharacters; i++)
            stream->putChar(stream, char(i));
        check(stream->close(stream) == 0);
    }
}

void putCharactersStdio(benchmark::State& state) {
    for (auto _ : state) {
        FILE* file = std::fopen(kFile, "wb");
        std::vector<char> buffer(size_t(state.range(0)));
        std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
        for (uint32_t i = 0; i < kCharacters; i++)
            std::fputc(int(i & 0xFF), file);
        std::fclose(file);
    }
}

void readPieces(benchmark::State& state) {
    prepare(kBytes);
    std::vector<char> piece(size_t(state.range(0)));
    for (auto _ : state) {
        SFILE* stream = open(0, 0x10000);
        while (stream->read(stream, piece.data(), uint32_t(piece.size())) > 0)
            benchmark::ClobberMemory();
        stream->close(stream);
    }
}

void readPiecesStdio(benchmark::State& state) {
    prepare(kBytes);
    std::vector<char> piece(size_t(state.range(0)));
    for (auto _ : state) {
        FILE* file = std::fopen(kFile, "rb");
        std::vector<char> buffer(0x10000);
        std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
        while (std::fread(piece.data(), 1, piece.size(), file) > 0)
            benchmark::ClobberMemory();
        std::fclose(file);
    }
}

void writePieces(benchmark::State& state) {
    const std::vector<char> piece(size_t(state.range(0)), 'y');
    for (auto _ : state) {
        SFILE* stream = open(kNew, 0x10000);
        for (uint32_t done = 0; done < kBytes; done += uint32_t(piece.size()))
            stream->write(stream, piece.data(), uint32_t(piece.size()));
        check(stream->close(stream) == 0);
    }
}

void writePiecesStdio(benchmark::State& state) {
    const std::vector<char> piece(size_t(state.range(0)), 'y');
    for (auto _ : state) {
        FILE* file = std::fopen(kFile, "wb");
        std::vector<char> buffer(0x10000);
        std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
        for (uint32_t done = 0; done < kBytes; done += uint32_t(piece.size()))
            std::fwrite(piece.data(), 1, piece.size(), file);
        std::fclose(file);
    }
}

void copyFile(benchmark::State& state) {
    prepare(kBytes);
    for (auto _ : state)
        check(KalCopyFile(kCopy, kFile) == 0);
}

void copyFileRange(benchmark::State& state) {
    prepare(kBytes);
    for (auto _ : state) {
        const int from = ::open(kFile, O_RDONLY);
        const int to = ::open(kCopy, O_RDWR | O_CREAT | O_TRUNC, 0600);
        while (::copy_file_range(from, nullptr, to, nullptr, kBytes, 0) > 0) {
        }
        ::close(from);
        ::close(to);
    }
}

} // namespace

BENCHMARK(getCharacters)->Arg(0x10000)->Arg(512)->Unit(benchmark::kMillisecond);
BENCHMARK(getCharactersInline)->Arg(0x10000)->Arg(512)->Unit(benchmark::kMillisecond);
BENCHMARK(getCharactersStdio)->Arg(0x10000)->Arg(512)->Unit(benchmark::kMillisecond);
BENCHMARK(putCharacters)->Arg(0x10000)->Arg(512)->Unit(benchmark::kMillisecond);
BENCHMARK(putCharactersStdio)->Arg(0x10000)->Arg(512)->Unit(benchmark::kMillisecond);
BENCHMARK(readPieces)->Arg(100)->Arg(4096)->Arg(32768)->Unit(benchmark::kMillisecond);
BENCHMARK(readPiecesStdio)->Arg(100)->Arg(4096)->Arg(32768)->Unit(benchmark::kMillisecond);
BENCHMARK(writePieces)->Arg(100)->Arg(4096)->Arg(32768)->Unit(benchmark::kMillisecond);
BENCHMARK(writePiecesStdio)->Arg(100)->Arg(4096)->Arg(32768)->Unit(benchmark::kMillisecond);
BENCHMARK(copyFile)->Unit(benchmark::kMillisecond);
BENCHMARK(copyFileRange)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::remove(kFile);
    std::remove(kCopy);
    return 0;
}
