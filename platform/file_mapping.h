// Named memory that processes share: file mappings on the paging file, over POSIX shared memory.
//
// A name belongs to one user and lives as long as some process holds a handle of it. A process that ends lets
// go of its handles, also when it is killed; whoever comes next finds the name free.
#ifndef KAL_PLATFORM_FILE_MAPPING_H
#define KAL_PLATFORM_FILE_MAPPING_H

#include <cstddef>
#include <cstdint>

// A handle is a number; 0 is none.
using HANDLE = uint32_t;
inline constexpr HANDLE INVALID_HANDLE_VALUE = 0xFFFFFFFF;

inline constexpr uint32_t PAGE_READWRITE = 4;
inline constexpr uint32_t FILE_MAP_WRITE = 2;
inline constexpr uint32_t FILE_MAP_READ = 4;

// Makes a mapping of `sizeLow` bytes, all 0 and its memory set aside, or opens the one of that name as it is,
// its own size included. `file` is INVALID_HANDLE_VALUE, `security` null, `protection` PAGE_READWRITE and
// `sizeHigh` 0. 0 on failure: an empty name or one too long, a size of 0, no memory.
HANDLE CreateFileMappingA(HANDLE file, void* security, uint32_t protection, uint32_t sizeHigh,
                          uint32_t sizeLow, const char* name);

// Opens the mapping of that name; `inherit` is 0. 0 when no process holds one.
HANDLE OpenFileMappingA(uint32_t access, int inherit, const char* name);

// Lets go of a handle; the last one of all processes takes the name away. Views stay. 1, or 0 for what is no
// handle.
int CloseHandle(HANDLE handle);

// Maps the whole mapping (offset and size 0), for reading or, with FILE_MAP_WRITE, for both. Null on failure.
void* MapViewOfFile(HANDLE handle, uint32_t access, uint32_t offsetHigh, uint32_t offsetLow, size_t size);

// 1, or 0 for what is no view.
int UnmapViewOfFile(const void* view);

// What is known of the view that starts at an address.
struct MEMORY_BASIC_INFORMATION {
    void* BaseAddress;
    size_t RegionSize; // in bytes: all that may be touched
};

// The number of bytes put into `information`, 0 when no view starts at `address`.
size_t VirtualQuery(const void* address, MEMORY_BASIC_INFORMATION* information, size_t size);

#endif
