// Runs as others read and write them: the GIF library, which shares no line with this one, and the format's page.
#include "tests/compress/step_run.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/samples.h"
#include "tests/support/vector_stream.h"

#include <gif_lib.h>

#include <cstring>

namespace {

struct Sides {
    uint32_t width, height;
};

void put16(Bytes& bytes, uint32_t value) {
    bytes.push_back(uint8_t(value));
    bytes.push_back(uint8_t(value >> 8));
}

// A picture of 256 greys whose pixels are the run.
Bytes gifAround(const Bytes& run, Sides sides) {
    Bytes gif = bytesOf("GIF89a");
    put16(gif, sides.width);
    put16(gif, sides.height);
    gif.insert(gif.end(), {0xF7, 0, 0});
    for (int grey = 0; grey < 256; grey++)
        gif.insert(gif.end(), 3, uint8_t(grey));
    gif.push_back(',');
    put16(gif, 0);
    put16(gif, 0);
    put16(gif, sides.width);
    put16(gif, sides.height);
    gif.insert(gif.end(), {0, 8});
    for (size_t at = 0; at < run.size(); at += 255) {
        const size_t block = std::min<size_t>(255, run.size() - at);
        gif.push_back(uint8_t(block));
        gif.insert(gif.end(), run.begin() + ptrdiff_t(at), run.begin() + ptrdiff_t(at + block));
    }
    gif.insert(gif.end(), {0, ';'});
    return gif;
}

struct Source {
    const Bytes& bytes;
    size_t at;
};

Bytes pixelsOf(const Bytes& gifBytes) {
    Source source = {gifBytes, 0};
    int error = 0;
    GifFileType* gif = DGifOpen(
        &source,
        [](GifFileType* file, GifByteType* to, int count) {
            auto* from = static_cast<Source*>(file->UserData);
            const size_t got = std::min(size_t(count), from->bytes.size() - from->at);
            std::memcpy(to, from->bytes.data() + from->at, got);
            from->at += got;
            return int(got);
        },
        &error);
    EXPECT_NE(gif, nullptr) << GifErrorString(error);
    EXPECT_EQ(DGifSlurp(gif), GIF_OK) << GifErrorString(gif->Error);
    const SavedImage& image = gif->SavedImages[0];
    const Bytes pixels(image.RasterBits,
                       image.RasterBits + size_t(image.ImageDesc.Width) * size_t(image.ImageDesc.Height));
    DGifCloseFile(gif, &error);
    return pixels;
}

// The run inside a GIF that the library writes.
Bytes runByGifLibrary(const Bytes& pixels, Sides sides) {
    Bytes gifBytes;
    int error = 0;
    GifFileType* gif = EGifOpen(
        &gifBytes,
        [](GifFileType* file, const GifByteType* from, int count) {
            auto* to = static_cast<Bytes*>(file->UserData);
            to->insert(to->end(), from, from + count);
            return count;
        },
        &error);
    ColorMapObject* colors = GifMakeMapObject(256, nullptr);
    const int width = int(sides.width);
    const int height = int(sides.height);
    EXPECT_EQ(EGifPutScreenDesc(gif, width, height, 8, 0, colors), GIF_OK);
    EXPECT_EQ(EGifPutImageDesc(gif, 0, 0, width, height, false, nullptr), GIF_OK);
    EXPECT_EQ(EGifPutLine(gif, const_cast<GifPixelType*>(pixels.data()), int(pixels.size())), GIF_OK);
    EGifCloseFile(gif, &error);
    GifFreeMapObject(colors);

    Bytes run;
    size_t at = 13 + 3 * 256 + 10 + 1; // screen, colours, picture, minimum code size
    for (size_t block; (block = gifBytes[at]) != 0; at += block + 1)
        run.insert(run.end(), gifBytes.begin() + ptrdiff_t(at) + 1,
                   gifBytes.begin() + ptrdiff_t(at + block) + 1);
    return run;
}

constexpr uint16_t kPiece = 40000;

Bytes writeRun(const Bytes& data) {
    VectorStream stream;
    scfiletag* cfile = makeCFile(stream.file());
    for (size_t at = 0; at < data.size(); at += kPiece) {
        const auto piece = uint16_t(std::min<size_t>(kPiece, data.size() - at));
        EXPECT_EQ(KalWriteCFile(cfile, &data[at], piece), piece);
    }
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    KalFreeCFile(cfile);
    return stream.bytes;
}

// The plain bytes, and the reader's end at the run's, whatever follows.
Bytes readRun(const Bytes& run, size_t length) {
    Bytes stored = run;
    stored.resize(run.size() + 100, 0xAA);
    VectorStream stream(stored);
    scfiletag* cfile = makeCFile(stream.file());
    Bytes data(length);
    for (size_t at = 0; at < length; at += kPiece) {
        const auto piece = uint16_t(std::min<size_t>(kPiece, length - at));
        EXPECT_EQ(KalReadCFile(cfile, &data[at], piece), piece);
    }
    EXPECT_EQ(cfile->status, 0);
    uint8_t byte;
    EXPECT_EQ(KalReadCFile(cfile, &byte, 1), 0);
    EXPECT_EQ(cfile->status, KAL_ERR_RUN);
    EXPECT_EQ(val(cfile->runPos), KAL_NO_POSITION);
    EXPECT_EQ(val(stream.file()->pos), run.size());
    KalFreeCFile(cfile);
    EXPECT_TRUE(stream.bytes == stored) << "reading writes nothing";
    return data;
}

} // namespace

TEST(Gif, TheLibrarysReaderAndWriterAgreeWithOurs) {
    static const Sides sizes[] = {{1, 1},    {2, 1},     {5, 1},     {257, 1},    {3839, 1},
                                  {4000, 1}, {65535, 1}, {1024, 97}, {2048, 1500}};
    for (const Sides& sides : sizes) {
        const size_t length = size_t(sides.width) * sides.height;
        for (const Bytes& data : {sampleText(length, 1), samplePicture(length, 2), randomBytes(length, 3),
                                  Bytes(length, 0), Bytes(length, 255)}) {
            const auto where = testing::Message() << length << " bytes from " << int(data[0]);
            EXPECT_TRUE(pixelsOf(gifAround(writeRun(data), sides)) == data) << where;
            EXPECT_TRUE(readRun(runByGifLibrary(data, sides), length) == data) << where;
        }
    }
}

TEST(RunFormat, TheDescribedExampleIsWhatIsWrittenAndRead) {
    const Bytes plain = hexExample("docs/formats/run.md", 0);
    const Bytes stored = hexExample("docs/formats/run.md", 1);
    EXPECT_EQ(writeRun(plain), stored);
    EXPECT_EQ(readRun(stored, plain.size()), plain);
}
