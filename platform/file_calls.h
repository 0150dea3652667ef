// The platform's file calls over file descriptors, and those of its C runtime. Paths are in the platform's
// form (see host_path.h); on failure errno tells why.
#ifndef KAL_PLATFORM_FILE_CALLS_H
#define KAL_PLATFORM_FILE_CALLS_H

#include <kal/base.h>

#include <cerrno>
#include <cstdint>

// A file handle is a file descriptor.
using HFILE = int32_t;
inline constexpr HFILE HFILE_ERROR = -1;

// Access of _lopen.
inline constexpr int OF_READ = 0;
inline constexpr int OF_WRITE = 1;
inline constexpr int OF_READWRITE = 2;

// Opens a file that exists. A directory does not open (EACCES).
HFILE _lopen(const char* path, int access);

// Makes a file, or empties it, and opens it for reading and writing. `attributes` is 0 (normal) or 1 (read
// only from the next open on).
HFILE _lcreat(const char* path, int attributes);

// Read and write whole requests, going on after partial transfers and signals. The bytes moved: fewer than
// asked at the end of the file, or when there is no room to write. HFILE_ERROR after any other failure; the
// file pointer then stands where it stood.
uint32_t _lread(HFILE file, void* destination, uint32_t count);
uint32_t _lwrite(HFILE file, const void* source, uint32_t count);
int32_t _hread(HFILE file, void* destination, int32_t count);
int32_t _hwrite(HFILE file, const void* source, int32_t count);

// Copies up to `count` bytes from where one file stands to where another does, inside the host, and moves both file
// pointers. The bytes copied: fewer, or none, where the host cannot, for whatever reason. Reading and writing then go
// on from there.
uint32_t _lcopy(HFILE to, HFILE from, uint32_t count);

// Moves the file pointer; an offset from the start is read as unsigned. The new position's 32 bits, or
// HFILE_ERROR (also for a position past 32 bits, the pointer then where it stood).
int32_t _llseek(HFILE file, int32_t offset, int origin);

HFILE _lclose(HFILE file);

// The status of a file that could not be opened or created, as errno tells.
inline int16_t openStatus() {
    return static_cast<int16_t>(KAL_ERR_OPEN - errno);
}

// Flags of _open.
inline constexpr int _O_RDWR = 0x0002;
inline constexpr int _O_TEMPORARY = 0x0040;
inline constexpr int _O_CREAT = 0x0100;
inline constexpr int _O_EXCL = 0x0400;

// Opens a file as its flags say; with _O_CREAT and _O_EXCL the file is new, made for its owner alone (0600),
// and no link is followed. A new file with _O_TEMPORARY goes when its handle is closed, also by the end of
// the process, however that comes: no other process finds it by its name.
int _open(const char* path, int flags);
int _close(int file);

// 0 when the file is there (mode 0) and may be written (2), read (4) or both (6); else -1.
int _access(const char* path, int mode);

// Deletes a file. 0 or -1.
int _unlink(const char* path);

#endif
