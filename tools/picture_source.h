// A picture file that is being stored: what it is, and its bytes in the order in which they are kept.
#ifndef KAL_TOOLS_PICTURE_SOURCE_H
#define KAL_TOOLS_PICTURE_SOURCE_H

#include "tools/picture_form.h"

#include <functional>
#include <memory>

class File;

class PictureSource {
public:
    // Takes some bytes of a part of the picture.
    using Take = std::function<void(PicturePart part, ByteView bytes)>;

    // Reads the head of a BMP or PNG file, which must live longer. Throws a Failure that says why it cannot be stored.
    static std::unique_ptr<PictureSource> open(const File& file);
    virtual ~PictureSource() = default;

    const PictureForm& form() const { return form_; }
    // Why the file will not come back byte for byte, though its pixels will; null when it will.
    virtual const char* whatIsLost() const { return nullptr; }

    // Called once each, in this order; rows until all are read. Each throws a Failure.
    virtual void before(const Take& take) = 0;
    virtual void rows(uint8_t* to, uint32_t count) = 0;
    virtual void after(const Take&) {}

protected:
    PictureForm form_ = {};
};

#endif
