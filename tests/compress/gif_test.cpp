// The simple coder is right: the GIF library, which shares no line with this project, reads its runs.
#include "tests/compress/runs.h"

#include <gif_lib.h>

#include <cstring>

namespace {

// A picture of 256 greys, one row, whose pixels are the run.
Bytes gifAround(const Bytes& run, size_t width) {
    Bytes gif = bytesOf("GIF89a");
    const auto append = [&](std::initializer_list<size_t> bytes) {
        for (size_t byte : bytes)
            gif.push_back(uint8_t(byte));
    };
    append({width, width >> 8, 1, 0, 0xF7, 0, 0});
    for (size_t grey = 0; grey < 256; grey++)
        append({grey, grey, grey});
    append({',', 0, 0, 0, 0, width, width >> 8, 1, 0, 0, 8});
    for (size_t at = 0; at < run.size(); at += 255) {
        const size_t block = std::min<size_t>(255, run.size() - at);
        append({block});
        gif.insert(gif.end(), run.begin() + long(at), run.begin() + long(at + block));
    }
    append({0, ';'});
    return gif;
}

Bytes pixelsOf(const Bytes& gifBytes) {
    std::pair<const Bytes&, size_t> source{gifBytes, 0};
    int error = 0;
    GifFileType* gif = DGifOpen(
        &source,
        [](GifFileType* file, GifByteType* to, int count) {
            auto& [bytes, at] = *static_cast<std::pair<const Bytes&, size_t>*>(file->UserData);
            const size_t got = std::min(size_t(count), bytes.size() - at);
            std::memcpy(to, bytes.data() + at, got);
            at += got;
            return int(got);
        },
        &error);
    EXPECT_EQ(DGifSlurp(gif), GIF_OK) << GifErrorString(gif->Error);
    const SavedImage& image = gif->SavedImages[0];
    const Bytes pixels(image.RasterBits, image.RasterBits + image.ImageDesc.Width);
    DGifCloseFile(gif, &error);
    return pixels;
}

} // namespace

TEST(Gif, TheLibraryReadsOurRuns) {
    for (size_t length : {1u, 2u, 5u, 257u, 3839u, 4000u, 65535u})
        for (const Bytes& data :
             {sampleText(length, 1), samplePicture(length, 2), randomBytes(length, 3), Bytes(length, 0)})
            EXPECT_TRUE(pixelsOf(gifAround(runOf(data).bytes, length)) == data)
                << length << " from " << int(data[0]);
}
