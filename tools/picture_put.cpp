#include "tools/picture.h"

#include "tools/failure.h"
#include "tools/picture_ops.h"
#include "tools/picture_source.h"
#include "tools/pipe.h"
#include "tools/row_filter.h"

#include <new>
#include <utility>

namespace {

constexpr uint32_t sampleBytes = 1U << 18;    // of rows, to judge by
constexpr uint32_t rowsAtATime = 1U << 16;    // bytes
constexpr uint64_t threadPaysFrom = 1U << 20; // bytes of rows

struct MadeOp {
    uint16_t type;
    std::vector<uint8_t> bytes;
};

// Calls `use` with one piece of at most `most` bytes after another.
template <class Use>
void forPieces(ByteView bytes, size_t most, Use use) {
    for (; !bytes.empty(); bytes = bytes.subspan(std::min(bytes.size(), most)))
        use(bytes.first(std::min(bytes.size(), most)));
}

// Bytes that the run of `plain` takes. Throws std::bad_alloc.
uint32_t compressedBytes(ByteView plain) {
    SFILE* stream = nullptr;
    scfiletag* run = nullptr;
    uint32_t bytes = 0;
    if (KalOpenFile(&stream, "", KAL_MODE_MEMORY | KAL_MODE_UPDATE, 0) == 0 &&
        KalMakeCFile(&run, stream) == 0) {
        forPieces(plain, UINT16_MAX, [run](ByteView piece) {
            KalWriteCFile(run, piece.data(), static_cast<uint16_t>(piece.size()));
        });
        if (run->status == 0 && KalFlushCFile(run) == 0)
            bytes = stream->pos;
    }
    if (run != nullptr)
        KalFreeCFile(run);
    if (stream != nullptr)
        stream->close(stream);
    if (bytes == 0)
        throw std::bad_alloc();
    return bytes;
}

// Makes the operations of a picture.
class Maker {
public:
    Maker(PictureSource& source, const StoreOptions& options, uint16_t id, Pipe<MadeOp>& pipe)
        : source_(source), form_(source.form()), options_(options), id_(id), pipe_(pipe), bands_(form_),
          filter_(form_.rowBytes, form_.pixelBytes()) {}

    void make() {
        if (options_.bands && !bands_.fit())
            throw Failure(
                "it does not fit DIB operations: a BMP of 1, 4, 8 or 24 bits and of short rows does");
        uint8_t form[formPayload];
        storeForm(form, form_, id_);
        put(opForm, form);
        const auto putPart = [this](PicturePart part, ByteView bytes) {
            sum_.add(bytes);
            const uint16_t type = part == PicturePart::Before         ? opBefore
                                  : part == PicturePart::Transparency ? opTransparency
                                                                      : opAfter;
            forPieces(bytes, mostPayload, [&](ByteView piece) { put(type, piece); });
        };
        source_.before(putPart);
        makeRows();
        source_.after(putPart);
        uint8_t end[endPayload];
        store32(end, sum_.crc);
        store32(end + 4, static_cast<uint32_t>(sum_.bytes));
        store32(end + 8, static_cast<uint32_t>(sum_.bytes >> 32));
        put(opEnd, end);
    }

private:
    enum class RowsAs { Filtered, Unfiltered, Bands };

    void put(uint16_t type, ByteView bytes) { pipe_.put({type, {bytes.begin(), bytes.end()}}); }

    // Reads the next rows, `most` bytes at most but one row at least.
    ByteView readRows(uint32_t most) {
        const uint32_t lines = std::min(form_.height - line_, std::max(1U, most / form_.rowBytes));
        rows_.resize(size_t{lines} * form_.rowBytes);
        source_.rows(rows_.data(), lines);
        sum_.add(rows_);
        line_ += lines;
        return rows_;
    }

    void makeRows() {
        ByteView rows = readRows(sampleBytes);
        const RowsAs as = choose(rows);
        uint32_t first = 0;
        for (;; rows = readRows(rowsAtATime)) {
            if (as == RowsAs::Bands)
                putBands(rows, first);
            else
                putFiltered(rows, as == RowsAs::Filtered);
            first = line_;
            if (line_ == form_.height)
                break;
        }
        if (!op_.empty())
            pipe_.put({opRows, std::move(op_)});
    }

    // What makes the first rows smallest.
    RowsAs choose(ByteView rows) const {
        if (options_.bands)
            return RowsAs::Bands;
        if (!options_.compressed)
            return RowsAs::Unfiltered;
        RowFilter with(form_.rowBytes, form_.pixelBytes());
        RowFilter without(form_.rowBytes, form_.pixelBytes());
        const uint64_t filteredBytes = compressedBytes(filtered(rows, with, true));
        const uint64_t unfilteredBytes = compressedBytes(filtered(rows, without, false));
        const uint64_t bandBytes = bands_.fit() ? compressedBytes(bandOf(rows, 0)) : UINT64_MAX;
        return bandBytes < std::min(filteredBytes, unfilteredBytes) ? RowsAs::Bands
               : filteredBytes < unfilteredBytes                    ? RowsAs::Filtered
                                                                    : RowsAs::Unfiltered;
    }

    std::vector<uint8_t> filtered(ByteView rows, RowFilter& filter, bool filtering) const {
        const size_t lines = rows.size() / form_.rowBytes;
        std::vector<uint8_t> stored(lines * filter.storedBytes());
        for (size_t line = 0; line < lines; line++)
            filter.filter(&rows[line * form_.rowBytes], &stored[line * filter.storedBytes()], filtering);
        return stored;
    }

    // Rows follow one another whatever the operations' limits are.
    void putFiltered(ByteView rows, bool filtering) {
        const std::vector<uint8_t> stored = filtered(rows, filter_, filtering);
        for (ByteView rest = stored; !rest.empty();) {
            op_.reserve(mostPayload);
            const ByteView piece = rest.first(std::min<size_t>(rest.size(), mostPayload - op_.size()));
            op_.insert(op_.end(), piece.begin(), piece.end());
            rest = rest.subspan(piece.size());
            if (op_.size() == mostPayload)
                pipe_.put({opRows, std::exchange(op_, {})});
        }
    }

    // The payload of a band; its lines are counted by what 16 bits hold.
    std::vector<uint8_t> bandOf(ByteView rows, uint32_t first) const {
        const size_t lines = rows.size() / form_.rowBytes;
        std::vector<uint8_t> band(KAL_DIB_OP_HEADER + lines * bands_.lineBytes());
        store16(&band[2], first);
        store16(&band[4], form_.width);
        store16(&band[6], static_cast<uint32_t>(lines));
        band[8] = form_.bits;
        for (size_t line = 0; line < lines; line++)
            bands_.toLine(&rows[line * form_.rowBytes], &band[KAL_DIB_OP_HEADER + line * bands_.lineBytes()]);
        return band;
    }

    void putBands(ByteView rows, uint32_t first) {
        forPieces(rows, bands_.mostLines() * form_.rowBytes, [&](ByteView piece) {
            std::vector<uint8_t> padding;
            for (size_t row = 0; row < piece.size(); row += form_.rowBytes) {
                const ByteView pad = piece.subspan(row + bands_.carriedBytes(), bands_.paddingBytes());
                padding.insert(padding.end(), pad.begin(), pad.end());
            }
            if (std::any_of(padding.begin(), padding.end(), [](uint8_t byte) { return byte != 0; }))
                pipe_.put({opPadding, std::move(padding)});
            pipe_.put({KAL_OP_DIB, bandOf(piece, first)});
            first += static_cast<uint32_t>(piece.size() / form_.rowBytes);
        });
    }

    PictureSource& source_;
    const PictureForm& form_;
    const StoreOptions& options_;
    uint16_t id_;
    Pipe<MadeOp>& pipe_;
    Bands bands_;
    RowFilter filter_;
    std::vector<uint8_t> rows_;
    std::vector<uint8_t> op_; // the beginning of the next operation
    uint32_t line_ = 0;       // the next to read
    Checksum sum_;
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
