// File information, access tests, and the names of numbered files.
//
// Paths are as kal/path.h describes them; a null path counts as the empty text.
#ifndef KAL_FILE_H
#define KAL_FILE_H

#include <kal/base.h>

// --- What a file is --------------------------------------------------------------------------------------

#pragma pack(push, 1)
// The answer of KalFileStat.
struct FILESTAT {
    uint16_t writable;  // 1 when a new file can be made beside the path, else 0
    uint8_t unused[10]; // all 0
};

// A file's size and the time of its last write, in UTC whatever the time zone. A time before 1980 gives the
// first that these fields hold, one after 2107 the last.
struct FILEINFO {
    uint16_t month;    // 1 to 12
    uint16_t day;      // 1 to 31
    uint16_t year;     // less 1900
    uint16_t hour;     // 0 to 23
    uint16_t minute;   // 0 to 59
    uint16_t seconds2; // seconds divided by two, 0 to 29
    uint32_t size;     // bytes, the low 32 bits
};
#pragma pack(pop)

static_assert(KAL_SIZE(FILESTAT, 12, 12));
static_assert(KAL_AT(FILESTAT, writable, 0, 0) && KAL_AT(FILESTAT, unused, 2, 2));
static_assert(KAL_SIZE(FILEINFO, 16, 16));
static_assert(KAL_AT(FILEINFO, month, 0, 0) && KAL_AT(FILEINFO, day, 2, 2) && KAL_AT(FILEINFO, year, 4, 4) &&
              KAL_AT(FILEINFO, hour, 6, 6) && KAL_AT(FILEINFO, minute, 8, 8) &&
              KAL_AT(FILEINFO, seconds2, 10, 10) && KAL_AT(FILEINFO, size, 12, 12));

// A new record, all 0, or null when memory is short. KalCloseFileStat frees it.
KAL_API FILESTAT* KalOpenFileStat();
KAL_API void KalCloseFileStat(FILESTAT* stat);

// Tells in `stat->writable` whether a file can be made in the directory of `path`, by making one under a free
// name and deleting it; existing files are not touched. 0. KAL_ERR_MEMORY, or
// KAL_ERR_SERVICE when no name could be made or the path has KAL_NAME_SIZE characters or more: `stat` is untouched
// then. Any other status is that of making the file, and `writable` is 0.
KAL_API int16_t KalFileStat(const char* path, FILESTAT* stat);

// Does nothing; `attributes` is left as it was. 0.
KAL_API int16_t KalFileAttr(const char* path, uint32_t* attributes);

// Fills `info`. 0, or KAL_ERR_EXAMINE when the file cannot be opened for reading or is a directory: `info` is
// untouched then.
KAL_API int16_t KalGetFileDateTimeSize(const char* path, FILEINFO* info);

// The file's size in bytes, its low 32 bits; KAL_ERR_EXAMINE as an unsigned number (4294966594) when there
// is no such file.
KAL_API uint32_t KalGetFileSize(const char* path);

// Tests access. A `mode` of 0 asks whether the file is there, 2 whether it may be written, 4 read, 6 both: 0
// or -1. KAL_MODE_NEW_FILE is answered by KalExplicitAccessFile.
KAL_API int16_t KalAccessFile(const char* path, uint16_t mode);

// Opens the file with an open mode of KalOpenFile and closes it at once. The status of the open. Where the
// mode would empty a file that is there, the file is opened for update instead; a file that the mode
// KAL_MODE_NEW_FILE makes is deleted again.
KAL_API int16_t KalExplicitAccessFile(const char* path, uint16_t mode);

// --- Numbered files ----------------------------------------------------------------------------------------

// Puts `number` into a file name, in place. An extension of digits, or none, becomes the number with at least
// three digits (PAGE.001 and 7: PAGE.007). Elsewhere the number ends the base name at its eighth character,
// zeros between (PAGE.TIF and 3: PAGE0003.TIF), and numbers below 2 leave the path as it is. 0.
// KAL_ERR_SERVICE when the number is negative, or the new name does not fit `size` bytes or its directory a
// path, with `path` unchanged; or when a file of the new name exists, with the new name in `path`.
KAL_API int16_t KalSequenceFilename(char* path, uint32_t size, int32_t number);

// Adds 1 to the number at the end of the extension, when all of it but its first character is digits, else to
// that of the base name, as IncrString does, in place: the buffer needs room for one character more. Returns
// `path`; it is unchanged when its directory is longer than a path's may be.
KAL_API char* KalIncrementName(char* path);

// Adds 1 to the number at the end of `text`, which keeps its leading zeros (IMG007: IMG008, IMG99: IMG100); a
// text without one gets a 2. The result has at most `maximum` characters; what stands before the number is
// cut to make room.
KAL_API void IncrString(char* text, int32_t maximum);

#endif
