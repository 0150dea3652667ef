#include "tools/bmp_runs.h"

#include "tools/failure.h"

#include <algorithm>

namespace {

constexpr size_t pieceBytes = 1U << 16;

// What follows a 0 in the runs; larger numbers count pixels that stand as they are.
enum Escape : uint32_t { kEndOfRow = 0, kEndOfBitmap = 1, kDelta = 2 };

} // namespace

uint8_t BmpRuns::byte() {
    if (taken_ == read_.size()) {
        read_ = file_.readAt(next_, pieceBytes);
        next_ += read_.size();
        taken_ = 0;
        if (read_.empty())
            throw Failure("it ends inside its pixels");
    }
    return read_[taken_++];
}

void BmpRuns::put(uint8_t* out, uint32_t pixel) {
    if (column_ >= layout_.width)
        return;
    if (layout_.bits == 8)
        out[column_] = static_cast<uint8_t>(pixel);
    else
        out[column_ / 2] |= static_cast<uint8_t>(column_ % 2 == 0 ? pixel << 4 : pixel);
    column_++;
}

// Pixels as they are, up to a whole number of 16-bit words.
void BmpRuns::absolute(uint8_t* out, uint32_t count) {
    const uint32_t bytes = layout_.bits == 8 ? count : (count + 1) / 2;
    for (uint32_t i = 0; i < bytes; i++) {
        const uint32_t pixels = byte();
        if (layout_.bits == 8)
            put(out, pixels);
        else {
            put(out, pixels >> 4);
            if (2 * i + 1 < count)
                put(out, pixels & 15);
        }
    }
    if (bytes % 2 == 1)
        byte();
}

// Whether the row is over.
bool BmpRuns::escape(uint8_t* out, uint32_t code) {
    switch (code) {
    case kEndOfRow:
        column_ = 0;
        return true;
    case kEndOfBitmap:
        ended_ = true;
        return true;
    case kDelta:
        column_ = std::min(layout_.width, column_ + byte());
        rowsToSkip_ = byte();
        return rowsToSkip_ > 0;
    default:
        absolute(out, code);
        return false;
    }
}

void BmpRuns::row(uint8_t* out) {
    std::fill_n(out, layout_.rowBytes, uint8_t{0});
    if (rowsToSkip_ > 0 && --rowsToSkip_ > 0)
        return;
    while (!ended_) {
        const uint32_t count = byte();
        const uint32_t value = byte();
        if (count == 0) {
            if (escape(out, value))
                return;
            continue;
        }
        for (uint32_t i = 0; i < count; i++)
            put(out, layout_.bits == 8 ? value : i % 2 == 0 ? value >> 4 : value & 15);
    }
}
