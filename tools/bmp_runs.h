// The rows of a BMP file whose pixels are RLE4 or RLE8, from the bottom row up.
#ifndef KAL_TOOLS_BMP_RUNS_H
#define KAL_TOOLS_BMP_RUNS_H

#include "tools/bmp.h"
#include "tools/file.h"

class BmpRuns {
public:
    BmpRuns(const File& file, const BmpLayout& layout)
        : file_(file), layout_(layout), next_(layout.rowsStart) {}

    // Gives the next row as it would stand in a file without runs; pixels that the runs pass over are 0, those behind
    // the row's end (some writers fill it up) are dropped. Throws a Failure when the runs end inside the picture.
    void row(uint8_t* out);

private:
    uint8_t byte();
    void put(uint8_t* out, uint32_t pixel);
    void absolute(uint8_t* out, uint32_t count);
    bool escape(uint8_t* out, uint32_t code);

    const File& file_;
    const BmpLayout& layout_;
    uint64_t next_; // position in the file behind what has been read
    std::vector<uint8_t> read_;
    size_t taken_ = 0;        // bytes of it
    uint32_t column_ = 0;     // of the next pixel
    uint32_t rowsToSkip_ = 0; // a delta leads this many rows up
    bool ended_ = false;      // the end of the bitmap has come
};

#endif
