// Any bytes written as a run, in pieces that the bytes themselves choose, on a stream that may fill up: what
// was taken comes back.
#include "fuzz/fuzz_target.h"

#include "tests/support/vector_stream.h"

#include <kal/cfile.h>

#include <algorithm>

namespace {

// The size of the piece at `at`.
uint16_t pieceAt(const std::vector<uint8_t>& bytes, size_t at) {
    const size_t wanted = bytes[at] < 200 ? 1u + bytes[at] % 16 : bytes[at] * 40u;
    return static_cast<uint16_t>(std::min(wanted, bytes.size() - at));
}

// Fuzz inputs are short; said several times over they fill tables.
std::vector<uint8_t> repeated(const uint8_t* data, size_t size, unsigned times, size_t most) {
    std::vector<uint8_t> bytes;
    for (unsigned time = 0; time < times; time++)
        for (size_t at = 0; at < size && bytes.size() < most; at++)
            bytes.push_back(static_cast<uint8_t>(data[at] + time * (1 + at % 7)));
    return bytes;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    const auto bytes = repeated(data + 2, size - 2, 1u + data[0] % 16, data[0] < 240 ? 500 : 6000);
    const bool fillsUp = data[1] % 2 != 0;

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
        std::vector<uint8_t> back(piece);
        require(KalReadCFile(cfile, back.data(), piece) == piece, "all bytes come back");
        require(std::equal(back.begin(), back.end(), bytes.begin() + static_cast<ptrdiff_t>(at)),
                "bytes come back as they were");
        at += piece;
    }
    uint8_t beyond;
    require(KalReadCFile(cfile, &beyond, 1) == 0 && cfile->status == KAL_ERR_RUN, "the run ends at its end");
    require(stream.file()->pos == stream.bytes.size(), "the stream stands behind the run");
    KalFreeCFile(cfile);
    return 0;
}
