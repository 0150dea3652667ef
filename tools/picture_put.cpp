#include "tools/picture.h"

#include "tools/failure.h"
#include "tools/picture_ops.h"
#include "tools/picture_source.h"
#include "tools/pipe.h"
#include "tools/row_filter.h"

#include <cstring>
#include <utility>

namespace {

constexpr uint32_t sampleBytes = 1U << 18;    // of rows, to judge by
constexpr uint32_t rowsAtATime = 1U << 16;    // bytes
constexpr uint64_t threadPaysFrom = 1U << 20; // bytes of rows

struct MadeOp {
    uint16_t type;
    std::vector<uint8_t> bytes;
};

// Bytes that the run of `plain` takes.
uint32_t compressedBytes(ByteView plain) {
    SFILE* stream = nullptr;
    scfiletag* run = nullptr;
    uint32_t bytes = UINT32_MAX;
    if (KalOpenFile(&stream, "", KAL_MODE_MEMORY | KAL_MODE_UPDATE, 0) == 0 &&
        KalMakeCFile(&run, stream) == 0) {
        for (; !plain.empty(); plain = plain.subspan(std::min<size_t>(plain.size(), UINT16_MAX)))
            KalWriteCFile(run, plain.data(),
                          static_cast<uint16_t>(std::min<size_t>(plain.size(), UINT16_MAX)));
        KalFlushCFile(run);
        bytes = run->status == 0 ? stream->pos : UINT32_MAX;
    }
    if (run != nullptr)
        KalFreeCFile(run);
    if (stream != nullptr)
        stream->close(stream);
    return bytes;
}

// Makes the operations of a picture.
class Maker {
public:
    Maker(PictureSource& source, const StoreOptions& options, uint16_t id, Pipe<MadeOp>& pipe)
        : source_(source), form_(source.form()), options_(options), id_(id), pipe_(pipe) {}

    void make() {
        uint8_t form[formPayload];
        storeForm(form, form_, id_);
        put(opForm, form);
        const auto putPart = [this](PicturePart part, ByteView bytes) {
            const uint16_t type = part == PicturePart::Before         ? opBefore
                                  : part == PicturePart::Transparency ? opTransparency
                                                                      : opAfter;
            count(bytes);
            for (; !bytes.empty(); bytes = bytes.subspan(std::min<size_t>(bytes.size(), mostPayload)))
                put(type, bytes.first(std::min<size_t>(bytes.size(), mostPayload)));
        };
        source_.before(putPart);
        options_.bands ? makeBands() : makeRows();
        source_.after(putPart);
        uint8_t end[endPayload];
        store32(end, checksum_);
        store32(end + 4, static_cast<uint32_t>(bytes_));
        store32(end + 8, static_cast<uint32_t>(bytes_ >> 32));
        put(opEnd, end);
    }

private:
    void count(ByteView bytes) {
        checksum_ = crc32(bytes, checksum_);
        bytes_ += bytes.size();
    }
    void put(uint16_t type, ByteView bytes) { pipe_.put({type, {bytes.begin(), bytes.end()}}); }

    // Reads the next rows, `most` bytes at most but one row at least.
    ByteView readRows(uint32_t most) {
        const uint32_t lines = std::min(form_.height - line_, std::max(1U, most / form_.rowBytes));
        rows_.resize(size_t{lines} * form_.rowBytes);
        source_.rows(rows_.data(), lines);
        count(rows_);
        line_ += lines;
        return rows_;
    }

    std::vector<uint8_t> filtered(ByteView rows, RowFilter& filter, bool filtering) const {
        const size_t lines = rows.size() / form_.rowBytes;
        std::vector<uint8_t> stored(lines * filter.storedBytes());
        for (size_t line = 0; line < lines; line++)
            filter.filter(&rows[line * form_.rowBytes], &stored[line * filter.storedBytes()], filtering);
        return stored;
    }

    void makeRows() {
        RowFilter filter(form_.rowBytes, form_.pixelBytes());
        ByteView rows = readRows(sampleBytes);
        bool filtering = false;
        if (options_.compressed) {
            RowFilter without(form_.rowBytes, form_.pixelBytes());
            RowFilter with(form_.rowBytes, form_.pixelBytes());
            filtering =
                compressedBytes(filtered(rows, with, true)) < compressedBytes(filtered(rows, without, false));
        }
        std::vector<uint8_t> op;
        for (;; rows = readRows(rowsAtATime)) {
            const std::vector<uint8_t> stored = filtered(rows, filter, filtering);
            for (ByteView rest = stored; !rest.empty();) {
                op.reserve(mostPayload);
                const ByteView piece = rest.first(std::min<size_t>(rest.size(), mostPayload - op.size()));
                op.insert(op.end(), piece.begin(), piece.end());
                rest = rest.subspan(piece.size());
                if (op.size() == mostPayload)
                    pipe_.put({opRows, std::exchange(op, {})});
            }
            if (line_ == form_.height)
                break;
        }
        if (!op.empty())
            pipe_.put({opRows, std::move(op)});
    }

    void makeBands() {
        const Bands bands(form_);
        if (!bands.fit())
            throw Failure(
                "it does not fit DIB operations: a BMP of 1, 4, 8 or 24 bits and of short rows does");
        while (line_ < form_.height) {
            const uint32_t first = line_;
            const ByteView rows = readRows(bands.mostLines() * form_.rowBytes);
            const uint32_t lines = std::min(line_ - first, bands.mostLines());
            std::vector<uint8_t> band(KAL_DIB_OP_HEADER + size_t{lines} * bands.lineBytes());
            store16(&band[2], first);
            store16(&band[4], form_.width);
            store16(&band[6], lines);
            band[8] = form_.bits;
            std::vector<uint8_t> padding(size_t{lines} * bands.paddingBytes());
            for (uint32_t line = 0; line < lines; line++) {
                const uint8_t* row = &rows[size_t{line} * form_.rowBytes];
                bands.toLine(row, &band[KAL_DIB_OP_HEADER + size_t{line} * bands.lineBytes()]);
                if (!padding.empty())
                    std::memcpy(&padding[size_t{line} * bands.paddingBytes()], row + bands.carriedBytes(),
                                bands.paddingBytes());
            }
            if (std::any_of(padding.begin(), padding.end(), [](uint8_t byte) { return byte != 0; }))
                pipe_.put({opPadding, std::move(padding)});
            pipe_.put({KAL_OP_DIB, std::move(band)});
        }
    }

    PictureSource& source_;
    const PictureForm& form_;
    const StoreOptions& options_;
    uint16_t id_;
    Pipe<MadeOp>& pipe_;
    std::vector<uint8_t> rows_;
    uint32_t line_ = 0; // the next to read
    uint32_t checksum_ = 0;
    uint64_t bytes_ = 0;
};

} // namespace

void putPicture(PictureSource& source, const StoreOptions& options, OpList* list, uint16_t id) {
    Pipe<MadeOp> pipe(source.form().rowsBytes() < threadPaysFrom, [&](Pipe<MadeOp>& made) {
        try {
            Maker(source, options, id, made).make();
        } catch (const Failure& failure) {
            throw failure.of(options.name);
        }
    });
    while (const auto op = pipe.take())
        putOp(list, op->type, op->bytes);
}
