#include "tools/png_file.h"

#include "tools/failure.h"

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <png.h>

namespace {

// The picture library leaves a call that fails by a jump to the mark that `attempt` sets. What it attempts makes nothing
// that wants to be destroyed.
struct Trouble {
    std::string text;
    std::exception_ptr thrown; // by a call back
};

[[noreturn]] void fail(png_structp png, png_const_charp text) {
    static_cast<Trouble*>(png_get_error_ptr(png))->text = text;
    png_longjmp(png, 1);
}
void ignoreWarning(png_structp, png_const_charp) {}

template <class Work>
void attempt(png_structp png, Work work) {
    if (setjmp(png_jmpbuf(png)) == 0)
        return work();
    const auto* trouble = static_cast<Trouble*>(png_get_error_ptr(png));
    if (trouble->thrown)
        std::rethrow_exception(trouble->thrown);
    throw Failure(trouble->text);
}

void requireMade(png_infop info) {
    if (info == nullptr)
        throw std::bad_alloc();
}

// Does `work` in a call back, out of which nothing may be thrown.
template <class Work>
void guarded(png_structp png, Work work) {
    try {
        work();
        return;
    } catch (...) {
        static_cast<Trouble*>(png_get_error_ptr(png))->thrown = std::current_exception();
    }
    png_longjmp(png, 1);
}

} // namespace

uint32_t PngLayout::bitsPerPixel() const {
    const uint32_t samples = colour == PngColour::RgbAlpha    ? 4
                             : colour == PngColour::Rgb       ? 3
                             : colour == PngColour::GreyAlpha ? 2
                                                              : 1;
    return samples * depth;
}

bool isPng(ByteView start) {
    return start.size() >= 8 && png_sig_cmp(start.data(), 0, 8) == 0;
}

struct PngReader::State {
    const File& file;
    uint64_t next = 0;
    std::vector<uint8_t> read = {};
    size_t taken = 0;
    Trouble trouble = {};
    png_structp png = nullptr;
    png_infop info = nullptr;
    PngLayout layout = {};
    std::vector<uint8_t> whole = {}; // all rows of an interlaced file
    uint32_t rowsGiven = 0;

    explicit State(const File& from) : file(from) {}
    ~State() { png_destroy_read_struct(&png, &info, nullptr); }

    void give(uint8_t* to, size_t count) {
        while (count > 0) {
            if (taken == read.size()) {
                read = file.readAt(next, 1U << 16);
                next += read.size();
                taken = 0;
                if (read.empty())
                    throw Failure("it ends too early");
            }
            const size_t piece = std::min(count, read.size() - taken);
            std::memcpy(to, &read[taken], piece);
            taken += piece;
            to += piece;
            count -= piece;
        }
    }
    static void readCall(png_structp png, png_bytep to, size_t count) {
        guarded(png, [&] { static_cast<State*>(png_get_io_ptr(png))->give(to, count); });
    }

    void start() {
        png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &trouble, fail, ignoreWarning);
        info = png != nullptr ? png_create_info_struct(png) : nullptr;
        requireMade(info);
        attempt(png, [this] {
            png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
            png_set_read_fn(png, this, readCall);
            png_read_info(png, info);
            layout.width = png_get_image_width(png, info);
            layout.height = png_get_image_height(png, info);
            layout.depth = png_get_bit_depth(png, info);
            layout.colour = PngColour{png_get_color_type(png, info)};
            constexpr uint64_t mostOfAByte = 1032; // that the compression makes
            if (layout.rowBytes() > file.size() * mostOfAByte / layout.height)
                throw Failure("it ends too early"); // before anybody asks for memory for a row
            if (png_get_interlace_type(png, info) != PNG_INTERLACE_NONE)
                png_set_interlace_handling(png);
            png_read_update_info(png, info);
        });
    }

    void takeColours() {
        png_colorp colours = nullptr;
        int count = 0;
        if (png_get_PLTE(png, info, &colours, &count) != 0 && layout.colour == PngColour::Palette)
            for (int i = 0; i < count; i++)
                layout.palette.insert(layout.palette.end(),
                                      {colours[i].red, colours[i].green, colours[i].blue});
        png_bytep alphas = nullptr;
        png_color_16p unseen = nullptr;
        if (png_get_tRNS(png, info, &alphas, &count, &unseen) == 0)
            return;
        if (layout.colour == PngColour::Palette)
            layout.transparency.assign(alphas, alphas + count);
        else if (layout.colour == PngColour::Grey)
            putBig({unseen->gray});
        else if (layout.colour == PngColour::Rgb)
            putBig({unseen->red, unseen->green, unseen->blue});
    }
    void putBig(std::initializer_list<uint16_t> samples) {
        for (const uint16_t sample : samples)
            layout.transparency.insert(layout.transparency.end(),
                                       {static_cast<uint8_t>(sample >> 8), static_cast<uint8_t>(sample)});
    }
};

PngReader::PngReader(const File& file) : state_(std::make_unique<State>(file)) {
    state_->start();
    state_->takeColours();
}

PngReader::~PngReader() = default;

const PngLayout& PngReader::layout() const {
    return state_->layout;
}

void PngReader::row(uint8_t* out) {
    State& state = *state_;
    if (png_get_interlace_type(state.png, state.info) == PNG_INTERLACE_NONE)
        return attempt(state.png, [&] { png_read_row(state.png, out, nullptr); });
    const auto rowBytes = static_cast<size_t>(state.layout.rowBytes());
    if (state.whole.empty()) {
        state.whole.resize(rowBytes * state.layout.height);
        std::vector<png_bytep> rows(state.layout.height);
        for (size_t y = 0; y < rows.size(); y++)
            rows[y] = &state.whole[y * rowBytes];
        attempt(state.png, [&] { png_read_image(state.png, rows.data()); });
    }
    std::memcpy(out, &state.whole[state.rowsGiven++ * rowBytes], rowBytes);
}

struct PngWriter::State {
    OutputFile& out;
    Trouble trouble = {};
    png_structp png = nullptr;
    png_infop info = nullptr;

    explicit State(OutputFile& to) : out(to) {}
    ~State() { png_destroy_write_struct(&png, &info); }

    static void writeCall(png_structp png, png_bytep bytes, size_t count) {
        guarded(png, [&] { static_cast<State*>(png_get_io_ptr(png))->out.append({bytes, count}); });
    }
    static void flushCall(png_structp) {}

    void start(const PngLayout& layout, const std::vector<png_color>& colours, const png_color_16& unseen) {
        png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &trouble, fail, ignoreWarning);
        info = png != nullptr ? png_create_info_struct(png) : nullptr;
        requireMade(info);
        attempt(png, [&] { writeHead(layout, colours, unseen); });
    }
    void writeHead(const PngLayout& layout, const std::vector<png_color>& colours,
                   const png_color_16& unseen) {
        png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
        png_set_write_fn(png, this, writeCall, flushCall);
        png_set_IHDR(png, info, layout.width, layout.height, static_cast<int>(layout.depth),
                     static_cast<int>(layout.colour), PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                     PNG_FILTER_TYPE_DEFAULT);
        if (!colours.empty())
            png_set_PLTE(png, info, colours.data(), static_cast<int>(colours.size()));
        if (!layout.transparency.empty())
            png_set_tRNS(png, info, layout.transparency.data(), static_cast<int>(layout.transparency.size()),
                         &unseen);
        png_write_info(png, info);
    }
};

PngWriter::PngWriter(OutputFile& out, const PngLayout& layout) : state_(std::make_unique<State>(out)) {
    std::vector<png_color> colours(layout.palette.size() / 3);
    for (size_t i = 0; i < colours.size(); i++)
        colours[i] = {layout.palette[3 * i], layout.palette[3 * i + 1], layout.palette[3 * i + 2]};
    const auto big = [&](size_t number) {
        const size_t at = 2 * number;
        return at + 1 < layout.transparency.size()
                   ? static_cast<uint16_t>(layout.transparency[at] << 8 | layout.transparency[at + 1])
                   : uint16_t{0};
    };
    png_color_16 unseen = {};
    unseen.gray = unseen.red = big(0);
    unseen.green = big(1);
    unseen.blue = big(2);
    state_->start(layout, colours, unseen);
}

PngWriter::~PngWriter() = default;

void PngWriter::row(const uint8_t* bytes) {
    attempt(state_->png, [&] { png_write_row(state_->png, bytes); });
}

void PngWriter::finish() {
    attempt(state_->png, [&] { png_write_end(state_->png, state_->info); });
}
