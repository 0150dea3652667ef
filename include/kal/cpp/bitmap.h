// Pictures in movable memory: a bitmap list with a palette, its rows as a range, stored with one call.
//
//     auto picture = kal::Bitmap::create(640, 480, 24);
//     picture->put(0, row);
//     auto album = kal::OperationListFile::create("album.kal");
//     picture->store(*album, 1);
//
// A picture may be larger than the memory there is. The manager must be open (see kal::VMem). The stored form is
// described in docs/formats/bitmap.md.
#ifndef KAL_CPP_BITMAP_H
#define KAL_CPP_BITMAP_H

#include <kal/cpp/oplist.h>
#include <kal/cpp/vmem.h>

#include <algorithm>
#include <compare>
#include <iterator>
#include <ranges>
#include <vector>

namespace kal {

// A colour of a palette, as bitmaps have it.
struct Colour {
    uint8_t blue;   // 0 to 255
    uint8_t green;  // 0 to 255
    uint8_t red;    // 0 to 255
    uint8_t unused; // kept as it is
};

// A pixel of 24 bits.
struct Pixel {
    uint8_t blue;  // 0 to 255
    uint8_t green; // 0 to 255
    uint8_t red;   // 0 to 255
};

// A row in memory, where it stays as long as this.
class Row {
public:
    // The row at which the list stands. Empty when it cannot be had, which the list's status tells.
    explicit Row(OpList* list) : lock_(list->curBlock->vmem, list->curBlock->capacity) {
        if (lock_)
            bytes_ = lock_.bytes().subspan(list->curBlock->offset, list->dib->rowBytes);
        else if (list->curBlock->vmem == nullptr) // nothing was ever put there
            bytes_ = (zeros_ = Block(KalAllocSMem(list->dib->rowBytes))).bytes();
        if (bytes_.empty())
            list->status = KAL_ERR_VMEM;
    }

    // What is in it.
    Bytes bytes() const { return bytes_; }

private:
    ReadLock lock_;
    Block zeros_;
    Bytes bytes_;
};

// Goes over the rows of a bitmap list in any order. Rows are made for each look.
class RowIterator {
public:
    using value_type = Row;                                   // a row in memory
    using difference_type = ptrdiff_t;                        // of rows
    using reference = Row;                                    // a value, not a place
    using iterator_concept = std::random_access_iterator_tag; // what C++20 takes it for
    using iterator_category = std::input_iterator_tag;        // and what older algorithms do

    // At row y, counted from 0.
    RowIterator() = default;
    RowIterator(OpList* list, difference_type y) : list_(list), y_(y) {}

    // The row, and the one that is some rows on; see the standard's iterators.
    Row operator*() const {
        KalSeekDIBScanLineOffset(list_, static_cast<uint16_t>(list_->dib->top + y_), 0);
        return Row(list_);
    }
    Row operator[](difference_type rows) const { return *(*this + rows); }
    RowIterator& operator+=(difference_type rows) {
        y_ += rows;
        return *this;
    }
    RowIterator& operator-=(difference_type rows) { return *this += -rows; }
    RowIterator& operator++() { return *this += 1; }
    RowIterator& operator--() { return *this += -1; }
    RowIterator operator++(int) { return {list_, y_++}; }
    RowIterator operator--(int) { return {list_, y_--}; }
    friend RowIterator operator+(RowIterator at, difference_type rows) { return at += rows; }
    friend RowIterator operator+(difference_type rows, RowIterator at) { return at += rows; }
    friend RowIterator operator-(RowIterator at, difference_type rows) { return at -= rows; }
    friend difference_type operator-(RowIterator left, RowIterator right) { return left.y_ - right.y_; }
    // Iterators of one list are in the order of their rows.
    friend auto operator<=>(const RowIterator&, const RowIterator&) = default;

private:
    OpList* list_ = nullptr;
    difference_type y_ = 0;
};

// All rows of a bitmap list that is set up, whoever owns it: a random-access view.
class Rows : public std::ranges::view_base {
public:
    // Over the list, which stays the caller's.
    explicit Rows(OpList* list) : list_(list) {}
    RowIterator begin() const { return {list_, 0}; }
    RowIterator end() const { return {list_, list_->dib->height}; }
    Row operator[](uint32_t y) const { return begin()[static_cast<ptrdiff_t>(y)]; }
    size_t size() const { return list_->dib->height; }

private:
    OpList* list_;
};

// How a bitmap ends: a bitmap list, of which the palette is the attachment.
struct BitmapTraits : RecordTraits<OpList> {
    // Takes a block, or none, for the one that the list has.
    static void attach(OpList* list, void* block) {
        void* old = list->dib->attachment; // no reference: the record is packed
        list->dib->attachment = block;
        KalFreeSMem(old);
    }
    // The list's status.
    static Status close(OpList* list) {
        if (list->dib != nullptr)
            attach(list, nullptr);
        return OperationListTraits::close(list);
    }
};

// A picture; see above.
class Bitmap : public Owner<BitmapTraits> {
public:
    using Owner::Owner;

    // The type of the op that stands in front of a stored picture's rows.
    static constexpr uint16_t descriptionOp = 0x0120;

    // A picture of zeros, with 1, 4, 8 or 24 bits per pixel. The statuses of KalTempOpList and KalSetupOpList;
    // KAL_ERR_FORMAT for another number of bits.
    static Expected<Bitmap> create(uint16_t width, uint16_t height, uint16_t bits) {
        return opened<Bitmap>([&](OpList** out) {
            int16_t status = KalTempOpList(out, KAL_OPL_VMEM_DIB);
            if (status == KAL_OK)
                status = KalSetupOpList(*out, 0, 0, width, height, bits, 0, UINT16_MAX);
            return status == KAL_OK && (*out)->dib->bitsPerPixel != bits ? int16_t{KAL_ERR_FORMAT} : status;
        });
    }

    // The picture that a bitmap list is; KAL_ERR_POSITION for a list that is not set up. The way back is release().
    static Expected<Bitmap> from(OperationList list) {
        if (list->dib == nullptr || list->dib->rowBytes == 0)
            return Unexpected{KAL_ERR_POSITION};
        return Bitmap(list.release());
    }

    // Another picture of the same rows and palette. The statuses of KalCloneDIBOpList.
    Expected<Bitmap> clone() const {
        return opened<Bitmap>([&](OpList** out) { return KalCloneDIBOpList(get(), out); });
    }

    // Pixels, rows, bits per pixel, and bytes of a row, which is a multiple of 4.
    uint16_t width() const { return get()->dib->width; }
    uint16_t height() const { return get()->dib->height; }
    uint16_t bits() const { return get()->dib->bitsPerPixel; }
    uint16_t rowBytes() const { return get()->dib->rowBytes; }

    // The palette, which stays until it is set anew or the picture ends. 0, or KAL_ERR_MEMORY with the palette as it
    // was.
    std::span<const Colour> palette() const {
        const void* colours = get()->dib->attachment;
        return {static_cast<const Colour*>(colours), KalSizeSMem(colours) / sizeof(Colour)};
    }
    Status setPalette(std::span<const Colour> colours) {
        void* block = KalAllocSMem(static_cast<uint32_t>(colours.size_bytes()));
        if (block == nullptr)
            return KAL_ERR_MEMORY;
        std::copy(colours.begin(), colours.end(), static_cast<Colour*>(block));
        BitmapTraits::attach(get(), block);
        return KAL_OK;
    }

    // All rows from 0 on. A row costs no more than bringing back its memory does.
    Rows rows() const { return Rows(get()); }

    // Puts row y, cut to the row's bytes; a shorter one leaves the rest as it was. The list's status; KAL_ERR_POSITION
    // where there is no such row.
    Status put(uint32_t y, Bytes bytes) {
        if (y >= height())
            return KAL_ERR_POSITION;
        const auto size = static_cast<uint32_t>(std::min<size_t>(bytes.size(), rowBytes()));
        return seek(y).ok() && KalPutDIBOpData(get(), bytes.data(), size) != KAL_OP_FAILED ? Status()
                                                                                           : status();
    }

    // The rows in bands, each a DIB op, from the first on.
    OpIterator begin() const {
        seek(0);
        return OpIterator(get());
    }
    static std::default_sentinel_t end() { return {}; }

    // Puts a band to the rows that it names. The number of rows; KAL_ERR_FORMAT when it is no band of this picture.
    Expected<uint32_t> putBand(const Op& band) {
        if (band.type != KAL_OP_DIB || band.bytes.size() < KAL_DIB_OP_HEADER)
            return Unexpected{KAL_ERR_FORMAT};
        const uint32_t first = number(band.bytes, 2);
        const uint32_t count = number(band.bytes, 6);
        const size_t line = KalDIBLineBytes(width(), bits());
        if (number(band.bytes, 4) != width() || number(band.bytes, 8) % 256 != bits() ||
            first + count > height() || count == 0 || band.bytes.size() - KAL_DIB_OP_HEADER < count * line)
            return Unexpected{KAL_ERR_FORMAT};
        auto* op = const_cast<std::byte*>(band.bytes.data());
        if (!seek(first).ok() || KalPutDIBOp(get(), op) == KAL_OP_FAILED)
            return Unexpected{status()};
        return count;
    }

    // Stores the picture as item `id`. The statuses of OperationListFile::put, or what went wrong on the way.
    Status store(OperationListFile& file, uint16_t id) const {
        auto item = file.put(id);
        if (!item)
            return item.error();
        const std::span colours = palette();
        std::vector<uint8_t> description;
        for (const size_t value : {size_t{width()}, size_t{height()}, size_t{bits()}, colours.size()})
            description.insert(description.end(),
                               {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)});
        for (const Colour colour : colours)
            description.insert(description.end(), {colour.blue, colour.green, colour.red, colour.unused});
        const auto put = item->put(descriptionOp, std::as_bytes(std::span(description)));
        const Status bands = put ? item->putAll(*this) : put.error();
        const Status closed = item->close();
        return !bands.ok() ? bands : !status().ok() ? status() : closed;
    }

    // The picture that item `id` holds. The statuses of OperationListFile::get and read, or what went wrong on the way.
    static Expected<Bitmap> load(const OperationListFile& file, uint16_t id) {
        const auto item = file.get(id);
        if (!item)
            return Unexpected{item.error()};
        OpIterator op = item->begin();
        auto picture = read(op);
        return picture || item->status().ok() ? std::move(picture) : Unexpected{item->status()};
    }

    // The picture that an iterator over ops stands at, which then stands at the last band. The statuses of create,
    // KAL_ERR_FORMAT when it is no picture, or KAL_ERR_SHORT_READ when a row is missing.
    static Expected<Bitmap> read(OpIterator& op) {
        if (op == end() || (*op).type != descriptionOp)
            return Unexpected{KAL_ERR_FORMAT};
        auto made = described((*op).bytes);
        for (uint32_t next = 0; made && next < made->height();) {
            if (++op == end())
                return Unexpected{KAL_ERR_SHORT_READ};
            const auto count =
                number((*op).bytes, 2) == next ? made->putBand(*op) : Unexpected{KAL_ERR_FORMAT};
            if (!count)
                return Unexpected{count.error()};
            next += *count;
        }
        return made;
    }

    // The list's status, which stays once it is not 0.
    Status status() const { return KalGetOpError(get()); }

private:
    static uint32_t number(Bytes bytes, size_t at) {
        return at + 2 > bytes.size()
                   ? UINT32_MAX
                   : std::to_integer<uint32_t>(bytes[at]) | std::to_integer<uint32_t>(bytes[at + 1]) << 8;
    }

    Status seek(uint32_t y) const {
        return KalSeekDIBScanLineOffset(get(), static_cast<uint16_t>(get()->dib->top + y), 0);
    }

    // A picture of zeros as a description op tells.
    static Expected<Bitmap> described(Bytes bytes) {
        const uint32_t colours = number(bytes, 6);
        if (bytes.size() != 8 + size_t{colours} * sizeof(Colour))
            return Unexpected{KAL_ERR_FORMAT};
        const auto half = [bytes](size_t at) { return static_cast<uint16_t>(number(bytes, at)); };
        auto made = create(half(0), half(2), half(4));
        if (!made || colours == 0)
            return made;
        std::vector<Colour> palette(colours);
        std::memcpy(palette.data(), bytes.data() + 8, palette.size() * sizeof(Colour));
        const Status set = made->setPalette(palette);
        return set.ok() ? std::move(made) : Unexpected{set};
    }
};

static_assert(std::random_access_iterator<RowIterator>);

} // namespace kal

#endif
