#include "tools/stored_bitmap.h"

#include "tools/bmp.h"
#include "tools/failure.h"
#include "tools/interrupt.h"

namespace {

constexpr uint32_t mostInMemory = 8U << 20; // of a picture; the rest is swapped out

// What the library gave. Throws what it gave instead.
template <class Picture, class Value>
Value& given(kal::Expected<Value>& value) {
    if (!value) {
        requireMemory(value.error().code());
        throw Picture(value.error().text());
    }
    return *value;
}

} // namespace

PictureForm bitmapForm(const kal::Op& description) {
    const ByteView bytes(reinterpret_cast<const uint8_t*>(description.bytes.data()),
                         description.bytes.size());
    const uint32_t bits = bytes.size() < 8 ? 0 : load16(bytes, 4);
    if ((bits != 1 && bits != 4 && bits != 8 && bits != 24) || load16(bytes, 0) == 0 ||
        load16(bytes, 2) == 0 || bytes.size() != 8 + size_t{load16(bytes, 6)} * sizeof(kal::Colour))
        throw Damaged("its form makes no sense");
    PictureForm form = {};
    form.kind = PictureKind::Bmp;
    form.bits = static_cast<uint8_t>(bits);
    form.topDown = true;
    form.width = load16(bytes, 0);
    form.height = load16(bytes, 2);
    form.rowBytes = (form.width * bits + 31) / 32 * 4;
    const size_t headers = bmpHeaders(form.width, form.height, true, bits, bytes.subspan(8)).size();
    form.fileBytes = static_cast<uint32_t>(headers + form.rowsBytes());
    return form;
}

void getBitmap(kal::OpIterator& op, const std::function<PictureTaker&(const PictureForm&)>& start) {
    const PictureForm form = bitmapForm(*op);
    auto memory = kal::VMem::open(mostInMemory);
    given<Failure>(memory);
    auto read = kal::Bitmap::read(op);
    const kal::Bitmap& bitmap = given<Damaged>(read);
    PictureTaker& taker = start(form);
    const auto palette = std::as_bytes(bitmap.palette());
    taker.part(PicturePart::Before,
               bmpHeaders(form.width, form.height, form.topDown, form.bits,
                          {reinterpret_cast<const uint8_t*>(palette.data()), palette.size()}));
    for (const kal::Row& row : bitmap.rows()) {
        throwIfInterrupted();
        if (!bitmap.status().ok())
            throw Failure(bitmap.status().text());
        taker.rows(reinterpret_cast<const uint8_t*>(row.bytes().data()), 1);
    }
}
