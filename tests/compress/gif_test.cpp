// The simple coder is right: the GIF library, which shares no line with this project, reads its runs.
#include "tests/compress/runs.h"

#include <gif_lib.h>

namespace {

// A picture of one row, with a colour map of two, whose pixels are the run.
Bytes gifAround(const Bytes& run, size_t width) {
    const uint8_t low = uint8_t(width), high = uint8_t(width >> 8);
    Bytes gif = bytesOf("GIF89a");
    gif.insert(gif.end(), {low, high, 1, 0, 0xF0, 0, 0, 0, 0, 0, 255, 255, 255});
    gif.insert(gif.end(), {',', 0, 0, 0, 0, low, high, 1, 0, 0, 8});
    for (size_t at = 0; at < run.size(); at += 255) {
        const size_t block = std::min<size_t>(255, run.size() - at);
        gif.push_back(uint8_t(block));
        gif.insert(gif.end(), run.begin() + long(at), run.begin() + long(at + block));
    }
    gif.insert(gif.end(), {0, ';'});
    return gif;
}

// By way of a file.
Bytes pixelsOf(const Bytes& gifBytes) {
    writeFile("f.gif", gifBytes);
    int error = 0;
    GifFileType* gif = DGifOpenFileName("f.gif", &error);
    EXPECT_EQ(DGifSlurp(gif), GIF_OK) << GifErrorString(gif->Error);
    const SavedImage& image = gif->SavedImages[0];
    const Bytes pixels(image.RasterBits, image.RasterBits + image.ImageDesc.Width);
    DGifCloseFile(gif, &error);
    return pixels;
}

} // namespace

using Gif = FolderTest;

TEST_F(Gif, TheGifLibraryReadsOurRuns) {
    for (size_t length : {1u, 2u, 5u, 257u, 3839u, 4000u, 65535u})
        for (const Bytes& data : {randomLetters(length, 1, 4), randomLetters(length, 2, 40),
                                  randomBytes(length, 3), Bytes(length, 0)})
            EXPECT_TRUE(pixelsOf(gifAround(runOf(data).bytes, length)) == data)
                << length << " from " << int(data[0]);
}
