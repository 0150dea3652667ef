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
#ifndef KAL_TOOLS_PICTURE_H
#define KAL_TOOLS_PICTURE_H

#include "tools/bmp.h"
#include "tools/output_file.h"

#include <kal.h>

#include <memory>

// Operation types of this program; rows have the library's KAL_OP_DIB.
inline constexpr uint16_t opHeaders = 0x101;
inline constexpr uint16_t opFile = 0x102;
inline constexpr uint16_t opPalette = 0x103;
inline constexpr uint16_t opGap = 0x104;
inline constexpr uint16_t opPadding = 0x105;
inline constexpr uint16_t opRest = 0x106;

// An operation got from a list.
struct FreeOp {
    void operator()(void* op) const { KalFreeSMem(KalOpBlock(op)); }
};
using Op = std::unique_ptr<void, FreeOp>;

inline ByteView payload(const Op& op) {
    return {static_cast<const uint8_t*>(op.get()), KalOpSize(op.get())};
}

struct PictureInfo {
    BmpLayout layout;
    uint32_t fileBytes;
    uint32_t checksum;
};

// Throws a Failure that says why when a file is no BMP that can be stored.
void checkPicture(ByteView file);

// Puts the whole file to the list of picture `id`. Throws a Failure that says why.
void putPicture(OpList* list, uint16_t id, ByteView file);

// Reads the head of the list of picture `id`. Throws Damaged.
PictureInfo getPictureInfo(OpList* list, uint16_t id);

// Writes the file that the list of picture `id` holds. Throws Damaged, after the last byte at the latest,
// when it is not the file that was stored.
void getPicture(OpList* list, uint16_t id, OutputFile& out);

#endif
