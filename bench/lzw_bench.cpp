// LZW through a compressed stream over a file in memory, beside the coders of the GIF and TIFF libraries over plain
// memory. The limits: one table look-up a byte that waits for the one before, and the strings of known codes written
// one after the other.
#include "bench/row.h"
#include "bench/samples.h"

#include <kal/cfile.h>
#include <kal/stream.h>
#include <kal/vmem.h>

#include <gif_lib.h>
#include <tiffio.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kFile[] = "/dev/shm/kal-lzw-bench";
constexpr int kSide = 4096;
constexpr size_t kBytes = size_t{kSide} * kSide; // 16 MiB
constexpr uint16_t kPiece = 0x8000;

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

SFILE* openScratch(uint16_t backend = 0) {
    SFILE* stream;
    check(KalOpenFile(&stream, kFile, backend | KAL_MODE_CREATE | KAL_MODE_UPDATE, 2 * kBytes) == 0);
    if (backend == 0)
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

void encode(benchmark::State& state, const Bytes& bytes) {
    SFILE* stream = openScratch();
    for (auto _ : state) {
        stream->seek(stream, 0, KAL_SEEK_START);
        writeRun(stream, bytes);
    }
    stream->close(stream);
}

void decode(benchmark::State& state, const Bytes& bytes, uint16_t piece, uint16_t backend = 0) {
    SFILE* stream = openScratch(backend);
    writeRun(stream, bytes);
    Bytes back(kBytes);
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

void encodeByGifLibrary(benchmark::State& state, const Bytes& bytes) {
    GifMemory memory;
    for (auto _ : state) {
        memory.bytes.clear();
        writeGif(&memory, bytes);
    }
}

void decodeByGifLibrary(benchmark::State& state, const Bytes& bytes) {
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
}

// --- The TIFF library over memory --------------------------------------------------------------------

struct TiffMemory {
    Bytes bytes;
    size_t at = 0;
};

tmsize_t putTiff(thandle_t handle, void* from, tmsize_t count) {
    auto* memory = static_cast<TiffMemory*>(handle);
    memory->bytes.resize(std::max(memory->bytes.size(), memory->at + size_t(count)));
    std::memcpy(&memory->bytes[memory->at], from, size_t(count));
    memory->at += size_t(count);
    return count;
}

tmsize_t getTiff(thandle_t handle, void* to, tmsize_t count) {
    auto* memory = static_cast<TiffMemory*>(handle);
    const size_t got = std::min(size_t(count), memory->bytes.size() - memory->at);
    std::memcpy(to, memory->bytes.data() + memory->at, got);
    memory->at += got;
    return tmsize_t(got);
}

toff_t seekTiff(thandle_t handle, toff_t offset, int origin) {
    auto* memory = static_cast<TiffMemory*>(handle);
    return memory->at = offset + (origin == SEEK_CUR   ? memory->at
                                  : origin == SEEK_END ? memory->bytes.size()
                                                       : 0);
}

TIFF* openTiff(TiffMemory* memory, const char* mode) {
    memory->at = 0;
    return TIFFClientOpen(
        "memory", mode, memory, getTiff, putTiff, seekTiff, [](thandle_t) { return 0; },
        [](thandle_t handle) { return toff_t(static_cast<TiffMemory*>(handle)->bytes.size()); }, nullptr,
        nullptr);
}

void writeTiff(TiffMemory* memory, const Bytes& bytes) {
    memory->bytes.clear();
    TIFF* tiff = openTiff(memory, "wm");
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kSide);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kSide);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, kSide);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    check(TIFFWriteEncodedStrip(tiff, 0, const_cast<uint8_t*>(bytes.data()), tmsize_t(kBytes)) >= 0);
    TIFFClose(tiff);
}

void encodeByTiffLibrary(benchmark::State& state, const Bytes& bytes) {
    TiffMemory memory;
    for (auto _ : state)
        writeTiff(&memory, bytes);
}

void decodeByTiffLibrary(benchmark::State& state, const Bytes& bytes) {
    TiffMemory memory;
    writeTiff(&memory, bytes);
    Bytes back(kBytes);
    for (auto _ : state) {
        TIFF* tiff = openTiff(&memory, "rm");
        check(TIFFReadEncodedStrip(tiff, 0, back.data(), tmsize_t(kBytes)) == tmsize_t(kBytes));
        TIFFClose(tiff);
    }
    check(back == bytes);
}

// --- The limits --------------------------------------------------------------------------------------

void followBytes(benchmark::State& state, const Bytes& bytes) {
    std::vector<uint16_t> table(4096);
    for (size_t i = 0; i < table.size(); i++)
        table[i] = uint16_t(i * 2654435761u >> 20);
    for (auto _ : state) {
        uint16_t code = 0;
        for (const uint8_t byte : bytes)
            code = table[code ^ byte];
        benchmark::DoNotOptimize(code);
    }
}

// How long the strings are into which the bytes fall, stretch after stretch.
Bytes stringLengths(const Bytes& bytes) {
    Bytes lengths;
    std::unordered_map<uint32_t, uint16_t> strings;
    uint16_t code = bytes[0];
    uint16_t next = 258;
    uint8_t length = 1;
    for (size_t at = 1; at < bytes.size(); at++) {
        if (const auto found = strings.find(code << 8 | bytes[at]); found != strings.end() && length < 255) {
            code = found->second;
            length++;
            continue;
        }
        strings[code << 8 | bytes[at]] = next++;
        if (next == 4094) {
            strings.clear();
            next = 258;
        }
        lengths.push_back(length);
        code = bytes[at];
        length = 1;
    }
    lengths.push_back(length);
    return lengths;
}

void writeStrings(benchmark::State& state, const Bytes& bytes) {
    const Bytes lengths = stringLengths(bytes);
    Bytes back(kBytes + 8);
    for (auto _ : state) {
        uint8_t* out = back.data();
        const uint8_t* from = bytes.data();
        for (const uint8_t length : lengths) {
            for (int done = 0; done < length; done += 8)
                std::memcpy(out + done, from + done, 8);
            out += length;
            from += length;
        }
        benchmark::ClobberMemory();
    }
}

void cells() {
    const char* const kinds[] = {"text", "picture", "random bytes"};
    for (int kind = 0; kind < 3; kind++) {
        const auto add = [kind](const std::string& row, const char* who, auto body) {
            cell(row, who, [=](benchmark::State& state) { body(state, sample(kind)); });
        };
        const std::string encoding = "LZW encode 16 MiB " + std::string(kinds[kind]);
        add(encoding, "kal", encode);
        add(encoding, "GIF library", encodeByGifLibrary);
        add(encoding, "TIFF library", encodeByTiffLibrary);
        add(encoding, "limit", followBytes);
        const std::string decoding = "LZW decode 16 MiB " + std::string(kinds[kind]);
        add(decoding, "kal",
            [](benchmark::State& state, const Bytes& bytes) { decode(state, bytes, kPiece); });
        add(decoding, "GIF library", decodeByGifLibrary);
        add(decoding, "TIFF library", decodeByTiffLibrary);
        add(decoding, "limit", writeStrings);
        add(decoding + " by 256", "kal",
            [](benchmark::State& state, const Bytes& bytes) { decode(state, bytes, 256); });
        for (const auto& [name, backend] :
             {std::pair{"memory", KAL_MODE_MEMORY}, {"VMem", KAL_MODE_VMEM}, {"mapping", KAL_MODE_FILEMAP}})
            add(decoding + " from a " + name + " stream", "kal",
                [mode = backend](benchmark::State& state, const Bytes& bytes) {
                    decode(state, bytes, kPiece, mode);
                });
    }
}

} // namespace

int main(int argc, char** argv) {
    cells();
    check(KalOpenVMem(0) == 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::remove(kFile);
    KalCloseVMem();
    return 0;
}
