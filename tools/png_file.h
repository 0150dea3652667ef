// PNG files (ISO/IEC 15948), read and written row by row with their samples as they stand: no colour is converted, and
// 16-bit samples stay.
#ifndef KAL_TOOLS_PNG_FILE_H
#define KAL_TOOLS_PNG_FILE_H

#include "tools/file.h"
#include "tools/output_file.h"

#include <memory>

// The numbers of the format.
enum class PngColour : uint8_t { Grey = 0, Rgb = 2, Palette = 3, GreyAlpha = 4, RgbAlpha = 6 };

struct PngLayout {
    uint32_t width;  // pixels
    uint32_t height; // rows
    uint32_t depth;  // bits of a sample
    PngColour colour;
    std::vector<uint8_t> palette; // red, green, blue of each entry
    std::vector<uint8_t>
        transparency; // as the tRNS chunk has it: an alpha an entry, or one colour that is not seen
    uint32_t bitsPerPixel() const;
    uint64_t rowBytes() const { return (uint64_t{width} * bitsPerPixel() + 7) / 8; }
};

// Whether a file begins as a PNG does.
bool isPng(ByteView start);

class PngReader {
public:
    // Throws a Failure that says why when the file is no PNG that can be read.
    explicit PngReader(const File& file);
    ~PngReader();
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    const PngLayout& layout() const;
    // The next row, from the top. A file whose rows are interlaced is held in memory whole. Throws a Failure.
    void row(uint8_t* out);

private:
    struct State;
    std::unique_ptr<State> state_;
};

class PngWriter {
public:
    // Throws a Failure when the file cannot be written.
    PngWriter(OutputFile& out, const PngLayout& layout);
    ~PngWriter();
    PngWriter(const PngWriter&) = delete;
    PngWriter& operator=(const PngWriter&) = delete;

    // The next row, from the top.
    void row(const uint8_t* bytes);
    void finish();

private:
    struct State;
    std::unique_ptr<State> state_;
};

#endif
