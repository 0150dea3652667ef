#include "tests/tools/tool_test.h"

#include <kal/cpp.h>

#include <cstdio>
#include <cstdlib>

void runScript(const std::string& script) {
    const std::string start = R"sh(
exec 9>&2; BASH_XTRACEFD=9
PATH=${KAL_TOOL%/*}:$PATH
ends() {
    status=0
    told=$("${@:2}" 2>err) || status=$?
    mapfile lines <err; rm err
    [[ $status = 0 || (${#lines[@]} = 1 && ${lines[0]} == 'kal: '*"$1"*$'\n') ]]
}
fails() {
    ends "${@:2}" && [ $status = $1 ]
}
poke() { printf "$(printf '\\x%s' "${@:3}")" | dd of="$1" bs=1 seek=$(($2)) conv=notrunc status=none; }
sums() { find . -maxdepth 1 -type f -exec cksum {} +; }
refuses() {
    local code why arguments before=$(sums)
    while IFS='|' read -r code why arguments; do
        eval "fails $code \"\$why\" kal $arguments"
        [ "$(sums)" = "$before" ]
    done
}
)sh";
    setenv("KAL_TOOL", KAL_TOOL, 1);
    setenv("SCRIPT", (start + script).c_str(), 1);
    std::FILE* out = popen("exec bash -euxo pipefail -c \"$SCRIPT\" 2>&1", "r");
    std::string told;
    for (int byte = 0; (byte = std::getc(out)) != EOF;)
        told += static_cast<char>(byte);
    EXPECT_EQ(pclose(out), 0) << told;
}

void setNumber(Bytes& bytes, size_t offset, size_t size, uint32_t number) {
    for (size_t i = 0; i < size; i++)
        bytes.at(offset + i) = static_cast<uint8_t>(number >> 8 * i);
}

Bytes makeBmp(const BmpKind& kind, uint32_t seed) {
    const bool core = kind.headerBytes == 12;
    const uint32_t implied = kind.bits <= 8 ? 1U << kind.bits : 0;
    const uint32_t colours = kind.coloursStated != 0 ? kind.coloursStated : implied;
    const uint32_t rowsStart = 14 + kind.headerBytes + colours * (core ? 3 : 4) + kind.gap;
    const size_t rowBytes = (kind.width * kind.bits + 31) / 32 * 4;
    const auto rows = static_cast<uint32_t>(std::abs(kind.height));
    Bytes bytes = randomBytes(rowsStart + rowBytes * rows + kind.rest, seed);
    std::fill_n(bytes.begin(), 14 + kind.headerBytes, uint8_t{0});
    bytes[0] = 'B';
    bytes[1] = 'M';
    setNumber(bytes, 2, 4, static_cast<uint32_t>(bytes.size()));
    setNumber(bytes, 10, 4, rowsStart);
    setNumber(bytes, 14, 4, kind.headerBytes);
    const size_t size = core ? 2 : 4;
    setNumber(bytes, 18, size, kind.width);
    setNumber(bytes, 18 + size, size, static_cast<uint32_t>(kind.height));
    setNumber(bytes, 18 + 2 * size, 2, 1);
    setNumber(bytes, 20 + 2 * size, 2, kind.bits);
    if (kind.headerBytes >= 36)
        setNumber(bytes, 46, 4, kind.coloursStated);
    const size_t pixelBytes = (kind.width * kind.bits + 7) / 8;
    for (size_t row = rowsStart; row < rowsStart + rows * rowBytes && !kind.loudPadding; row += rowBytes)
        std::fill_n(&bytes[row + pixelBytes], rowBytes - pixelBytes, uint8_t{0});
    return bytes;
}

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
