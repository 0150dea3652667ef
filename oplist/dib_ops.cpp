// DIB ops: bands of scan lines in and out of a bitmap list.
//
// In an op, lines of 1, 4 and 8 bits per pixel are 16-bit aligned, and a 24-bit pixel takes 4 bytes; a stored row is
// 32-bit aligned, and its 24-bit pixels take 3.
#include "oplist/blocks.h"
#include "oplist/dib.h"
#include "oplist/op.h"
#include "oplist/vmem_mode.h"

#include <algorithm>
#include <bit>

namespace {

constexpr uint32_t kPixelInOp = 4;
constexpr uint32_t kPixelInRow = 3;

// The most bytes of lines in an op, which with its header is put in one piece everywhere.
constexpr uint32_t kBandMax = kOpPayloadMax - KAL_OP_HEADER - KAL_DIB_OP_HEADER;

struct BandHeader {
    uint32_t width;
    uint32_t lines;
    uint32_t bitsPerPixel;
};

BandHeader bandHeader(const uint8_t* op) {
    return {loadLittle<uint16_t>(op + 4), loadLittle<uint16_t>(op + 6), op[8]};
}

void packPixels(uint8_t* row, const uint8_t* line, uint32_t pixels) {
    for (; pixels > 0; pixels--, row += kPixelInRow, line += kPixelInOp)
        std::memcpy(row, line, kPixelInRow);
}

void spreadPixels(uint8_t* line, const uint8_t* row, uint32_t pixels) {
    for (; pixels > 0; pixels--, line += kPixelInOp, row += kPixelInRow)
        std::memcpy(line, row, kPixelInRow);
}

// Puts one row of which `count` bytes come from `data`. Filter and sink are shown every row as a put of its own,
// whole.
void putBandRow(OpList* list, const uint8_t* data, uint32_t count) {
    const uint32_t rowBytes = list->dib->rowBytes;
    if (list->filter == nullptr && list->sink == nullptr) {
        putRow(list, data, count, rowBytes);
        return;
    }
    uint8_t* row = list->dib->lineBuf;
    if (data != row)
        std::memcpy(row, data, count);
    std::memset(row + count, 0, rowBytes - count);
    KalPutDIBOpData(list, row, rowBytes);
}

// How many whole lines of `lineBytes` an op's payload holds of those that it tells of.
uint32_t linesHeld(uint32_t told, uint32_t payload, uint32_t lineBytes) {
    const uint32_t bytes = payload > KAL_DIB_OP_HEADER ? payload - KAL_DIB_OP_HEADER : 0;
    return lineBytes > 0 ? std::min(told, bytes / lineBytes) : told;
}

// Reads the next row, of which `take` gets the bytes; null stands for zeros.
template <class Take>
bool readBandRow(OpList* list, Take take) {
    const uint32_t rowBytes = list->dib->rowBytes;
    if (!findRow(list, rowBytes))
        return false;
    opblock* block = list->curBlock;
    if (bytesHeld(block, rowBytes) == rowBytes) {
        const LockedBlock locked(list, block);
        if (locked.bytes() == nullptr)
            return false;
        take(locked.bytes() + block->offset);
    }
    passRow(list, rowBytes);
    return true;
}

// An op for the next band of lines that take `lineBytes` each in it; null at the end of the image.
uint8_t* makeBand(OpList* list, uint32_t lineBytes) {
    dibinfo* dib = list->dib;
    if (lineBytes == 0) {
        list->status = KAL_ERR_POSITION;
        return nullptr;
    }
    const uint32_t left = dib->curLine < dib->height ? uint32_t(dib->height) - dib->curLine : 0;
    if (left > 0 && lineBytes > kBandMax) {
        list->status = KAL_ERR_BUFFER;
        return nullptr;
    }
    const uint32_t lines = std::min(std::min<uint32_t>(dib->maxOpBytes, kBandMax) / lineBytes, left);
    if (lines == 0) {
        dib->curLine = 0;
        return nullptr;
    }
    auto* op = static_cast<uint8_t*>(KalCreateOp(KAL_OP_DIB, lineBytes * lines + KAL_DIB_OP_HEADER));
    if (op == nullptr) {
        list->status = KAL_ERR_BUFFER;
        return nullptr;
    }
    storeLittle(op, uint16_t(dib->left));
    storeLittle(op + 2, static_cast<uint16_t>(dib->top + dib->curLine));
    storeLittle(op + 4, uint16_t(dib->width));
    storeLittle(op + 6, static_cast<uint16_t>(lines));
    op[8] = static_cast<uint8_t>(dib->bitsPerPixel);
    return op;
}

// Fills a band row by row: `put(line, row)` copies one row to its line, and lines lie `step` bytes apart.
template <class Put>
void* fillBand(OpList* list, uint8_t* op, uint32_t step, Put put) {
    if (op == nullptr)
        return nullptr;
    const uint32_t lines = bandHeader(op).lines;
    uint8_t* line = op + KAL_DIB_OP_HEADER;
    for (uint32_t i = 0; i < lines; i++, line += step)
        if (!readBandRow(list, [&](const uint8_t* row) { put(line, row); })) {
            freeOp(op);
            return nullptr;
        }
    list->dib->curLine = static_cast<uint16_t>(list->dib->curLine + lines);
    return op;
}

} // namespace

uint32_t KalPutDIBOp(OpList* list, void* op) {
    if (op == nullptr || !requireSetUp(list))
        return KAL_OP_FAILED;
    const auto* bytes = static_cast<const uint8_t*>(op);
    const uint32_t payload = KalOpSize(op);
    if (payload < KAL_DIB_OP_HEADER) {
        list->status = KAL_ERR_POSITION;
        return KAL_OP_FAILED;
    }
    const BandHeader band = bandHeader(bytes);
    const uint32_t rowBytes = list->dib->rowBytes;
    const uint8_t* line = bytes + KAL_DIB_OP_HEADER;
    if (list->dib->bitsPerPixel == 24) {
        const uint32_t lineBytes = band.width * kPixelInOp;
        const uint32_t pixels = std::min(band.width, rowBytes / kPixelInRow);
        for (uint32_t left = linesHeld(band.lines, payload, lineBytes); left > 0; left--, line += lineBytes) {
            packPixels(list->dib->lineBuf, line, pixels);
            putBandRow(list, list->dib->lineBuf, pixels * kPixelInRow);
        }
    } else {
        const uint32_t depth = band.bitsPerPixel > 0 ? std::bit_ceil(band.bitsPerPixel) : 0;
        const uint32_t lineBytes = KalDIBLineBytes(band.width, depth);
        for (uint32_t left = linesHeld(band.lines, payload, lineBytes); left > 0; left--, line += lineBytes)
            putBandRow(list, line, std::min(lineBytes, rowBytes));
    }
    return list->status == KAL_OK ? uint32_t(list->pos) : KAL_OP_FAILED;
}

void* KalGetDIBOp(OpList* list) {
    if (!requireSetUp(list))
        return nullptr;
    if (list->dib->bitsPerPixel == 24)
        return KalGet24DIBOp(list);
    const uint32_t lineBytes = KalDIBLineBytes(list->dib->width, list->dib->bitsPerPixel);
    return fillBand(list, makeBand(list, lineBytes), lineBytes,
                    [=](uint8_t* line, const uint8_t* row) { std::memcpy(line, row, lineBytes); });
}

void* KalGet24DIBOp(OpList* list) {
    if (!requireSetUp(list))
        return nullptr;
    // A line is counted by the row's padding too, but takes only its pixels.
    const uint32_t counted = list->dib->rowBytes * kPixelInOp / kPixelInRow;
    const uint32_t pixels = std::min<uint32_t>(list->dib->width, list->dib->rowBytes / kPixelInRow);
    return fillBand(list, makeBand(list, counted), list->dib->width * kPixelInOp,
                    [=](uint8_t* line, const uint8_t* row) { spreadPixels(line, row, pixels); });
}
