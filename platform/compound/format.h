// The stored form of compound files: numbers that the format fixes, and access to its integers, which are
// little-endian wherever they stand.
//
//     sector -1   header (the first 512 bytes of the file; a whole sector in files of 4096-byte sectors)
//     sector 0..  FAT and DIFAT sectors, directory, mini FAT, mini stream, streams: each a chain in the FAT
//
// A stream below kMiniCutoff bytes lies in 64-byte mini sectors, chained in the mini FAT, inside the mini
// stream, which is the stream of the root entry.
#ifndef KAL_PLATFORM_COMPOUND_FORMAT_H
#define KAL_PLATFORM_COMPOUND_FORMAT_H

#include "platform/little_endian.h"

#include <cstddef>
#include <cstdint>

namespace compound {

inline uint16_t load16(const uint8_t* at) {
    return loadLittle<uint16_t>(at);
}
inline uint32_t load32(const uint8_t* at) {
    return loadLittle<uint32_t>(at);
}
inline uint64_t load64(const uint8_t* at) {
    return loadLittle<uint64_t>(at);
}
inline void store16(uint8_t* at, uint16_t value) {
    storeLittle(at, value);
}
inline void store32(uint8_t* at, uint32_t value) {
    storeLittle(at, value);
}
inline void store64(uint8_t* at, uint64_t value) {
    storeLittle(at, value);
}

// Sector numbers from kMaxSector on do not name sectors.
inline constexpr uint32_t kMaxSector = 0xFFFFFFFA;
inline constexpr uint32_t kKept = 0xFFFFFFFB;        // ours: in doubt, never handed out and part of no chain
inline constexpr uint32_t kDifatSector = 0xFFFFFFFC; // this sector belongs to the DIFAT
inline constexpr uint32_t kFatSector = 0xFFFFFFFD;   // to the FAT
inline constexpr uint32_t kEndOfChain = 0xFFFFFFFE;
inline constexpr uint32_t kFree = 0xFFFFFFFF;

inline constexpr uint32_t kMiniShift = 6;
inline constexpr uint32_t kMiniCutoff = 4096;

// Offsets in the header.
inline constexpr size_t kHeaderSize = 512;
inline constexpr size_t kMinorVersion = 24;
inline constexpr size_t kMajorVersion = 26;
inline constexpr size_t kByteOrder = 28;
inline constexpr size_t kSectorShift = 30;
inline constexpr size_t kMiniSectorShift = 32;
inline constexpr size_t kDirectorySectors = 40; // counted in files of 4096-byte sectors only
inline constexpr size_t kFatSectors = 44;
inline constexpr size_t kFirstDirectory = 48;
inline constexpr size_t kCutoff = 56;
inline constexpr size_t kFirstMiniFat = 60;
inline constexpr size_t kMiniFatSectors = 64;
inline constexpr size_t kFirstDifat = 68;
inline constexpr size_t kDifatSectors = 72;
inline constexpr size_t kHeaderDifat = 76;
inline constexpr uint32_t kHeaderDifatCount = 109;
inline constexpr uint8_t kSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};

// Offsets in a directory entry.
inline constexpr size_t kEntrySize = 128;
inline constexpr size_t kNameLength = 64; // in bytes, terminator included
inline constexpr size_t kType = 66;
inline constexpr size_t kColour = 67;
inline constexpr size_t kLeft = 68;
inline constexpr size_t kRight = 72;
inline constexpr size_t kChild = 76;
inline constexpr size_t kFirst = 116;
inline constexpr size_t kSize = 120;

inline constexpr uint32_t kNameUnits = 31; // the longest name
inline constexpr uint32_t kRoot = 0;       // the root entry's number
inline constexpr uint32_t kNoEntry = 0xFFFFFFFF;

enum EntryType : uint8_t { kUnused = 0, kStorage = 1, kStream = 2, kRootStorage = 5 };
enum Colour : uint8_t { kRed = 0, kBlack = 1 };

} // namespace compound

#endif
