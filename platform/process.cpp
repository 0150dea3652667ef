#include "platform/process.h"

#include <unistd.h>

int _getpid() {
    return ::getpid();
}
