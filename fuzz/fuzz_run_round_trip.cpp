// Any bytes written as a run, in pieces that the bytes themselves choose, on a stream that may fill up: what
// was taken comes back.
#include "fuzz/fuzz_target.h"

#include "tests/support/vector_stream.h"

#include <kal/cfile.h>

namespace {

// The size of the piece at `at`.
uint16_t pieceAt(const Bytes& bytes, size_t at) {
    const size_t wanted = bytes[at] < 200 ? 1u + bytes[at] % 16 : bytes[at] * 40u;
    return static_cast<uint16_t>(std::min(wanted, bytes.size() - at));
}

// Fuzz inputs are short; said several times over they fill tables.
Bytes repeated(const Bytes& some, unsigned times, size_t most) {
    Bytes bytes;
    for (unsigned time = 0; time < times; time++)
        for (size_t at = 0; at < some.size() && bytes.size() < most; at++)
            bytes.push_back(static_cast<uint8_t>(some[at] + time * (1 + at % 7)));
    return bytes;
}

} // namespace

void fuzz(Input input) {
    const uint8_t times = input.byte();
    const bool fillsUp = input.byte() % 2 != 0;
    const Bytes bytes = repeated(input.rest(), 1u + times % 16, times < 240 ? 500 : 6000);
    if (bytes.empty())
        return;

    VectorStream stream;
    scfiletag* cfile;
    require(KalMakeCFile(&cfile, stream.file()) == 0, "a compressed stream can be made");
    size_t taken = 0;
    while (taken < bytes.size()) {
        const uint16_t piece = pieceAt(bytes, taken);
        // No room for any byte now and then: a call that puts nothing is made again.
        if (fillsUp && bytes[taken] % 16 == 7)
            stream.capacity = stream.bytes.size();
        uint16_t consumed = KalWriteCFile(cfile, &bytes[taken], piece);
        stream.capacity = SIZE_MAX;
        if (consumed < piece) {
            require(fillsUp && cfile->status == KAL_ERR_DISK_FULL, "only a full stream refuses");
            const auto left = static_cast<uint16_t>(piece - consumed);
            const uint16_t more = KalWriteCFile(cfile, &bytes[taken + consumed], left);
            require(more == left, "there is room again");
            consumed = piece;
        }
        taken += consumed;
    }
    require(KalFlushCFile(cfile) == 0, "the run ends");

    stream.rewind();
    for (size_t at = 0; at < bytes.size();) {
        const uint16_t piece = pieceAt(bytes, at);
        Bytes back(piece);
        require(KalReadCFile(cfile, back.data(), piece) == piece, "all bytes come back");
        require(std::equal(back.begin(), back.end(), bytes.begin() + static_cast<ptrdiff_t>(at)),
                "bytes come back as they were");
        at += piece;
    }
    uint8_t beyond;
    require(KalReadCFile(cfile, &beyond, 1) == 0 && cfile->status == KAL_ERR_RUN, "the run ends at its end");
    require(stream.file()->pos == stream.bytes.size(), "the stream stands behind the run");
    KalFreeCFile(cfile);
}
