// The process as the C runtime knows it.
#ifndef KAL_PLATFORM_PROCESS_H
#define KAL_PLATFORM_PROCESS_H

// The number of the calling process.
int _getpid();

#endif
