// The built kal program, run as a user runs it, and BMP files made byte by byte for it.
#ifndef KAL_TESTS_TOOLS_TOOL_TEST_H
#define KAL_TESTS_TOOLS_TOOL_TEST_H

#include "tests/support/files.h"

// Runs a script of bash, each command of which must succeed; a failure prints what was run. In it `kal` is the program.
// `fails STATUS WHY COMMAND...` expects a failure that says WHY on one line and nothing else; `ends WHY COMMAND...` that or
// success; then $status and $told are the status and the output.
// `refuses` expects it of kal with each line of its input, "STATUS|WHY|ARGUMENTS", and the files as they were.
// `poke FILE PLACE HEX...` sets bytes.
void runScript(const std::string& script);

// Under the sanitizers or an emulator starting a process takes many times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(KAL_EMULATED)
inline constexpr bool slowBuild = true;
#else
inline constexpr bool slowBuild = false;
#endif

struct BmpKind {
    uint32_t width;
    int32_t height; // negative: top-down
    uint32_t bits;
    uint32_t headerBytes = 40;
    uint32_t gap = 0;           // bytes between palette and rows
    uint32_t rest = 0;          // bytes behind the rows
    bool loudPadding = false;   // rows are padded with anything instead of zeros
    uint32_t coloursStated = 0; // 0: as many as the depth has
};

// The same kind and seed give the same bytes. Pixels, palette, gap and rest are random.
Bytes makeBmp(const BmpKind& kind, uint32_t seed = 1);

// Writes 0.bmp to 3.bmp, of 24, 8, 4 and 1 bits, and an album in which kal::Bitmap stored their pictures, the last first.
void writeAlbum(const char* name);

// Sets a little-endian number of `size` bytes.
void setNumber(Bytes& bytes, size_t offset, size_t size, uint32_t number);

#endif
