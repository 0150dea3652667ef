// One object of POSIX shared memory as this process holds it: found or made by name, kept alive by a shared
// lock, gone with its last holder.
#ifndef KAL_PLATFORM_SHARED_OBJECT_H
#define KAL_PLATFORM_SHARED_OBJECT_H

#include <cstdint>

// Every holder keeps a shared flock on the object, so a process that can lock it exclusively knows that
// nobody holds it: what is left under the name is then stale.
inline constexpr int kSharedNameSize = 256; // NAME_MAX and the terminator

// The object's name for this user and `name`, whatever characters it has. False when it is empty or too long.
bool sharedObjectName(const char* name, char (&result)[kSharedNameSize]);

// Opens the object, which some process must hold. A descriptor that holds it, or -1.
int holdSharedObject(const char* objectName);

// The same, or makes the object anew, `size` bytes set aside, when nobody holds it.
int makeSharedObject(const char* objectName, uint32_t size);

// Lets go of it; the last holder removes the object.
void releaseSharedObject(int fd, const char* objectName);

// Its size in bytes, 0 when it is unknown.
uint64_t sharedObjectSize(int fd);

#endif
