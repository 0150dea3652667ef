#include "platform/host_calls.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

// Some of the host's functions take a variable number of arguments: each is called with those of the table.
#define KAL_HOST_CALL(name, result, parameters)                                                              \
    .name = [](auto... arguments) -> result { return ::name(arguments...); },

HostCalls hostCalls = {KAL_HOST_CALLS(KAL_HOST_CALL)};
