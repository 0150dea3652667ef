// The op: a header of type and size in front of the payload that callers hold.
#ifndef KAL_OPLIST_OP_H
#define KAL_OPLIST_OP_H

#include "platform/little_endian.h"

#include <kal/heap.h>
#include <kal/oplist.h>

// The most payload bytes that a header's 16 bits can tell.
inline constexpr uint32_t kOpPayloadMax = UINT16_MAX;

struct OpHeader {
    uint16_t type;
    uint16_t size;
};

inline OpHeader loadOpHeader(const uint8_t* bytes) {
    return {loadLittle<uint16_t>(bytes), loadLittle<uint16_t>(bytes + 2)};
}

inline void storeOpHeader(uint8_t* bytes, uint32_t type, uint32_t size) {
    storeLittle(bytes, static_cast<uint16_t>(type));
    storeLittle(bytes + 2, static_cast<uint16_t>(size));
}

// Where an op starts: its header, which is also its heap block.
inline uint8_t* opStart(void* op) {
    return static_cast<uint8_t*>(KalOpBlock(op));
}

// KalCreateOp for those who fill the whole payload, which is undefined until then.
void* createOpToFill(uint32_t type, uint32_t size);

inline void freeOp(void* op) {
    KalFreeSMem(opStart(op));
}

#endif
