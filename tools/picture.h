// A picture as a list of operations, and back:
//
//     form      what the picture is
//     before    the parts in front of the rows, each in several operations where it is longer than one holds
//     rows      the rows, filtered one by one, as one sequence of bytes that is cut anywhere
//     after     the part behind them
//     end       how many bytes these parts have together, and their checksum
//
// Or, for programs that play them into a bitmap list, bands of rows in place of `rows`: DIB operations, each with the
// bytes that pad its rows before it where any of them is not 0. Nothing is ever held whole.
#ifndef KAL_TOOLS_PICTURE_H
#define KAL_TOOLS_PICTURE_H

#include "tools/ops.h"
#include "tools/picture_form.h"

#include <functional>

class PictureSource;

// How a picture is stored: in bands where they are asked for, else filtered or not, whichever is smaller for the first
// rows; not filtered where the archive does not compress.
struct StoreOptions {
    std::string name; // of the picture's file, for failures
    bool bands = false;
    bool compressed = true;
};

// Puts the picture to the list of picture `id`. Throws a Failure that says why, with the file's name where it is the
// file's fault: it cannot be read, or its rows do not fit bands.
void putPicture(PictureSource& source, const StoreOptions& options, OpList* list, uint16_t id);

// Takes what is read of a picture, in this order.
class PictureTaker {
public:
    virtual ~PictureTaker() = default;
    virtual void part(PicturePart part, ByteView bytes) = 0;
    virtual void rows(const uint8_t* rows, uint32_t count) = 0;
};

// Reads the head of the list of picture `id`. Throws Damaged.
PictureForm getPictureForm(OpList* list, uint16_t id);

// Reads the picture whole, for the taker that `start` names once its form is known. Throws Damaged, after the last byte at
// the latest, when it is not the one that was stored.
void getPicture(OpList* list, uint16_t id, const std::function<PictureTaker&(const PictureForm&)>& start);

#endif
