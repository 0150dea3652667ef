// Compound files beside libgsf, with files in memory (/dev/shm).
#include "bench/row.h"

#include <kal/compound.h>

#include <gsf/gsf-infile-msole.h>
#include <gsf/gsf-infile.h>
#include <gsf/gsf-input-stdio.h>
#include <gsf/gsf-outfile-msole.h>
#include <gsf/gsf-outfile.h>
#include <gsf/gsf-output-stdio.h>
#include <gsf/gsf-utils.h>

#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// How many streams of how many bytes.
struct Shape {
    uint32_t streams;
    uint32_t bytes;
};
constexpr Shape kOneLarge = {1, 64u << 20};
constexpr Shape kManySmall = {1000, 2048};

const std::vector<uint8_t>& content() {
    static const std::vector<uint8_t> bytes = [] {
        std::vector<uint8_t> made(kOneLarge.bytes);
        uint32_t state = 1;
        for (uint8_t& byte : made)
            byte = static_cast<uint8_t>((state = state * 1664525u + 1013904223u) >> 24);
        return made;
    }();
    return bytes;
}

std::vector<uint8_t>& destination() {
    static std::vector<uint8_t> bytes(kOneLarge.bytes);
    return bytes;
}

const std::string& path() {
    static const std::string name = "/dev/shm/kal-bench-" + std::to_string(getpid()) + ".ole";
    static const bool removedAtExit = std::atexit([] { unlink(path().c_str()); }) == 0;
    static_cast<void>(removedAtExit);
    return name;
}

std::wstring widePath() {
    return std::wstring(path().begin(), path().end());
}

void kalWrite(Shape shape) {
    IStorage* storage;
    if (StgCreateDocfile(widePath().c_str(), STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0,
                         &storage) != S_OK)
        std::abort();
    for (uint32_t i = 0; i < shape.streams; i++) {
        IStream* stream;
        const std::wstring name = L"stream " + std::to_wstring(i);
        uint32_t written = 0;
        if (storage->CreateStream(name.c_str(), STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &stream) !=
                S_OK ||
            stream->Write(content().data(), shape.bytes, &written) != S_OK || written != shape.bytes)
            std::abort();
        stream->Release();
    }
    storage->Release();
}

void kalRead(Shape shape) {
    IStorage* storage;
    if (StgOpenStorage(widePath().c_str(), nullptr, STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0,
                       &storage) != S_OK)
        std::abort();
    for (uint32_t i = 0; i < shape.streams; i++) {
        IStream* stream;
        const std::wstring name = L"stream " + std::to_wstring(i);
        uint32_t got = 0;
        if (storage->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream) !=
                S_OK ||
            stream->Read(destination().data(), shape.bytes, &got) != S_OK || got != shape.bytes)
            std::abort();
        stream->Release();
    }
    storage->Release();
}

void gsfWrite(Shape shape) {
    GsfOutput* file = gsf_output_stdio_new(path().c_str(), nullptr);
    GsfOutfile* storage = gsf_outfile_msole_new(file);
    for (uint32_t i = 0; i < shape.streams; i++) {
        GsfOutput* stream = gsf_outfile_new_child(storage, ("stream " + std::to_string(i)).c_str(), FALSE);
        if (!gsf_output_write(stream, shape.bytes, content().data()) || !gsf_output_close(stream))
            std::abort();
        g_object_unref(stream);
    }
    if (!gsf_output_close(GSF_OUTPUT(storage)))
        std::abort();
    g_object_unref(storage);
    g_object_unref(file);
}

void gsfRead(Shape shape) {
    GsfInput* file = gsf_input_stdio_new(path().c_str(), nullptr);
    GsfInfile* storage = gsf_infile_msole_new(file, nullptr);
    for (uint32_t i = 0; i < shape.streams; i++) {
        GsfInput* stream = gsf_infile_child_by_name(storage, ("stream " + std::to_string(i)).c_str());
        if (gsf_input_read(stream, shape.bytes, destination().data()) == nullptr)
            std::abort();
        g_object_unref(stream);
    }
    g_object_unref(storage);
    g_object_unref(file);
}

void write(benchmark::State& state, void (*writer)(Shape), Shape shape) {
    writer(shape);
    for (auto _ : state)
        writer(shape);
}

// Each reads what the other wrote.
void read(benchmark::State& state, void (*reader)(Shape), void (*writer)(Shape), Shape shape) {
    writer(shape);
    reader(shape);
    for (auto _ : state)
        reader(shape);
}

void cells() {
    for (const Shape shape : {kOneLarge, kManySmall}) {
        const std::string streams = shape.streams == 1 ? "one stream of 64 MiB" : "1,000 streams of 2 KiB";
        const auto add = [&](const char* who, void (*writer)(Shape), void (*reader)(Shape),
                             void (*other)(Shape)) {
            cell("compound file, " + streams + " written", who,
                 [=](benchmark::State& state) { write(state, writer, shape); });
            cell("compound file, " + streams + " read", who,
                 [=](benchmark::State& state) { read(state, reader, other, shape); });
        };
        add("kal", kalWrite, kalRead, gsfWrite);
        add("libgsf", gsfWrite, gsfRead, kalWrite);
    }
}

} // namespace

int main(int argc, char** argv) {
    cells();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
