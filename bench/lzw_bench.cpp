// LZW through a compressed stream over a file in memory, beside the GIF library's coder over plain memory.
#include "tests/support/samples.h"

#include <kal/cfile.h>
#include <kal/stream.h>

#include <benchmark/benchmark.h>
#include <gif_lib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kSide = 4096;
constexpr size_t kBytes = size_t{kSide} * kSide; // 16 MiB
constexpr uint16_t kPiece = 0x8000;

enum Kind { text, picture, random };

const Bytes& sample(int64_t kind) {
    static const Bytes samples[] = {sampleText(kBytes, 1), samplePicture(kBytes, 2), [] {
                                        std::mt19937 source(3);
                                        Bytes bytes(kBytes);
                                        for (auto& byte : bytes)
                                            byte = uint8_t(source());
                                        return bytes;
                                    }()};
    return samples[kind];
}

void check(bool held) {
    if (!held)
        std::abort();
}

SFILE* openScratch() {
    SFILE* stream;
    check(KalOpenFile(&stream, "/dev/shm/kal-lzw-bench", KAL_MODE_CREATE | KAL_MODE_WRITE, 0) == 0);
    check(KalSetBuf(stream, 0x10000) == 0);
    return stream;
}

void writeRun(SFILE* stream, const Bytes& bytes) {
    scfiletag* cfile;
    check(KalMakeCFile(&cfile, stream) == 0);
    for (size_t at = 0; at < bytes.size(); at += kPiece)
        check(KalWriteCFile(cfile, &bytes[at], kPiece) == kPiece);
    check(KalFlushCFile(cfile) == 0);
    KalFreeCFile(cfile);
}

void encode(benchmark::State& state) {
    const Bytes& bytes = sample(state.range(0));
    SFILE* stream = openScratch();
    for (auto _ : state) {
        stream->seek(stream, 0, KAL_SEEK_START);
        writeRun(stream, bytes);
    }
    stream->close(stream);
    state.SetBytesProcessed(int64_t(state.iterations() * kBytes));
}

void decode(benchmark::State& state) {
    const Bytes& bytes = sample(state.range(0));
    SFILE* stream = openScratch();
    writeRun(stream, bytes);
    Bytes back(kBytes);
    const auto piece = uint16_t(state.range(1));
    for (auto _ : state) {
        stream->seek(stream, 0, KAL_SEEK_START);
        scfiletag* cfile;
        check(KalMakeCFile(&cfile, stream) == 0);
        for (size_t at = 0; at < kBytes; at += piece)
            check(KalReadCFile(cfile, &back[at], piece) == piece);
        KalFreeCFile(cfile);
    }
    check(back == bytes);
    stream->close(stream);
    state.SetBytesProcessed(int64_t(state.iterations() * kBytes));
}

// --- The GIF library over memory ---------------------------------------------------------------------

struct GifMemory {
    Bytes bytes;
    size_t at = 0;
};

int putGif(GifFileType* gif, const GifByteType* bytes, int count) {
    auto* memory = static_cast<GifMemory*>(gif->UserData);
    memory->bytes.insert(memory->bytes.end(), bytes, bytes + count);
    return count;
}

int getGif(GifFileType* gif, GifByteType* bytes, int count) {
    auto* memory = static_cast<GifMemory*>(gif->UserData);
    const size_t got = std::min(size_t(count), memory->bytes.size() - memory->at);
    std::memcpy(bytes, memory->bytes.data() + memory->at, got);
    memory->at += got;
    return int(got);
}

void writeGif(GifMemory* memory, const Bytes& bytes) {
    int error;
    GifFileType* gif = EGifOpen(memory, putGif, &error);
    ColorMapObject* colors = GifMakeMapObject(256, nullptr);
    check(EGifPutScreenDesc(gif, kSide, kSide, 8, 0, colors) == GIF_OK);
    check(EGifPutImageDesc(gif, 0, 0, kSide, kSide, false, nullptr) == GIF_OK);
    for (size_t at = 0; at < kBytes; at += kSide)
        check(EGifPutLine(gif, const_cast<GifPixelType*>(&bytes[at]), kSide) == GIF_OK);
    check(EGifCloseFile(gif, &error) == GIF_OK);
    GifFreeMapObject(colors);
}

void encodeByGifLibrary(benchmark::State& state) {
    const Bytes& bytes = sample(state.range(0));
    GifMemory memory;
    for (auto _ : state) {
        memory.bytes.clear();
        writeGif(&memory, bytes);
    }
    state.SetBytesProcessed(int64_t(state.iterations() * kBytes));
}

void decodeByGifLibrary(benchmark::State& state) {
    const Bytes& bytes = sample(state.range(0));
    GifMemory memory;
    writeGif(&memory, bytes);
    Bytes back(kBytes);
    for (auto _ : state) {
        memory.at = 0;
        int error;
        GifFileType* gif = DGifOpen(&memory, getGif, &error);
        GifRecordType record;
        check(DGifGetRecordType(gif, &record) == GIF_OK && DGifGetImageDesc(gif) == GIF_OK);
        for (size_t at = 0; at < kBytes; at += kSide)
            check(DGifGetLine(gif, &back[at], kSide) == GIF_OK);
        DGifCloseFile(gif, &error);
    }
    check(back == bytes);
    state.SetBytesProcessed(int64_t(state.iterations() * kBytes));
}

constexpr auto kUnit = benchmark::kMillisecond;

BENCHMARK(encode)->ArgName("kind")->Arg(text)->Arg(picture)->Arg(random)->Unit(kUnit);
BENCHMARK(encodeByGifLibrary)->ArgName("kind")->Arg(text)->Arg(picture)->Arg(random)->Unit(kUnit);
BENCHMARK(decode)
    ->ArgNames({"kind", "piece"})
    ->ArgsProduct({{text, picture, random}, {kPiece, 0x100}})
    ->Unit(kUnit);
BENCHMARK(decodeByGifLibrary)->ArgName("kind")->Arg(text)->Arg(picture)->Arg(random)->Unit(kUnit);

} // namespace
