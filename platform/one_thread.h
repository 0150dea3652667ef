// Whether the process has one thread only, so that what threads share needs neither locks nor locked instructions.
#ifndef KAL_PLATFORM_ONE_THREAD_H
#define KAL_PLATFORM_ONE_THREAD_H

#include <version> // brings in the C library's own macros
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
inline bool isOneThread() {
    return __libc_single_threaded != 0;
}
#else
inline bool isOneThread() {
    return false;
}
#endif

#endif
