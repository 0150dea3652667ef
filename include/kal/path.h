// Path strings, home directory and search text, environment, directories, unique names, the time of day.
//
// Paths are zero-ended single-byte text: `\` separates, `:` ends a drive. The host's own paths with `/` pass
// through unharmed, but `/` separates nothing here. The file part of a name ends at its first dot, the
// extension begins after its last. A destination size counts the terminating zero; text that does not fit is
// cut, and a destination of size 0 is left alone. A null path counts as the empty text.
//
// Home directory, search text and temporary directory belong to the calling task (thread).
#ifndef KAL_PATH_H
#define KAL_PATH_H

#include <kal/base.h>

// Sizes of the parts of a split path, terminating zero included.
inline constexpr uint32_t KAL_DIR_SIZE = 260;  // directory
inline constexpr uint32_t KAL_FILE_SIZE = 256; // file part
inline constexpr uint32_t KAL_EXT_SIZE = 256;  // extension

// Room for the names that the library makes or keeps itself, of temporary files and of the log, terminating zero
// included.
inline constexpr uint32_t KAL_NAME_SIZE = 772;

// The directory part with its separator ("C:\A\" of C:\A\B.C; ".." and "." stay). Characters stored.
KAL_API int32_t KalGetDir(const char* path, char* destination, uint32_t size);

// The file part, up to the first dot ("NAME" of C:\A\NAME.TAR.GZ). Characters stored.
KAL_API int32_t KalGetFile(const char* path, char* destination, uint32_t size);

// The extension without its dot ("GZ" of C:\A\NAME.TAR.GZ). Characters stored.
KAL_API int32_t KalGetExt(const char* path, char* destination, uint32_t size);

// Appends `extension`, with a dot before it unless it brings one, to a path that has none and does not end
// in a dot. The path's buffer must have room for it. Returns the path.
KAL_API char* KalDefaultExt(char* path, const char* extension);

// Splits a path into parts of KAL_DIR_SIZE, KAL_FILE_SIZE and KAL_EXT_SIZE bytes. Returns 0.
KAL_API int16_t KalSplitPath(const char* path, char* directory, char* file, char* extension);

// Builds one candidate of a search: the first directory of `searchText`, then the file part, a dot and the
// extension of `name`. `destination` needs room for the directory, a separator, KAL_FILE_SIZE and
// KAL_EXT_SIZE bytes. Returns the place of the next directory, or null when this was the last.
KAL_API const char* KalNextPathFile(char* destination, const char* searchText, const char* name);

// Sets the home directory to the directory of `name` (the program's file) and the search text to it, a ";"
// and the environment's PATH. Null clears both. When memory is short no home is set.
KAL_API void KalSetHome(const char* name);

// The search text that KalSetHome or KalSetHomeStr set, or null. Not the caller's to free or change.
KAL_API const char* KalGetHome();

// The search text, else the environment's PATH, else null. Not the caller's to free or change.
KAL_API const char* KalGetPath();

// Copies the home directory alone to `destination` and returns that; null when no home is set.
KAL_API char* KalGetHomeExecPath(char* destination, uint32_t size);

// Installs `searchText` itself, not a copy, as the search text; null takes it out. What was installed before
// is not freed. The next KalSetHome frees a text that is a small-memory block; any other stays the caller's.
KAL_API void KalSetHomeStr(char* searchText);

// The value of an environment variable, its name without regard to case, or null. Not the caller's to free
// or change; it stays valid until the process ends.
KAL_API const char* KalGetEnv(const char* name);

// The directory for the user's own settings files. 0, or KAL_ERR_EXAMINE when there is none or it does not
// fit.
KAL_API int16_t KalGetPrivateDir(char* destination, uint32_t size);

// Sets the directory for temporary files, with its separator added where it lacks one; null clears it. 0, or
// KAL_ERR_MEMORY with no directory set.
KAL_API int16_t KalTempPath(const char* directory);

// Makes a name that no file has: the template's directory, what eight characters leave of its file part
// beside a number from 0 to 32766, and its extension. An empty `name` stands for ZEP.TMP in the temporary
// directory, or in the current one when none is set. 0 with the name in `name`, or KAL_ERR_SERVICE when it
// does not fit or all are taken. The name is not reserved.
KAL_API int16_t KalGetUnique(char* name, uint32_t size);

// --- Directories, the time -------------------------------------------------------------------------------

// Make a directory, or make one the current directory of the process; a separator at the path's end is
// optional. 0, -1 when that fails, KAL_ERR_EMPTY_PATH for an empty path, or KAL_ERR_MEMORY.
KAL_API int16_t KalMakeDir(const char* path);
KAL_API int16_t KalChangeDir(const char* path);

// Copies the current directory, drive first, to `destination`. 0; KAL_ERR_DESTINATION for a null destination
// or a size of 0, KAL_ERR_CURRENT_DIR when it does not fit or is unknown (nothing is stored then),
// KAL_ERR_DISK when the disk is not ready.
KAL_API int16_t KalGetCurWorkDir(char* destination, uint32_t size);

// Whether the current disk is ready: always 0, it is.
KAL_API int16_t KalGetCurDiskStatus();

// The time: seconds since 1970-01-01 00:00 UTC, and milliseconds, 0 to 999.
KAL_API void KalGetTime(int32_t* seconds, uint16_t* milliseconds);

#endif
