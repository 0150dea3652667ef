// Walking through a registry's log of which nothing is believed.
#ifndef KAL_PLATFORM_REGISTRY_VERIFY_H
#define KAL_PLATFORM_REGISTRY_VERIFY_H

#include "platform/byte_source.h"
#include "platform/fault_count.h"

// Tells each fault; the `id` is the number of the record, from 0 on. KAL_ERR_BUFFER, or the source's status when that
// cannot be read.
int16_t verifyRegistryLog(ByteSource& source, FaultCount& faults);

#endif
