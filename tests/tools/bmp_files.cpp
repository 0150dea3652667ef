#include "tests/tools/bmp_files.h"

#include <cstdlib>

void set16(Bytes& bytes, size_t offset, uint32_t number) {
    bytes.at(offset) = static_cast<uint8_t>(number);
    bytes.at(offset + 1) = static_cast<uint8_t>(number >> 8);
}

void set32(Bytes& bytes, size_t offset, uint32_t number) {
    set16(bytes, offset, number);
    set16(bytes, offset + 2, number >> 16);
}

uint32_t rowBytes(const BmpKind& kind) {
    return (kind.width * kind.bits + 31) / 32 * 4;
}

Bytes makeBmp(const BmpKind& kind, uint32_t seed) {
    const bool core = kind.headerBytes == 12;
    const uint32_t colours = kind.coloursStated != 0 ? kind.coloursStated
                             : kind.bits <= 8        ? 1U << kind.bits
                                                     : 0;
    const uint32_t headersEnd = 14 + kind.headerBytes;
    const uint32_t rowsStart = headersEnd + colours * (core ? 3 : 4) + kind.gap;
    const auto rows = static_cast<uint32_t>(std::abs(kind.height));
    Bytes bytes = randomBytes(rowsStart + size_t{rowBytes(kind)} * rows + kind.rest, seed);

    std::fill_n(bytes.begin(), headersEnd, uint8_t{0});
    bytes[0] = 'B';
    bytes[1] = 'M';
    set32(bytes, 2, static_cast<uint32_t>(bytes.size()));
    set32(bytes, 10, rowsStart);
    set32(bytes, 14, kind.headerBytes);
    if (core) {
        set16(bytes, 18, kind.width);
        set16(bytes, 20, static_cast<uint32_t>(kind.height));
        set16(bytes, 22, 1);
        set16(bytes, 24, kind.bits);
    } else {
        set32(bytes, 18, kind.width);
        set32(bytes, 22, static_cast<uint32_t>(kind.height));
        set16(bytes, 26, 1);
        set16(bytes, 28, kind.bits);
        if (kind.headerBytes >= 36)
            set32(bytes, 46, kind.coloursStated);
    }
    const uint32_t pixelBytes = (kind.width * kind.bits + 7) / 8;
    for (size_t row = 0; row < rows && !kind.loudPadding; row++) {
        uint8_t* start = &bytes[rowsStart + row * rowBytes(kind)];
        std::fill(start + pixelBytes, start + rowBytes(kind), uint8_t{0});
    }
    return bytes;
}
