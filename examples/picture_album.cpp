// A picture album: one file that holds pictures and their thumbnails, compressed.
#include <kal/cpp.h>

#include <cstdio>
#include <vector>

namespace {

// Some picture: a slope of colours.
kal::Expected<kal::Bitmap> paint(uint16_t width, uint16_t height, uint8_t blue) {
    auto picture = kal::Bitmap::create(width, height, 24);
    std::vector<kal::Pixel> row(width);
    for (uint16_t y = 0; picture && y < height; y++) {
        for (uint16_t x = 0; x < width; x++)
            row[x] = {blue, uint8_t(255 * y / height), uint8_t(255 * x / width)};
        if (const auto put = picture->put(y, std::as_bytes(std::span(row))); !put.ok())
            return kal::Unexpected{put};
    }
    return picture;
}

// Every eighth pixel of every eighth row.
kal::Expected<kal::Bitmap> thumbnail(const kal::Bitmap& picture) {
    constexpr size_t pixelBytes = 3;
    auto small = kal::Bitmap::create(picture.width() / 8, picture.height() / 8, 24);
    std::vector<std::byte> row(picture.width() / 8 * pixelBytes);
    for (uint32_t y = 0; small && y < small->height(); y++) {
        const kal::Row large = picture.rows()[y * 8];
        for (size_t x = 0; x < row.size(); x++)
            row[x] = large.bytes()[x / pixelBytes * 8 * pixelBytes + x % pixelBytes];
        if (const auto put = small->put(y, row); !put.ok())
            return kal::Unexpected{put};
    }
    return small;
}

// A picture has an even id, its thumbnail the next.
kal::Status add(kal::OperationListFile& album, uint16_t id, const kal::Bitmap& picture) {
    const auto small = thumbnail(picture);
    if (!small)
        return small.error();
    const kal::Status stored = small->store(album, id + 1);
    return stored.ok() ? picture.store(album, id) : stored;
}

} // namespace

int main() {
    const auto manager = kal::VMem::open().value(); // pictures lie in movable memory
    auto album = kal::OperationListFile::create("album.kal").value();
    if (!album.reserve(1000).ok())
        return 1;
    for (uint16_t id = 0; id < 6; id += 2) {
        const auto picture = paint(640, 480, uint8_t(id * 40));
        if (!picture || !add(album, id, *picture).ok())
            return 1;
    }
    if (const auto closed = album.close(); !closed.ok())
        return std::printf("album.kal: %s\n", closed.text()), 1;

    album = kal::OperationListFile::open("album.kal").value();
    for (uint16_t id = 1; id < 6; id += 2) {
        const auto small = kal::Bitmap::load(album, id).value();
        std::printf("picture %d: a thumbnail of %d x %d pixels\n", id / 2, small.width(), small.height());
        if (small.rows()[59].bytes()[1] != std::byte{255 * 59 * 8 / 480})
            return 1;
    }
    std::remove("album.kal");
    return 0;
}
