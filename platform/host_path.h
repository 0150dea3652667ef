// Paths in the platform's form to paths of the host, and back.
#ifndef KAL_PLATFORM_HOST_PATH_H
#define KAL_PLATFORM_HOST_PATH_H

#include <climits>
#include <cstddef>

// A host path for one call.
struct HostPath {
    char text[PATH_MAX];
};

// Turns a path of the platform into a host path: `\` to `/`; a drive `X:` to the folder that KAL_DRIVE_X
// names, `/` by default (a name right behind the colon counts from the current directory where the drive has
// no folder of its own); one trailing dot of the last component dropped, so that NAME. is NAME. Then the
// exact name if there is a file of that name, else a match without regard to (ASCII) case, component by
// component; what matches nothing stays as given, so that it can be created. False with errno ENAMETOOLONG
// when the result does not fit, ENOENT for a null or empty path.
bool toHostPath(const char* path, HostPath& result);

// Turns an absolute host path into the platform's form, with the drive whose folder holds it. False when it
// does not fit `size` bytes.
bool toPlatformPath(const char* hostPath, char* destination, size_t size);

#endif
