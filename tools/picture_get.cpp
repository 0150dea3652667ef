#include "tools/picture.h"

#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/picture_ops.h"
#include "tools/pipe.h"
#include "tools/row_filter.h"
#include "tools/stored_bitmap.h"

#include <cstring>
#include <optional>

namespace {

constexpr uint64_t threadPaysFrom = 1U << 20; // bytes of rows

kal::OpIterator firstOp(OpList* list) {
    kal::OpIterator op(list);
    if (op != kal::OperationList::end())
        return op;
    const int16_t status = KalGetOpError(list);
    requireMemory(status);
    throw Damaged(status != 0 ? statusText(status) : "it does not begin as a picture does");
}

bool isBitmap(const kal::Op& op) {
    return op.type == kal::Bitmap::descriptionOp;
}

PictureForm formOf(const kal::Op& op, uint16_t id) {
    if (isBitmap(op))
        return bitmapForm(op);
    if (op.type != opForm)
        throw Damaged("it does not begin as a picture does");
    return loadForm({reinterpret_cast<const uint8_t*>(op.bytes.data()), op.bytes.size()}, id);
}

// Makes a picture from operations of which nothing is believed.
class Rebuilder {
public:
    Rebuilder(const PictureForm& form, PictureTaker& taker)
        : form_(form), bands_(form), filter_(form.rowBytes, form.pixelBytes()), taker_(taker) {}

    void take(const Op& op) {
        const ByteView bytes = payload(op);
        if (bytes.empty())
            throw Damaged("it holds an empty operation");
        if (ended_)
            throw Damaged("it goes on behind its end");
        switch (KalOpType(op.get())) {
        case opBefore:
            return takePart(PicturePart::Before, bytes, line_ == 0);
        case opTransparency:
            return takePart(PicturePart::Transparency, bytes, line_ == 0);
        case opAfter:
            return takePart(PicturePart::After, bytes, line_ == form_.height);
        case opRows:
            return takeRows(bytes);
        case opPadding:
            padding_.assign(bytes.begin(), bytes.end());
            return;
        case KAL_OP_DIB:
            return takeBand(bytes);
        case opEnd:
            return takeEnd(bytes);
        default:
            throw Damaged("it holds an operation that does not belong there");
        }
    }

    void finish() const {
        if (!ended_)
            throw Damaged("a part of it is missing");
    }

private:
    void takePart(PicturePart part, ByteView bytes, bool belongs) {
        if (!belongs || !partial_.empty())
            throw Damaged("its parts stand in the wrong order");
        sum_.add(bytes);
        taker_.part(part, bytes);
    }

    void giveRows(const std::vector<uint8_t>& rows, uint32_t lines) {
        if (lines == 0)
            return;
        sum_.add(rows);
        taker_.rows(rows.data(), lines);
        line_ += lines;
    }

    // The row that the operations before began is ended first, then come whole ones.
    void takeRows(ByteView bytes) {
        const uint32_t stored = filter_.storedBytes();
        const uint64_t whole = (partial_.size() + uint64_t{bytes.size()}) / stored;
        if (whole > form_.height - line_)
            throw Damaged("it has more rows than it says");
        rows_.resize(static_cast<size_t>(whole) * form_.rowBytes);
        uint8_t* to = rows_.data();
        const auto restore = [&](const uint8_t* from) {
            if (!filter_.restore(from, to))
                throw Damaged("one of its rows makes no sense");
            to += form_.rowBytes;
        };
        if (!partial_.empty()) {
            const size_t piece = std::min(bytes.size(), stored - partial_.size());
            partial_.insert(partial_.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(piece));
            bytes = bytes.subspan(piece);
            if (partial_.size() == stored) {
                restore(partial_.data());
                partial_.clear();
            }
        }
        for (; bytes.size() >= stored; bytes = bytes.subspan(stored))
            restore(bytes.data());
        partial_.insert(partial_.end(), bytes.begin(), bytes.end());
        giveRows(rows_, static_cast<uint32_t>(whole));
    }

    void takeBand(ByteView bytes) {
        if (!bands_.fit() || bytes.size() < KAL_DIB_OP_HEADER || load16(bytes, 2) != line_ ||
            load16(bytes, 4) != form_.width || bytes[8] != form_.bits)
            refuseBand();
        const uint32_t lines = load16(bytes, 6);
        if (lines == 0 || lines > form_.height - line_ ||
            bytes.size() < KAL_DIB_OP_HEADER + uint64_t{lines} * bands_.lineBytes() ||
            (!padding_.empty() && padding_.size() != size_t{lines} * bands_.paddingBytes()))
            refuseBand();
        rows_.assign(size_t{lines} * form_.rowBytes, 0);
        for (uint32_t line = 0; line < lines; line++) {
            uint8_t* row = &rows_[size_t{line} * form_.rowBytes];
            bands_.fromLine(&bytes[KAL_DIB_OP_HEADER + size_t{line} * bands_.lineBytes()], row);
            if (!padding_.empty())
                std::memcpy(row + bands_.carriedBytes(), &padding_[size_t{line} * bands_.paddingBytes()],
                            bands_.paddingBytes());
        }
        padding_.clear();
        giveRows(rows_, lines);
    }

    [[noreturn]] static void refuseBand() { throw Damaged("a band of its rows makes no sense"); }

    void takeEnd(ByteView bytes) {
        if (bytes.size() != endPayload || line_ != form_.height || !partial_.empty() || !padding_.empty() ||
            (load32(bytes, 4) | uint64_t{load32(bytes, 8)} << 32) != sum_.bytes)
            throw Damaged("a part of it is missing");
        if (load32(bytes, 0) != sum_.crc)
            throw Damaged("its checksum is wrong");
        ended_ = true;
    }

    const PictureForm& form_;
    Bands bands_;
    RowFilter filter_;
    PictureTaker& taker_;
    std::vector<uint8_t> partial_; // the beginning of a stored row
    std::vector<uint8_t> rows_;
    std::vector<uint8_t> padding_;
    uint32_t line_ = 0; // the next
    Checksum sum_;
    bool ended_ = false;
};

} // namespace

PictureForm getPictureForm(OpList* list, uint16_t id) {
    return formOf(*firstOp(list), id);
}

void getPicture(OpList* list, uint16_t id, const std::function<PictureTaker&(const PictureForm&)>& start) {
    kal::OpIterator first = firstOp(list);
    if (isBitmap(*first))
        return getBitmap(first, start);
    const PictureForm form = formOf(*first, id);
    Rebuilder picture(form, start(form));
    Pipe<Op> pipe(form.rowsBytes() < threadPaysFrom, [list](Pipe<Op>& ops) {
        while (Op op = nextOp(list))
            ops.put(std::move(op));
    });
    while (const auto next = pipe.take()) {
        throwIfInterrupted();
        picture.take(*next);
    }
    picture.finish();
}
