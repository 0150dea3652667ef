#include "tools/picture_source.h"

#include "tools/bmp_runs.h"
#include "tools/failure.h"
#include "tools/png_file.h"

namespace {

PictureForm bmpForm(const BmpLayout& layout, uint64_t fileBytes) {
    PictureForm form = {};
    form.kind = PictureKind::Bmp;
    form.bits = static_cast<uint8_t>(layout.bits);
    form.topDown = layout.topDown;
    form.width = layout.width;
    form.height = layout.height;
    form.rowBytes = layout.rowBytes;
    form.fileBytes = static_cast<uint32_t>(fileBytes);
    return form;
}

class BmpSource : public PictureSource {
public:
    BmpSource(const File& file, const BmpLayout& layout, uint64_t fileBytes)
        : file_(file), next_(layout.rowsStart), rowsStart_(layout.rowsStart), end_(fileBytes) {
        form_ = bmpForm(layout, fileBytes);
    }

    void before(const Take& take) override { pass(0, rowsStart_, PicturePart::Before, take); }
    void rows(uint8_t* to, uint32_t count) override {
        const size_t bytes = size_t{count} * form_.rowBytes;
        file_.readExactly(next_, to, bytes);
        next_ += bytes;
    }
    void after(const Take& take) override { pass(next_, end_, PicturePart::After, take); }

private:
    void pass(uint64_t from, uint64_t to, PicturePart part, const Take& take) {
        file_.forPieces(from, to - from, [&](ByteView piece) { take(part, piece); });
    }

    const File& file_;
    uint64_t next_;
    uint64_t rowsStart_;
    uint64_t end_;
};

// Comes back as a BMP file without runs.
class BmpRunsSource : public PictureSource {
public:
    BmpRunsSource(const File& file, const BmpLayout& layout, uint64_t fileBytes)
        : layout_(layout), runs_(file, layout_) {
        form_ = bmpForm(layout, fileBytes);
        const std::vector<uint8_t> stored =
            file.readAt(layout.paletteStart, size_t{layout.colours} * layout.colourBytes);
        std::vector<uint8_t> palette;
        for (size_t at = 0; at + layout.colourBytes <= stored.size(); at += layout.colourBytes)
            palette.insert(palette.end(), {stored[at], stored[at + 1], stored[at + 2], 0});
        headers_ = bmpHeaders(layout.width, layout.height, layout.topDown, layout.bits, palette);
    }

    const char* whatIsLost() const override { return "comes back without run-length compression"; }
    void before(const Take& take) override { take(PicturePart::Before, headers_); }
    void rows(uint8_t* to, uint32_t count) override {
        for (; count > 0; count--, to += form_.rowBytes)
            runs_.row(to);
    }

private:
    BmpLayout layout_;
    BmpRuns runs_;
    std::vector<uint8_t> headers_;
};

class PngSource : public PictureSource {
public:
    PngSource(const File& file, uint64_t fileBytes) : reader_(file) {
        const PngLayout& layout = reader_.layout();
        form_.kind = PictureKind::Png;
        form_.colour = static_cast<uint8_t>(layout.colour);
        form_.depth = static_cast<uint8_t>(layout.depth);
        form_.bits = static_cast<uint8_t>(layout.bitsPerPixel());
        form_.topDown = true;
        form_.width = layout.width;
        form_.height = layout.height;
        form_.rowBytes = static_cast<uint32_t>(layout.rowBytes());
        form_.fileBytes = static_cast<uint32_t>(fileBytes);
    }

    const char* whatIsLost() const override { return "only the pixels come back, no other bytes"; }
    void before(const Take& take) override {
        if (!reader_.layout().palette.empty())
            take(PicturePart::Before, reader_.layout().palette);
        if (!reader_.layout().transparency.empty())
            take(PicturePart::Transparency, reader_.layout().transparency);
    }
    void rows(uint8_t* to, uint32_t count) override {
        for (; count > 0; count--, to += form_.rowBytes)
            reader_.row(to);
    }

private:
    PngReader reader_;
};

std::unique_ptr<PictureSource> openAny(const File& file) {
    const uint64_t size = file.size();
    if (size > UINT32_MAX)
        throw Failure("it is larger than 4 GiB");
    const std::vector<uint8_t> start = file.readAt(0, mostBmpHeaders);
    if (isPng(start))
        return std::make_unique<PngSource>(file, size);
    if (start.size() < 2 || start[0] != 'B' || start[1] != 'M')
        throw Failure("it is neither a BMP nor a PNG file");
    const BmpLayout layout = bmpLayout(start, size);
    if (layout.runs)
        return std::make_unique<BmpRunsSource>(file, layout, size);
    return std::make_unique<BmpSource>(file, layout, size);
}

} // namespace

std::unique_ptr<PictureSource> PictureSource::open(const File& file) {
    std::unique_ptr<PictureSource> source = openAny(file);
    if (source->form().rowBytes > mostRowBytes)
        throw Failure("its rows are longer than 16 MiB");
    if (source->form().rowsBytes() > UINT32_MAX)
        throw Failure("its pixels take more than 4 GiB");
    return source;
}
