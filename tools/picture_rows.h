// The rows of a picture in a bitmap list in movable memory: the file's rows on one side, the archive's bands on
// the other. Either all rows are put and then all bands got, or the other way round.
//
// A band leaves out the bytes that pad each row; where any of them is not 0 they are kept beside the list.
#ifndef KAL_TOOLS_PICTURE_ROWS_H
#define KAL_TOOLS_PICTURE_ROWS_H

#include "tools/bmp.h"
#include "tools/ops.h"

#include <functional>
#include <vector>

class PictureRows {
public:
    // Whether a row fits a band.
    static bool fit(const BmpLayout& layout);

    explicit PictureRows(const BmpLayout& layout);

    // Puts the next rows, whole ones, as the file has them. Throws as putOp does.
    void putRows(ByteView rows);
    // Puts a band; `padding` is that of its rows, or empty. Throws Damaged when it is not the next one.
    void putBand(const Op& band, ByteView padding);
    bool areComplete() const { return line_ == layout_.height; }

    // Puts the bands, each with the padding before it where there is any, to `list` as operations.
    void getBands(OpList* list, uint16_t paddingType);
    // Gives the rows as the file has them, some at a time.
    void getRows(const std::function<void(ByteView)>& use);

private:
    uint32_t paddingOffset(uint32_t line) const { return line * paddingBytes_; }

    BmpLayout layout_;
    uint32_t paddingBytes_; // of a row
    MovableList list_;
    uint32_t line_ = 0;            // the next to put
    std::vector<uint8_t> padding_; // of all rows, or empty where it is 0
};

#endif
