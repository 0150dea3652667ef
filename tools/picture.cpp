#include "tools/picture.h"

#include "tools/failure.h"
#include "tools/interrupt.h"

#include <algorithm>
#include <new>
#include <vector>

namespace {

constexpr uint32_t mostPayload = 65531;
constexpr uint32_t bandHeader = 12;
constexpr uint32_t filePayload = 10;

// How the rows of a bitmap lie in a DIB operation: lines aligned to two bytes, and at 24 bits four bytes a
// pixel, of which the last is not used.
struct Lines {
    Lines(uint32_t width, uint32_t bits)
        : pixels(width), spread(bits == 24), rowBytes((width * bits + 31) / 32 * 4),
          kept(spread ? width * 3 : (width * bits + 15) / 16 * 2), lineBytes(spread ? width * 4 : kept),
          paddingBytes(rowBytes - kept) {}

    // `kept` bytes of a row to `lineBytes` bytes of a line, and back.
    void fromRow(const uint8_t* row, uint8_t* line) const {
        if (!spread) {
            std::copy_n(row, kept, line);
            return;
        }
        for (uint32_t i = 0; i < pixels; i++, row += 3, line += 4) {
            line[0] = row[0];
            line[1] = row[1];
            line[2] = row[2];
            line[3] = 0;
        }
    }
    void toRow(const uint8_t* line, uint8_t* row) const {
        if (!spread) {
            std::copy_n(line, kept, row);
            return;
        }
        for (uint32_t i = 0; i < pixels; i++, line += 4, row += 3) {
            row[0] = line[0];
            row[1] = line[1];
            row[2] = line[2];
        }
    }
    uint32_t perBand() const { return (mostPayload - bandHeader) / lineBytes; }

    uint32_t pixels;
    bool spread;
    uint32_t rowBytes;     // of a row in the file
    uint32_t kept;         // of those, how many a line carries
    uint32_t lineBytes;    // of a line in the operation
    uint32_t paddingBytes; // of a row, the rest
};

void put(OpList* list, uint16_t type, ByteView bytes) {
    if (KalPutOpData(list, type, bytes.data(), static_cast<uint32_t>(bytes.size())) == KAL_OP_FAILED)
        throw Failure(statusText(KalGetOpError(list)));
}

void putInPieces(OpList* list, uint16_t type, ByteView bytes) {
    while (!bytes.empty()) {
        throwIfInterrupted();
        const ByteView piece = bytes.first(std::min<size_t>(bytes.size(), mostPayload));
        put(list, type, piece);
        bytes = bytes.subspan(piece.size());
    }
}

// The next operation, or null at the list's end.
Op next(OpList* list) {
    Op op(KalGetOp(list));
    const int16_t status = op == nullptr ? KalGetOpError(list) : int16_t{0};
    if (status == KAL_ERR_MEMORY || status == KAL_ERR_BUFFER)
        throw std::bad_alloc();
    if (status != 0)
        throw Damaged(statusText(status));
    return op;
}

// The next operation, which must be of this type.
Op expect(OpList* list, uint16_t type) {
    Op op = next(list);
    if (op == nullptr || KalOpType(op.get()) != type)
        throw Damaged("it does not begin as a picture does");
    return op;
}

BmpLayout storableLayout(ByteView start, uint32_t fileBytes) {
    const BmpLayout layout = bmpLayout(start, fileBytes);
    if (Lines(layout.width, layout.bits).perBand() == 0)
        throw Failure("a row of " + std::to_string(layout.width) + " pixels of " +
                      std::to_string(layout.bits) + " bits does not fit an operation");
    return layout;
}

// The rows of a picture, band by band.
class Bands {
public:
    Bands(OpList* list, const BmpLayout& layout)
        : list_(list), layout_(layout), lines_(layout.width, layout.bits) {}

    void putAll(ByteView rows) {
        for (uint32_t line = 0; line < layout_.height;) {
            throwIfInterrupted();
            const uint32_t count = std::min(lines_.perBand(), layout_.height - line);
            const ByteView band =
                rows.subspan(size_t{line} * lines_.rowBytes, size_t{count} * lines_.rowBytes);
            putPadding(band);
            putBand(line, count, band);
            line += count;
        }
    }

private:
    void putPadding(ByteView rows) {
        padding_.clear();
        for (size_t row = 0; row < rows.size(); row += lines_.rowBytes) {
            const ByteView end = rows.subspan(row + lines_.kept, lines_.paddingBytes);
            padding_.insert(padding_.end(), end.begin(), end.end());
        }
        if (std::any_of(padding_.begin(), padding_.end(), [](uint8_t byte) { return byte != 0; }))
            put(list_, opPadding, padding_);
    }

    void putBand(uint32_t line, uint32_t count, ByteView rows) {
        band_.assign(bandHeader + size_t{count} * lines_.lineBytes, 0);
        store16(&band_[2], line);
        store16(&band_[4], layout_.width);
        store16(&band_[6], count);
        band_[8] = static_cast<uint8_t>(layout_.bits);
        for (uint32_t i = 0; i < count; i++)
            lines_.fromRow(&rows[size_t{i} * lines_.rowBytes],
                           &band_[bandHeader + size_t{i} * lines_.lineBytes]);
        put(list_, KAL_OP_DIB, band_);
    }

    OpList* list_;
    const BmpLayout& layout_;
    Lines lines_;
    std::vector<uint8_t> padding_;
    std::vector<uint8_t> band_;
};

// Makes a file from operations of which nothing is believed, and sees that it is the one that was stored.
class Rebuilder {
public:
    Rebuilder(OutputFile& out, uint32_t fileBytes) : out_(out), missing_(fileBytes) {}

    void take(uint16_t type, ByteView bytes) {
        if (bytes.empty())
            throw Damaged("it holds an empty operation");
        if (type == opPalette || type == opGap || type == opRest)
            append(bytes);
        else if (type == opPadding && padding_.empty())
            padding_.assign(bytes.begin(), bytes.end());
        else if (type == KAL_OP_DIB)
            takeBand(bytes);
        else
            throw Damaged("it holds an operation that does not belong there");
    }

    void append(ByteView bytes) {
        if (bytes.size() > missing_)
            throw Damaged("it holds more than was stored");
        missing_ -= static_cast<uint32_t>(bytes.size());
        checksum_ = crc32(bytes, checksum_);
        out_.append(bytes);
    }

    void finish(uint32_t checksum) const {
        if (missing_ != 0 || !padding_.empty())
            throw Damaged("a part of it is missing");
        if (checksum_ != checksum)
            throw Damaged("its checksum is wrong");
    }

private:
    void takeBand(ByteView band) {
        if (band.size() < bandHeader)
            throw Damaged("a band of its rows makes no sense");
        const Lines lines(load16(band, 4), band[8]);
        const uint32_t count = load16(band, 6);
        const bool fits = lines.pixels > 0 && count > 0 &&
                          band.size() == bandHeader + uint64_t{count} * lines.lineBytes &&
                          (padding_.empty() || padding_.size() == uint64_t{count} * lines.paddingBytes);
        if (!fits || uint64_t{count} * lines.rowBytes > missing_)
            throw Damaged("a band of its rows makes no sense");
        rows_.assign(size_t{count} * lines.rowBytes, 0);
        for (uint32_t i = 0; i < count; i++) {
            uint8_t* row = &rows_[size_t{i} * lines.rowBytes];
            lines.toRow(&band[bandHeader + size_t{i} * lines.lineBytes], row);
            if (!padding_.empty())
                std::copy_n(&padding_[size_t{i} * lines.paddingBytes], lines.paddingBytes, row + lines.kept);
        }
        padding_.clear();
        append(rows_);
    }

    OutputFile& out_;
    uint32_t missing_;
    uint32_t checksum_ = 0;
    std::vector<uint8_t> padding_;
    std::vector<uint8_t> rows_;
};

// Reads the first two operations; the headers themselves go to `headers`.
PictureInfo readHead(OpList* list, uint16_t id, Op& headers) {
    headers = expect(list, opHeaders);
    const Op file = expect(list, opFile);
    const ByteView facts = payload(file);
    if (facts.size() != filePayload)
        throw Damaged("it does not begin as a picture does");
    if (load16(facts, 0) != id)
        throw Damaged("it is picture " + std::to_string(load16(facts, 0)));
    PictureInfo info = {};
    info.fileBytes = load32(facts, 2);
    info.checksum = load32(facts, 6);
    try {
        info.layout = storableLayout(payload(headers), info.fileBytes);
    } catch (const Failure& failure) {
        throw Damaged(failure.what());
    }
    return info;
}

} // namespace

void checkPicture(ByteView file) {
    storableLayout(file, static_cast<uint32_t>(file.size()));
}

void putPicture(OpList* list, uint16_t id, ByteView file) {
    const BmpLayout layout = storableLayout(file, static_cast<uint32_t>(file.size()));
    const auto part = [file](uint32_t start, uint32_t end) { return file.subspan(start, end - start); };
    put(list, opHeaders, part(0, layout.headersEnd));
    uint8_t facts[filePayload];
    store16(facts, id);
    store32(facts + 2, static_cast<uint32_t>(file.size()));
    store32(facts + 6, crc32(file));
    put(list, opFile, facts);
    putInPieces(list, opPalette, part(layout.headersEnd, layout.paletteEnd));
    putInPieces(list, opGap, part(layout.paletteEnd, layout.rowsStart));
    Bands(list, layout).putAll(part(layout.rowsStart, layout.rowsEnd));
    putInPieces(list, opRest, file.subspan(layout.rowsEnd));
}

PictureInfo getPictureInfo(OpList* list, uint16_t id) {
    Op headers;
    return readHead(list, id, headers);
}

void getPicture(OpList* list, uint16_t id, OutputFile& out) {
    Op headers;
    const PictureInfo info = readHead(list, id, headers);
    Rebuilder file(out, info.fileBytes);
    file.append(payload(headers));
    while (const Op op = next(list)) {
        throwIfInterrupted();
        file.take(KalOpType(op.get()), payload(op));
    }
    file.finish(info.checksum);
}
