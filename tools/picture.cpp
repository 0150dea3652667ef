#include "tools/picture.h"

#include "tools/failure.h"
#include "tools/interrupt.h"

#include <algorithm>

namespace {

// Operation types of this program; rows have the library's KAL_OP_DIB.
constexpr uint16_t opHeaders = 0x101;
constexpr uint16_t opFile = 0x102;
constexpr uint16_t opPalette = 0x103;
constexpr uint16_t opGap = 0x104;
constexpr uint16_t opPadding = 0x105;
constexpr uint16_t opRest = 0x106;

constexpr uint32_t filePayload = 10;
constexpr uint32_t mostHeaders = 8192; // bytes

BmpLayout storableLayout(ByteView start, uint32_t fileBytes) {
    const BmpLayout layout = bmpLayout(start, fileBytes);
    if (!PictureRows::fit(layout))
        throw Failure("a row of " + std::to_string(layout.width) + " pixels of " +
                      std::to_string(layout.bits) + " bits does not fit an operation");
    return layout;
}

uint32_t storableSize(const File& file) {
    const uint64_t size = file.size();
    if (size > UINT32_MAX)
        throw Failure("it is larger than 4 GiB");
    return static_cast<uint32_t>(size);
}

void copyOps(const MovableList& from, OpList* to) {
    from.rewind();
    while (const Op op = nextOp(from))
        putOp(to, op);
}

// The next operation, which must be of this type.
Op expect(OpList* list, uint16_t type) {
    Op op = nextOp(list);
    if (op == nullptr || KalOpType(op.get()) != type)
        throw Damaged("it does not begin as a picture does");
    return op;
}

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

// Makes a file from operations of which nothing is believed, and sees that it is the one that was stored.
class Rebuilder {
public:
    Rebuilder(OutputFile& out, const PictureInfo& info)
        : out_(out), info_(info), rows_(info.layout), missing_(info.fileBytes) {}

    void append(ByteView bytes) {
        if (bytes.size() > missing_)
            throw Damaged("it holds more than was stored");
        missing_ -= static_cast<uint32_t>(bytes.size());
        checksum_ = crc32(bytes, checksum_);
        out_.append(bytes);
    }

    void take(const Op& op) {
        const uint16_t type = KalOpType(op.get());
        const ByteView bytes = payload(op);
        if (bytes.empty())
            throw Damaged("it holds an empty operation");
        if (type == opPalette || type == opGap || type == opRest)
            append(bytes);
        else if (type == opPadding && padding_.empty())
            padding_.assign(bytes.begin(), bytes.end());
        else if (type == KAL_OP_DIB)
            takeBand(op);
        else
            throw Damaged("it holds an operation that does not belong there");
    }

    void finish() const {
        if (missing_ != 0 || !padding_.empty())
            throw Damaged("a part of it is missing");
        if (checksum_ != info_.checksum)
            throw Damaged("its checksum is wrong");
    }

private:
    void takeBand(const Op& band) {
        rows_.putBand(band, padding_);
        padding_.clear();
        if (rows_.areComplete())
            rows_.getRows([this](ByteView rows) { append(rows); });
    }

    OutputFile& out_;
    const PictureInfo& info_;
    PictureRows rows_;
    uint32_t missing_;
    uint32_t checksum_ = 0;
    std::vector<uint8_t> padding_;
};

} // namespace

Picture::Picture(const File& file) : before_(MovableList::Kind::Ops), after_(MovableList::Kind::Ops) {
    const uint32_t size = storableSize(file);
    const BmpLayout layout = storableLayout(file.readAt(0, mostHeaders), size);
    info_ = {layout, size, 0};
    rows_.emplace(layout);
    const auto putTo = [](const MovableList& list, uint16_t type) {
        return [&list, type](ByteView piece) { putOp(list, type, piece); };
    };
    read(file, 0, layout.headersEnd, mostHeaders,
         [this](ByteView bytes) { headers_.assign(bytes.begin(), bytes.end()); });
    read(file, layout.headersEnd, layout.paletteEnd, mostPayload, putTo(before_, opPalette));
    read(file, layout.paletteEnd, layout.rowsStart, mostPayload, putTo(before_, opGap));
    const uint32_t wholeRows = std::max(1U, mostPayload / layout.rowBytes) * layout.rowBytes;
    read(file, layout.rowsStart, layout.rowsEnd, wholeRows, [this](ByteView rows) { rows_->putRows(rows); });
    read(file, layout.rowsEnd, size, mostPayload, putTo(after_, opRest));
}

// Reads a part of the file in pieces, and counts them into the checksum.
void Picture::read(const File& file, uint32_t start, uint32_t end, uint32_t pieceBytes,
                   const std::function<void(ByteView)>& take) {
    while (start < end) {
        throwIfInterrupted();
        const std::vector<uint8_t> piece = file.readAt(start, std::min(pieceBytes, end - start));
        if (piece.size() < std::min(pieceBytes, end - start))
            throw Failure("it grew shorter while it was read");
        info_.checksum = crc32(piece, info_.checksum);
        take(piece);
        start += static_cast<uint32_t>(piece.size());
    }
}

void Picture::put(OpList* list, uint16_t id) {
    putOp(list, opHeaders, headers_);
    uint8_t facts[filePayload];
    store16(facts, id);
    store32(facts + 2, info_.fileBytes);
    store32(facts + 6, info_.checksum);
    putOp(list, opFile, facts);
    copyOps(before_, list);
    rows_->getBands(list, opPadding);
    copyOps(after_, list);
}

PictureInfo getPictureInfo(OpList* list, uint16_t id) {
    Op headers;
    return readHead(list, id, headers);
}

void getPicture(OpList* list, uint16_t id, OutputFile& out) {
    Op headers;
    const PictureInfo info = readHead(list, id, headers);
    Rebuilder file(out, info);
    file.append(payload(headers));
    while (const Op op = nextOp(list))
        file.take(op);
    file.finish();
}
