// A mapping stream of 64 MiB, whole and byte by byte through its slots, beside a plain copy of as many bytes.
#include "bench/row.h"

#include <kal/stream.h>

#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kBytes = 64u << 20;

SFILE* openMap(uint16_t access) {
    static const std::string name = "bench " + std::to_string(getpid());
    SFILE* stream = nullptr;
    if (KalOpenFile(&stream, name.c_str(), KAL_MODE_FILEMAP | access, kBytes + 4) != KAL_OK)
        std::abort();
    return stream;
}

SFILE* filledMap() {
    static const std::vector<char> bytes(kBytes, 'x');
    SFILE* writer = openMap(KAL_MODE_CREATE | KAL_MODE_WRITE);
    writer->write(writer, bytes.data(), kBytes);
    writer->close(writer);
    return openMap(0);
}

template <class Round>
void measure(benchmark::State& state, Round round) {
    round();
    for (auto _ : state)
        round();
}

void copyPlainly(benchmark::State& state) {
    std::vector<char> from(kBytes, 'x');
    std::vector<char> to(kBytes);
    measure(state, [&] {
        std::memcpy(to.data(), from.data(), kBytes);
        benchmark::ClobberMemory();
    });
}

void readWhole(benchmark::State& state) {
    std::vector<char> to(kBytes);
    SFILE* stream = filledMap();
    measure(state, [&] {
        stream->seek(stream, 0, KAL_SEEK_START);
        if (stream->read(stream, to.data(), kBytes) != int32_t(kBytes))
            std::abort();
    });
    stream->close(stream);
}

void writeWhole(benchmark::State& state) {
    std::vector<char> from(kBytes, 'x');
    SFILE* stream = openMap(KAL_MODE_CREATE | KAL_MODE_WRITE);
    measure(state, [&] {
        stream->seek(stream, 0, KAL_SEEK_START);
        if (stream->write(stream, from.data(), kBytes) != int32_t(kBytes))
            std::abort();
    });
    stream->close(stream);
}

void getCharacters(benchmark::State& state) {
    SFILE* stream = filledMap();
    measure(state, [&] {
        stream->seek(stream, 0, KAL_SEEK_START);
        int32_t sum = 0;
        for (uint32_t i = 0; i < kBytes; i++)
            sum += stream->getChar(stream);
        benchmark::DoNotOptimize(sum);
    });
    stream->close(stream);
}

void putCharacters(benchmark::State& state) {
    SFILE* stream = openMap(KAL_MODE_CREATE | KAL_MODE_WRITE);
    measure(state, [&] {
        stream->seek(stream, 0, KAL_SEEK_START);
        for (uint32_t i = 0; i < kBytes; i++)
            stream->putChar(stream, 'x');
    });
    stream->close(stream);
}

// Straight from `bufPtr`, as the record allows.
void takeFromTheRecord(benchmark::State& state) {
    SFILE* stream = filledMap();
    std::vector<uint8_t> to(kBytes);
    measure(state, [&] {
        stream->seek(stream, 0, KAL_SEEK_START);
        const uint32_t count = stream->bufEnd - stream->pos;
        std::memcpy(to.data(), stream->bufPtr, count);
        benchmark::ClobberMemory();
    });
    stream->close(stream);
}

} // namespace

int main(int argc, char** argv) {
    cell("mapping stream, 64 MiB read", "kal", readWhole);
    cell("mapping stream, 64 MiB read", "memcpy", copyPlainly);
    cell("mapping stream, 64 MiB written", "kal", writeWhole);
    cell("mapping stream, 64 MiB taken from the record", "kal", takeFromTheRecord);
    cell("mapping stream, 64 MiB got by character", "kal", getCharacters);
    cell("mapping stream, 64 MiB put by character", "kal", putCharacters);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
