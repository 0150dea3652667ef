// Ops as values, for tests.
#ifndef KAL_TESTS_SUPPORT_OPS_H
#define KAL_TESTS_SUPPORT_OPS_H

#include "tests/support/files.h"

struct Op {
    uint16_t type;
    Bytes payload;
    bool operator==(const Op&) const = default;
};

inline Op randomOp(std::mt19937& random, uint32_t most) {
    Op op{uint16_t(1 + random() % 1000), Bytes(random() % (most + 1))};
    const auto kind = random() % 3; // constant, rows of a picture, noise
    for (size_t i = 0; i < op.payload.size(); i++)
        op.payload[i] = kind == 0 ? 7 : kind == 1 ? uint8_t(i % 97 + i / 400) : uint8_t(random());
    return op;
}

inline uint32_t putOp(OpList* list, const Op& op, uint32_t (*put)(OpList*, void*) = KalPutOp) {
    void* made = KalCreateOp(op.type, uint32_t(op.payload.size()));
    if (made == nullptr)
        return KAL_OP_FAILED;
    if (!op.payload.empty())
        std::memcpy(made, op.payload.data(), op.payload.size());
    const uint32_t position = put(list, made);
    KalFreeSMem(KalOpBlock(made));
    return position;
}

inline uint32_t putOpData(OpList* list, const Op& op) {
    return KalPutOpData(list, op.type, op.payload.data(), uint32_t(op.payload.size()));
}

// The ops from the list's position to its end, or the first of them.
inline std::vector<Op> restOf(OpList* list, size_t most = SIZE_MAX) {
    std::vector<Op> ops;
    while (void* op = ops.size() < most ? KalGetOp(list) : nullptr) {
        const auto* bytes = static_cast<const uint8_t*>(op);
        ops.push_back({KalOpType(op), Bytes(bytes, bytes + KalOpSize(op))});
        KalFreeSMem(KalOpBlock(op));
    }
    return ops;
}

inline Bytes stored(const std::vector<Op>& ops) {
    Bytes bytes;
    for (const auto& op : ops) {
        const size_t size = op.payload.size();
        for (size_t word : {size_t(op.type), size}) {
            bytes.push_back(uint8_t(word));
            bytes.push_back(uint8_t(word >> 8));
        }
        bytes.insert(bytes.end(), op.payload.begin(), op.payload.end());
    }
    return bytes;
}

#endif
