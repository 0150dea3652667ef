#include "tools/archive.h"
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/label.h"
#include "tools/manners.h"
#include "tools/png_file.h"
#include "tools/progress.h"
#include "tools/thumbnail.h"

#include <cstring>

namespace {

constexpr uint32_t margin = 12;
constexpr uint32_t labelGap = 6; // above a label, and between its lines
constexpr uint8_t paper = 0xEE;
constexpr uint8_t ink = 0x22;
constexpr uint8_t edge = 0xBB;

struct Arguments {
    std::string archive;
    std::string output;
    uint32_t columns = 0;
    uint32_t size = 160;
};

// A row of pictures, drawn one by one.
class Band {
public:
    Band(uint32_t columns, uint32_t size)
        : size_(size), textScale_(size >= 120 ? 2 : 1), cellWidth_(size + margin),
          cellHeight_(size + margin + 2 * (labelGap + textScale_ * labelHeight)),
          width_(columns * cellWidth_ + margin), pixels_(size_t{width_} * cellHeight_ * 3, paper) {}

    uint32_t width() const { return width_; }
    uint32_t height() const { return cellHeight_; }
    const uint8_t* row(uint32_t y) const { return &pixels_[size_t{y} * width_ * 3]; }

    void draw(uint32_t column, const Thumbnail& picture) {
        const uint32_t left = margin + column * cellWidth_ + (size_ - picture.width()) / 2;
        const uint32_t top = margin + (size_ - picture.height()) / 2;
        for (uint32_t y = 0; y < picture.height(); y++) {
            const std::vector<uint8_t> row = picture.row(y);
            std::memcpy(at(left, top + y), row.data(), row.size());
        }
        frame(left - 1, top - 1, picture.width() + 2, picture.height() + 2);
    }
    // In the place of a picture that cannot be read.
    void drawCross(uint32_t column) {
        const uint32_t left = margin + column * cellWidth_;
        for (uint32_t i = 0; i < size_; i++) {
            std::memset(at(left + i, margin + i), edge, 3);
            std::memset(at(left + size_ - 1 - i, margin + i), edge, 3);
        }
        frame(left - 1, margin - 1, size_ + 2, size_ + 2);
    }
    // Under the picture, one line of two.
    void label(uint32_t column, uint32_t line, const std::string& text) {
        const uint32_t scale = labelWidth(text) * textScale_ <= size_ ? textScale_ : 1;
        const uint32_t width = std::min(labelWidth(text) * scale, size_);
        const uint32_t left = margin + column * cellWidth_ + (size_ - width) / 2;
        const uint32_t top = margin + size_ + labelGap + line * (labelGap + textScale_ * labelHeight);
        for (uint32_t y = 0; y < labelHeight * scale; y++)
            for (uint32_t x = 0; x < width; x++)
                if (top + y < cellHeight_ && labelInk(text, x / scale, y / scale))
                    std::memset(at(left + x, top + y), ink, 3);
    }

private:
    uint8_t* at(uint32_t x, uint32_t y) { return &pixels_[(size_t{y} * width_ + x) * 3]; }
    void frame(uint32_t left, uint32_t top, uint32_t width, uint32_t height) {
        for (uint32_t x = 0; x < width; x++) {
            std::memset(at(left + x, top), edge, 3);
            std::memset(at(left + x, top + height - 1), edge, 3);
        }
        for (uint32_t y = 0; y < height; y++) {
            std::memset(at(left, top + y), edge, 3);
            std::memset(at(left + width - 1, top + y), edge, 3);
        }
    }

    uint32_t size_;
    uint32_t textScale_;
    uint32_t cellWidth_;
    uint32_t cellHeight_;
    uint32_t width_;
    std::vector<uint8_t> pixels_;
};

void drawPicture(Band& band, uint32_t column, Archive& archive, const kal::Entry& item, uint32_t size,
                 Failures& failures) {
    band.label(column, 0, "#" + std::to_string(item.id));
    std::optional<Thumbnail> picture;
    bool whole = false;
    failures.collect([&] {
        archive.get(item.id, [&](OpList* list) {
            getPicture(list, item.id, [&](const PictureForm& form) -> PictureTaker& {
                band.label(column, 1, std::to_string(form.width) + "x" + std::to_string(form.height));
                return picture.emplace(form, size);
            });
        });
        whole = true;
    });
    whole ? band.draw(column, *picture) : band.drawCross(column);
}

// Of all pictures that can be read.
uint64_t pictureBytes(Archive& archive) {
    uint64_t bytes = 0;
    Failures ignored;
    for (const kal::Entry& item : archive.pictures())
        ignored.collect([&] {
            archive.get(item.id, [&](OpList* list) { bytes += getPictureForm(list, item.id).fileBytes; });
        });
    return bytes;
}

void sheet(const Arguments& arguments) {
    const auto archive = Archive::forReading(arguments.archive);
    const std::vector<kal::Entry> pictures = archive->pictures();
    const auto count = static_cast<uint32_t>(pictures.size());
    if (count == 0)
        throw Failure(arguments.archive, "it has no pictures");
    uint32_t columns = arguments.columns;
    if (columns == 0) // about as wide as high
        while (columns * columns < count)
            columns++;
    columns = std::min(columns, count);
    const uint32_t lines = (count + columns - 1) / columns;

    const Progress progress(pictureBytes(*archive));
    Failures failures;
    OutputFile out(arguments.output);
    const Band empty(columns, arguments.size);
    PngWriter writer(out, {empty.width(), lines * empty.height() + margin, 8, PngColour::Rgb, {}, {}});
    for (uint32_t line = 0; line < lines; line++) {
        Band band(columns, arguments.size);
        for (uint32_t column = 0; column < columns && line * columns + column < count; column++)
            drawPicture(band, column, *archive, pictures[line * columns + column], arguments.size, failures);
        for (uint32_t y = 0; y < band.height(); y++)
            writer.row(band.row(y));
    }
    for (uint32_t y = 0; y < margin; y++)
        writer.row(Band(columns, arguments.size).row(0));
    writer.finish();
    out.commit();
    failures.end();
}

} // namespace

void addSheet(const Command& program) {
    auto arguments = std::make_shared<Arguments>();
    program
        .add(
            {"sheet", "Draw all pictures of an archive, small, with id and size, in one PNG file", R"(Example:
  kal sheet pictures.kal -o sheet.png)"})
        .needs("ARCHIVE", arguments->archive, "The archive")
        .needs("-o,--output", arguments->output, "The PNG file to write; - is standard output", "FILE")
        .takes("--columns", arguments->columns,
               "Pictures side by side (default: as many as below one another)", {"N", 1, 1000})
        .takes("--size", arguments->size, "Pixels of a picture's longer side (default: 160)",
               {"PIXELS", 16, 2000})
        .does([arguments] { sheet(*arguments); });
}
