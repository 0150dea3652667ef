// The time of day, and time stamps in the forms that file systems keep.
#ifndef KAL_PLATFORM_CLOCK_H
#define KAL_PLATFORM_CLOCK_H

#include <cstdint>

struct _timeb {
    int64_t time;     // seconds since 1970-01-01 00:00 UTC
    uint16_t millitm; // and milliseconds, 0 to 999
};

void _ftime(_timeb* now);

// Units of 100 nanoseconds since 1601-01-01 00:00 UTC.
struct FILETIME {
    uint32_t dwLowDateTime;
    uint32_t dwHighDateTime;
};

// A time of the host as a FILETIME, the nearest that there is.
FILETIME toFileTime(int64_t seconds, int64_t nanoseconds);

// Packs a time as the file-allocation-table file system does; no time zone comes in. A time before 1980 gives
// the first that the format holds and one after 2107 the last. Always 1.
int FileTimeToDosDateTime(const FILETIME* time, uint16_t* date, uint16_t* timeOfDay);

#endif
