// Any bytes as a compressed run. The first byte chooses the size of the reads and the roots of the decoder
// whose steps are tried on the same bytes.
#include "fuzz/fuzz_target.h"

#include "tests/support/vector_stream.h"

#include <kal/cfile.h>

#include <memory>

namespace {

// However good the input is, this much of it will do: a few hundred bytes can hold megabytes.
constexpr size_t kEnough = 1 << 16;

void readRun(const Bytes& run, uint16_t piece) {
    VectorStream stream(run);
    // A buffer, as of a file that was just read: the way past the slots.
    const bool buffered = piece % 2 != 0 && !run.empty();
    if (buffered) {
        stream.file()->buf = stream.file()->bufPtr = stream.bytes.data();
        stream.file()->bufSize = stream.file()->bufEnd = static_cast<uint32_t>(run.size());
    }
    scfiletag* cfile;
    require(KalMakeCFile(&cfile, stream.file()) == 0, "a compressed stream can be made");
    size_t total = 0;
    uint16_t got;
    do {
        const auto back = std::make_unique<uint8_t[]>(piece);
        got = KalReadCFile(cfile, back.get(), piece);
        require(got <= piece, "no more is delivered than asked for");
        require((cfile->status == 0) == (got == piece), "a short count has a status");
        require(stream.file()->pos <= run.size(), "the stream is not passed");
        total += got;
    } while (got == piece && total < kEnough);
    KalFreeCFile(cfile);
    require(stream.bytes == run, "reading writes nothing");
}

void decodeBySteps(const Bytes& run, uint16_t roots) {
    readlzw decoder = {};
    require(KalInitReadLZW(&decoder, roots) == 0, "a decoder can be made");
    for (uint8_t byte : run) {
        decoder.inputByte = byte;
        const uint16_t completed = KalDecodeLZW(&decoder);
        require(completed <= 4, "a byte completes four codes at most");
        for (uint16_t k = 0; k < completed; k++)
            require(decoder.codes[k] < KAL_LZW_CODES, "codes stay in the table");
    }
    KalDestroyReadLZW(&decoder);
}

} // namespace

void fuzz(Input input) {
    const uint8_t choice = input.byte();
    const Bytes run = input.rest();
    readRun(run, static_cast<uint16_t>(choice < 128 ? 1 + choice : choice * 255));
    decodeBySteps(run, static_cast<uint16_t>(1u << choice % 9));
}
