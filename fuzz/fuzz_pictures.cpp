// Any bytes as a picture file that is stored, read back as files of both kinds and made small; or, where the first byte is
// odd, any operations as a stored picture.
#include "fuzz/memory_host.h"

#include "tests/support/vector_stream.h"
#include "tools/failure.h"
#include "tools/picture_file.h"
#include "tools/picture_ops.h"
#include "tools/picture_source.h"
#include "tools/thumbnail.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint16_t kId = 1;
constexpr uint64_t kMostRows = 1 << 16; // bytes of rows: a few bytes can tell of gigabytes
constexpr uint16_t kOps[] = {opForm, opBefore, opTransparency, opRows, opPadding, opAfter, opEnd, KAL_OP_DIB};

// Makes the check sums of a PNG hold.
void repairPng(Bytes& file) {
    for (size_t at = 8; at + 12 <= file.size();) {
        const uint32_t length = load32(file, at) >> 24 | (load16(file, at + 2) & 0xFFu) << 8 |
                                (load16(file, at) & 0xFF00u) << 8 | uint32_t{file[at]} << 24;
        if (length > file.size() - at - 12)
            return;
        Checksum sum;
        sum.add({&file[at + 4], length + 4});
        for (unsigned k = 0; k < 4; k++)
            file[at + 8 + length + k] = static_cast<uint8_t>(sum.crc >> (24 - 8 * k));
        at += 12 + length;
    }
}

// The archive of one picture, in memory.
struct OneList {
    VectorStream stream;
    IOPFILE* file = nullptr;
    OpList* list = nullptr;

    explicit OneList(uint16_t format) {
        stream.file()->mode = KAL_MODE_CREATE | KAL_MODE_UPDATE;
        require(KalMakeIOpFile(&file, stream.file(), format) == KAL_OK, "a file can be made");
        require(KalOpenPutIOpList(file, kId, &list) == KAL_OK, "and a list in it");
    }
    ~OneList() { require(KalFreeIOpFile(file) == KAL_OK, "the file ends"); }
    OneList(const OneList&) = delete;
    OneList& operator=(const OneList&) = delete;
    OpList* again() {
        file->putList != nullptr ? KalClosePutIOpList(file) : KalCloseGetIOpList(file);
        require(KalOpenGetIOpList(file, kId, &list) == KAL_OK, "the list is there");
        return list;
    }
};

struct TooMuch {};

// The picture's file of that kind.
Bytes fileOf(OneList& lists, PictureFileAs as) {
    OutputFile out("/memory/out");
    std::unique_ptr<PictureFile> file;
    getPicture(lists.again(), kId, [&](const PictureForm& form) -> PictureTaker& {
        if (form.rowsBytes() > kMostRows)
            throw TooMuch();
        file = makePictureFile(out, form, as);
        return *file;
    });
    file->finish();
    return memoryHost::content("/memory/.out.kal-" + std::to_string(getpid()) + "-0");
}

void makeSmall(OneList& lists) {
    std::optional<Thumbnail> small;
    getPicture(lists.again(), kId, [&](const PictureForm& form) -> PictureTaker& {
        if (form.rowsBytes() > kMostRows)
            throw TooMuch();
        return small.emplace(form, 20);
    });
    for (uint32_t y = 0; y < small->height(); y++)
        require(small->row(y).size() == size_t{small->width()} * 3, "a row has all of its pixels");
}

void store(const Bytes& bytes, uint8_t choice) {
    memoryHost::setContent("/memory/picture", bytes);
    const File file = File::openIfThere("/memory/picture", O_RDONLY);
    const auto source = PictureSource::open(file);
    if (source->form().rowsBytes() > kMostRows)
        throw TooMuch();
    const bool compressed = choice % 4 == 0;
    OneList lists(compressed ? KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED : KAL_ITEMS_WIDE);
    const bool exact = source->whatIsLost() == nullptr;
    putPicture(*source, {"picture", choice % 8 >= 4, compressed}, lists.list, kId);
    const PictureFileAs kind =
        source->form().kind == PictureKind::Bmp ? PictureFileAs::Bmp : PictureFileAs::Png;
    const Bytes back = fileOf(lists, kind);
    require(!exact || back == bytes, "a picture comes back byte for byte");
    require(!back.empty(), "a picture comes back");
    makeSmall(lists);
    fileOf(lists, PictureFileAs::Png);
}

void readOps(Input& input) {
    const uint8_t choice = input.byte();
    OneList lists(choice % 2 != 0 ? KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED : KAL_ITEMS_WIDE);
    while (!input.ended()) {
        const uint16_t type = kOps[input.byte() % std::size(kOps)];
        const Bytes payload = input.bytes(input.word());
        KalPutOpData(lists.list, type, payload.data(), static_cast<uint32_t>(payload.size()));
    }
    try {
        makeSmall(lists);
    } catch (const Failure&) { // what one reader refuses another one may not
    }
    fileOf(lists, choice % 4 >= 2 ? PictureFileAs::Bmp : PictureFileAs::Png);
}

} // namespace

std::vector<Field> fieldsOf(const Bytes& input) {
    std::vector<Field> fields;
    if (input.size() > 80 && input[0] % 2 == 0)
        for (size_t at : {2u, 10u, 14u, 18u, 22u, 26u, 28u, 30u, 34u, 46u, 54u, 58u, 62u})
            fields.push_back({1 + at, at == 26 || at == 28 ? 2u : 4u});
    else if (input.size() > 80)
        for (size_t at = 2; at + 30 < input.size(); at += 3u + input[at + 1] + 256u * input[at + 2]) {
            fields.insert(fields.end(), {{at, 1}, {at + 1, 2}});
            for (size_t word = 3; input[at] == 0 && word < 27; word += 4)
                fields.push_back({at + word, 4});
        }
    return fields;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    memoryHost::start();
    Input input(data, size);
    const uint8_t choice = input.byte();
    try {
        if (choice % 2 != 0) {
            readOps(input);
        } else {
            Bytes file = input.rest();
            if (file.size() > 8 && file[0] == 0x89)
                repairPng(file);
            store(file, choice / 2);
        }
    } catch (const Failure&) {
    } catch (const TooMuch&) {
    }
    return 0;
}
