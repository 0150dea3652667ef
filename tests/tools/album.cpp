#include "tests/tools/tool_test.h"

#include <kal/cpp.h>

void writeAlbum(const char* name) {
    const auto memory = kal::VMem::open().value();
    auto album = kal::OperationListFile::create(name).value();
    uint16_t id = 4;
    for (const uint16_t bits : std::initializer_list<uint16_t>{1, 4, 8, 24}) {
        const Bytes file = makeBmp({37, -2100, bits}, id--);
        const size_t colours = bits == 24 ? 0 : size_t{1} << bits, rowBytes = (37 * bits + 31) / 32 * 4;
        auto picture = kal::Bitmap::create(37, 2100, bits).value();
        if (colours > 0)
            picture.setPalette({reinterpret_cast<const kal::Colour*>(&file[54]), colours});
        for (uint32_t y = 0; y < 2100; y++)
            picture.put(y, std::as_bytes(std::span(&file[54 + 4 * colours + y * rowBytes], rowBytes)));
        EXPECT_TRUE(picture.store(album, id).ok());
        writeFile(std::to_string(id) + ".bmp", file);
    }
    EXPECT_TRUE(album.close().ok());
}
