// A picture that a program stored by kal::Bitmap, as the BMP file that it would be. Its row 0 is taken for the topmost.
#ifndef KAL_TOOLS_STORED_BITMAP_H
#define KAL_TOOLS_STORED_BITMAP_H

#include "tools/picture.h"

#include <kal/cpp/bitmap.h>

// Of the op that describes it. Throws Damaged.
PictureForm bitmapForm(const kal::Op& description);

// Reads the picture that `op` stands at whole before `start` is called. Throws Damaged.
void getBitmap(kal::OpIterator& op, const std::function<PictureTaker&(const PictureForm&)>& start);

#endif
