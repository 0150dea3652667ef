#include "tools/picture_file.h"

#include "tools/failure.h"
#include "tools/pixels.h"
#include "tools/png_file.h"

#include <cstring>
#include <optional>
#include <utility>

namespace {

class BmpAsItWas : public PictureFile {
public:
    BmpAsItWas(OutputFile& out, const PictureForm& form) : out_(out), rowBytes_(form.rowBytes) {}
    void part(PicturePart, ByteView bytes) override { out_.append(bytes); }
    void rows(const uint8_t* rows, uint32_t count) override {
        out_.append({rows, size_t{count} * rowBytes_});
    }

private:
    OutputFile& out_;
    size_t rowBytes_;
};

// Row by row, in another form than the rows have. What stands in front of them is known at the first.
class MadeOfRows : public PictureFile {
public:
    MadeOfRows(OutputFile& out, const PictureForm& form) : out_(out), form_(form) {}
    void part(PicturePart part, ByteView bytes) final { parts_.take(part, bytes); }
    void rows(const uint8_t* rows, uint32_t count) final {
        if (!std::exchange(started_, true))
            start();
        for (; count > 0; count--, rows += form_.rowBytes)
            row(rows);
    }

protected:
    virtual void start() = 0;
    virtual void row(const uint8_t* row) = 0;
    void takePixels() {
        pixels_.emplace(form_, parts_);
        rgba_.resize(size_t{form_.width} * 4);
    }

    OutputFile& out_;
    const PictureForm form_;
    FrontParts parts_;
    std::optional<Pixels> pixels_;
    std::vector<uint8_t> rgba_; // of a row

private:
    bool started_ = false;
};

class PngAsItWas : public MadeOfRows {
public:
    using MadeOfRows::MadeOfRows;
    void finish() override { writer_->finish(); }

private:
    void start() override {
        writer_.emplace(out_, PngLayout{form_.width, form_.height, form_.depth, PngColour{form_.colour},
                                        parts_.before, parts_.transparency});
    }
    void row(const uint8_t* row) override { writer_->row(row); }

    std::optional<PngWriter> writer_;
};

// A picture whose bottom row comes first is held whole.
class PngOfBmp : public MadeOfRows {
public:
    using MadeOfRows::MadeOfRows;
    void finish() override {
        for (size_t line = held_.size() / form_.rowBytes; line-- > 0;)
            write(&held_[line * form_.rowBytes]);
        writer_->finish();
    }

private:
    void start() override {
        takePixels();
        const bool indexed = !pixels_->palette().empty();
        const PngColour colour = indexed               ? PngColour::Palette
                                 : pixels_->hasAlpha() ? PngColour::RgbAlpha
                                                       : PngColour::Rgb;
        writer_.emplace(
            out_,
            PngLayout{form_.width, form_.height, indexed ? form_.bits : 8U, colour, pixels_->palette(), {}});
    }
    void row(const uint8_t* row) override {
        if (form_.topDown)
            write(row);
        else
            held_.insert(held_.end(), row, row + form_.rowBytes);
    }
    void write(const uint8_t* row) {
        if (!pixels_->palette().empty())
            return writer_->row(row);
        pixels_->toRgba(row, form_.width, rgba_.data());
        if (!pixels_->hasAlpha())
            for (size_t x = 0; x < form_.width; x++)
                std::memmove(&rgba_[3 * x], &rgba_[4 * x], 3);
        writer_->row(rgba_.data());
    }

    std::optional<PngWriter> writer_;
    std::vector<uint8_t> held_;
};

// The topmost row comes first.
class BmpOfPng : public MadeOfRows {
public:
    BmpOfPng(OutputFile& out, const PictureForm& form) : MadeOfRows(out, form) {
        if (form.depth == 16)
            throw Failure("its samples of 16 bits fit a PNG file only");
    }

private:
    void start() override {
        takePixels();
        const std::vector<uint8_t>& colours = pixels_->palette();
        std::vector<uint8_t> palette;
        bits_ = pixels_->hasAlpha() ? 32 : 24;
        if (!colours.empty() && !pixels_->hasAlpha()) {
            bits_ = form_.bits == 2 ? 4 : form_.bits; // BMP knows no 2 bits a pixel
            for (size_t i = 0; i < colours.size(); i += 3)
                palette.insert(palette.end(), {colours[i + 2], colours[i + 1], colours[i], 0});
        }
        const uint64_t rowBytes = (uint64_t{form_.width} * bits_ + 31) / 32 * 4;
        if (rowBytes * form_.height > UINT32_MAX - mostBmpHeaders)
            throw Failure("its pixels fit a PNG file only");
        row_.resize(static_cast<size_t>(rowBytes));
        out_.append(bmpHeaders(form_.width, form_.height, true, bits_, palette));
    }
    void row(const uint8_t* row) override {
        if (bits_ == form_.bits && bits_ <= 8) {
            std::memcpy(row_.data(), row, form_.rowBytes);
        } else if (bits_ <= 8) { // two bits to four
            for (uint32_t x = 0; x < form_.width; x++) {
                const uint32_t index = row[x / 4] >> (6 - x % 4 * 2) & 3U;
                row_[x / 2] = static_cast<uint8_t>(x % 2 == 0 ? index << 4 : row_[x / 2] | index);
            }
        } else {
            pixels_->toRgba(row, form_.width, rgba_.data());
            const size_t bytes = bits_ / 8U;
            for (size_t x = 0; x < form_.width; x++) {
                const uint8_t* from = &rgba_[4 * x];
                uint8_t* to = &row_[bytes * x];
                to[0] = from[2];
                to[1] = from[1];
                to[2] = from[0];
                if (bytes == 4)
                    to[3] = from[3];
            }
        }
        out_.append(row_);
    }

    uint32_t bits_ = 0;
    std::vector<uint8_t> row_;
};

} // namespace

std::unique_ptr<PictureFile> makePictureFile(OutputFile& out, const PictureForm& form, PictureFileAs as) {
    if (form.kind == PictureKind::Bmp)
        return as == PictureFileAs::Bmp
                   ? std::unique_ptr<PictureFile>(std::make_unique<BmpAsItWas>(out, form))
                   : std::make_unique<PngOfBmp>(out, form);
    return as == PictureFileAs::Png ? std::unique_ptr<PictureFile>(std::make_unique<PngAsItWas>(out, form))
                                    : std::make_unique<BmpOfPng>(out, form);
}
