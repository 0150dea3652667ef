// Any bytes as a picture file that is stored, read back as files of both kinds and made small; or, where the first byte is
// odd, any operations as a stored picture.
#include "fuzz/memory_host.h"

#include "tools/failure.h"
#include "tools/picture_file.h"
#include "tools/picture_ops.h"
#include "tools/picture_source.h"
#include "tools/thumbnail.h"

#include <kal/cpp/oplist.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint16_t kId = 1;
constexpr uint64_t kMostRows = 1 << 16; // bytes of rows: a few bytes can tell of gigabytes
constexpr uint16_t kOps[] = {opForm, opBefore, opTransparency, opRows, opPadding, opAfter, opEnd, KAL_OP_DIB};

// Makes the check sums of a PNG hold.
void repairPng(Bytes& file) {
    for (size_t at = 8; at + 12 <= file.size();) {
        const uint32_t length = __builtin_bswap32(load32(file, at));
        if (length > file.size() - at - 12)
            return;
        Checksum sum;
        sum.add({&file[at + 4], length + 4});
        store32(&file[at + 8 + length], __builtin_bswap32(sum.crc));
        at += 12 + length;
    }
}

kal::OperationListFile makeArchive(bool compressed) {
    const uint16_t format = compressed ? KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED : KAL_ITEMS_WIDE;
    return kal::OperationListFile::create("/archive", format).value();
}

void requireFew(const PictureForm& form) {
    if (form.rowsBytes() > kMostRows)
        throw Failure("too much");
}

// The picture's file of that kind.
Bytes fileOf(const kal::OperationListFile& archive, PictureFileAs as) {
    OutputFile out("/memory/out");
    std::unique_ptr<PictureFile> file;
    getPicture(archive.get(kId).value().list(), kId, [&](const PictureForm& form) -> PictureTaker& {
        requireFew(form);
        return *(file = makePictureFile(out, form, as));
    });
    file->finish();
    return memoryHost::file("/memory/.out.kal-" + std::to_string(getpid()) + "-0");
}

void makeSmall(const kal::OperationListFile& archive) {
    std::optional<Thumbnail> small;
    getPicture(archive.get(kId).value().list(), kId, [&](const PictureForm& form) -> PictureTaker& {
        requireFew(form);
        return small.emplace(form, 20);
    });
    for (uint32_t y = 0; y < small->height(); y++)
        require(small->row(y).size() == size_t{small->width()} * 3, "a row has all of its pixels");
}

void store(const Bytes& bytes, uint8_t choice) {
    memoryHost::file("/memory/picture") = bytes;
    const File file = File::openIfThere("/memory/picture", O_RDONLY);
    const auto source = PictureSource::open(file);
    requireFew(source->form());
    const bool compressed = choice % 4 == 0;
    auto archive = makeArchive(compressed);
    const bool exact = source->whatIsLost() == nullptr;
    putPicture(*source, {"picture", choice % 8 >= 4, compressed}, archive.put(kId).value().list(), kId);
    const bool isBmp = source->form().kind == PictureKind::Bmp;
    const Bytes back = fileOf(archive, isBmp ? PictureFileAs::Bmp : PictureFileAs::Png);
    require(exact ? back == bytes : !back.empty(), "a picture comes back byte for byte");
    makeSmall(archive);
    fileOf(archive, PictureFileAs::Png);
    require(archive.close().ok(), "the archive ends");
}

void readOps(Input& input) {
    const uint8_t choice = input.byte();
    auto archive = makeArchive(choice % 2 != 0);
    for (auto list = archive.put(kId).value(); !input.ended();) {
        const uint16_t type = kOps[input.byte() % std::size(kOps)];
        const Bytes payload = input.bytes(input.word());
        KalPutOpData(list.list(), type, payload.data(), static_cast<uint32_t>(payload.size()));
    }
    try {
        makeSmall(archive);
    } catch (const Failure&) { // what one reader refuses another one may not
    }
    fileOf(archive, choice % 4 >= 2 ? PictureFileAs::Bmp : PictureFileAs::Png);
}

} // namespace

Layout layoutOf(const Bytes& input) {
    if (input.empty() || input[0] % 2 != 0) // operations
        return {{}, 2, {{0, 1}, {1, 2}, {3, 4}, {7, 4}, {11, 4}, {15, 4}, {19, 4}, {23, 4}}, 3, {1, 2}, 3};
    std::vector<Field> ofBmp;
    for (size_t at : {2u, 10u, 14u, 18u, 22u, 26u, 28u, 30u, 34u, 46u, 54u, 58u, 62u})
        ofBmp.push_back({1 + at, at == 26 || at == 28 ? 2u : 4u});
    return {ofBmp};
}

void fuzz(Input input) {
    const uint8_t choice = input.byte();
    try {
        if (choice % 2 != 0)
            return readOps(input);
        Bytes file = input.rest();
        if (file.size() > 8 && file[0] == 0x89)
            repairPng(file);
        store(file, choice / 2);
    } catch (const Failure&) {
    }
}
