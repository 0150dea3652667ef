#include "platform/process.h"

#include "platform/host_calls.h"

int _getpid() {
    return hostCalls.getpid();
}
