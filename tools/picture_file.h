// A stored picture as a file again.
#ifndef KAL_TOOLS_PICTURE_FILE_H
#define KAL_TOOLS_PICTURE_FILE_H

#include "tools/output_file.h"
#include "tools/picture.h"

enum class PictureFileAs { Bmp, Png };

// Writes the picture to `out`: a BMP as it was where a BMP was stored, else its pixels. `finish` ends the file. Throws a
// Failure when the kind of file cannot hold the picture's pixels.
class PictureFile : public PictureTaker {
public:
    virtual void finish() {}
};
std::unique_ptr<PictureFile> makePictureFile(OutputFile& out, const PictureForm& form, PictureFileAs as);

#endif
