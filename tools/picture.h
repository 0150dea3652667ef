// A BMP file as a list of operations, and back.
//
//     headers   the file header and the bitmap header
//     file      the picture's id, the file's size and checksum
//     palette   ) the file's parts between headers and rows, each left out where the file has none,
//     gap       ) and in several operations where it is longer than one holds
//     padding   the bytes that end each row of the next band, where any of them is not 0
//     DIB       a band of rows, in the order in which the file has them, numbered from 0
//     ...
//     rest      what follows the rows, as palette and gap
//
// On the way the parts lie in movable memory, so a picture may be larger than the memory there is.
#ifndef KAL_TOOLS_PICTURE_H
#define KAL_TOOLS_PICTURE_H

#include "tools/bmp.h"
#include "tools/file.h"
#include "tools/output_file.h"
#include "tools/picture_rows.h"

#include <optional>

struct PictureInfo {
    BmpLayout layout;
    uint32_t fileBytes;
    uint32_t checksum;
};

// A BMP file that was read in one pass.
class Picture {
public:
    // Throws a Failure that says why when the file is no BMP that can be stored.
    explicit Picture(const File& file);

    // Puts the whole file to the list of picture `id`. Throws a Failure that says why.
    void put(OpList* list, uint16_t id);

private:
    void read(const File& file, uint32_t start, uint32_t end, uint32_t pieceBytes,
              const std::function<void(ByteView)>& take);

    PictureInfo info_ = {};
    std::vector<uint8_t> headers_;
    MovableList before_; // palette and gap
    std::optional<PictureRows> rows_;
    MovableList after_; // rest
};

// Reads the head of the list of picture `id`. Throws Damaged.
PictureInfo getPictureInfo(OpList* list, uint16_t id);

// Writes the file that the list of picture `id` holds. Throws Damaged, after the last byte at the latest,
// when it is not the file that was stored.
void getPicture(OpList* list, uint16_t id, OutputFile& out);

#endif
