// Shared ground of every family: export marker, layout checks and status codes.
#ifndef KAL_BASE_H
#define KAL_BASE_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
// Marks what the library exports.
#define KAL_API __attribute__((visibility("default")))
// Marks a member of an exported class that stays inside.
#define KAL_LOCAL __attribute__((visibility("hidden")))
#else
#define KAL_API
#define KAL_LOCAL
#endif

// Whether a field of a record that crosses the boundary stands at this offset: in bytes, in a 32-bit and in a 64-bit
// build. Only pointers differ.
#define KAL_AT(record, field, in32, in64) (offsetof(record, field) == (sizeof(void*) == 4 ? (in32) : (in64)))
// Whether such a record has this size.
#define KAL_SIZE(record, in32, in64) (sizeof(record) == (sizeof(void*) == 4 ? (in32) : (in64)))

// A status is a signed 16-bit number: 0 is success, a negative value a failure. A few calls return a
// positive 1 for a refusal that is not an error; each says so.
//
// A file that could not be opened or created by name gives KAL_ERR_OPEN - errno, for example -202 for a
// file that does not exist.
enum KalStatus : int16_t {
    KAL_OK = 0,
    KAL_ERR_MEMORY = -100,        // no memory for a record or a name
    KAL_ERR_VMEM = -101,          // a VMem block could not be allocated, locked or restored
    KAL_ERR_BUFFER = -105,        // no memory for a buffer or another second allocation
    KAL_ERR_OPEN = -200,          // less errno: a file could not be opened or created
    KAL_ERR_STORAGE = -202,       // a compound file or a stream in it could not be opened or created
    KAL_ERR_SERVICE = -250,       // a file service failed: no unique name, no mapping, no block
    KAL_ERR_WRITE = -251,         // a write failed, or the stream takes no writes
    KAL_ERR_READ = -252,          // a read failed
    KAL_ERR_CLOSE = -253,         // the handle could not be closed; the stream is released all the same
    KAL_ERR_DISK_FULL = -254,     // fewer bytes written than asked; blocks further writes and seeks
    KAL_ERR_SHORT_READ = -255,    // the end came inside a read: some bytes arrived
    KAL_ERR_END = -256,           // end of file: no bytes arrived
    KAL_ERR_SEEK = -257,          // a seek failed
    KAL_ERR_NULL_STREAM = -258,   // no stream was given
    KAL_ERR_GLOBAL = -259,        // the global memory block could not be allocated, locked or grown
    KAL_ERR_RESOURCE = -298,      // there is no resource of that id
    KAL_ERR_RESOURCE_TYPE = -299, // unknown kind of resource
    KAL_ERR_POSITION = -300,      // a position or scan line names a block that does not exist
    KAL_ERR_TAG_WRITE = -601,     // a settings value could not be written
    KAL_ERR_TAG_KEY = -605,       // a settings key could not be created or opened
    KAL_ERR_TAG_PARENT = -607,    // the tag set has no parent
    KAL_ERR_TAG_MISSING = -608,   // there is no such tag
    KAL_ERR_FORMAT = -650,        // an item file's stored format is not the one expected
    KAL_ERR_CURRENT_DIR = -700,   // the current directory does not fit or is unknown
    KAL_ERR_DESTINATION = -701,   // the destination does not serve
    KAL_ERR_EXAMINE = -702,       // a file or directory could not be examined
    KAL_ERR_DISK = -703,          // the disk is not ready
    KAL_ERR_LIST = -801,          // null list, or a node that could not be freed
    KAL_ERR_NODE = -802,          // null node, or a node that could not be freed
    KAL_ERR_RUN = -900,           // no compressed run at this position, or the run is damaged or over
    KAL_ERR_EMPTY_PATH = -1281,   // an empty path for a directory call
};

#endif
