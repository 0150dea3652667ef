// The manager of movable memory, its blocks and their locks, each ended by its scope.
//
//     auto manager = kal::VMem::open();
//     auto block = kal::VMemBlock::allocate(32768);
//     if (auto lock = block->lock())
//         lock->bytes()[0] = std::byte{1};
#ifndef KAL_CPP_VMEM_H
#define KAL_CPP_VMEM_H

#include <kal/cpp/owner.h>
#include <kal/vmem.h>

namespace kal {

// How the manager ends.
struct VMemTraits : RecordTraits<vmemstate> {
    // Frees every block that is left; the status of closing the swap file.
    static Status close(vmemstate*) { return KalCloseVMem(); }
};

// The manager of the calling thread, which must close it too. Blocks, and all that keeps its bytes in them, must be
// gone before.
class VMem : public Owner<VMemTraits> {
public:
    using Owner::Owner;

    // Opens the manager, with a limit in bytes for what stays in memory where one is given. The statuses of
    // KalOpenVMem; KAL_ERR_VMEM when it is open already, which stays as it is.
    static Expected<VMem> open(uint32_t limit = 0) {
        if (limit != 0)
            KalSetMaxVMem(limit);
        return opened<VMem>([](vmemstate** out) {
            const int16_t status = KalOpenVMem(0);
            *out = status == KAL_OK ? static_cast<vmemstate*>(KalGetTaskData(6)) : nullptr;
            return status;
        });
    }
};

// How a lock ends.
using LockTraits = ClosedBy<void, KalUnLockVMem>;

// A locked block: it has an address, which holds as long as this. A Lock may change the bytes, a ReadLock not.
template <class Byte>
class BasicLock : public Owner<LockTraits> {
public:
    // Locks a block of `size` bytes. Owns nothing where it cannot be brought back.
    BasicLock(void* handle, size_t size) : BasicLock(handle, static_cast<Byte*>(KalLockVMem(handle)), size) {}
    BasicLock(BasicLock&&) noexcept = default;
    BasicLock& operator=(BasicLock&& other) noexcept {
        tellChange();
        Owner::operator=(std::move(other));
        bytes_ = other.bytes_;
        return *this;
    }
    ~BasicLock() { tellChange(); }

    // The block's bytes.
    std::span<Byte> bytes() const { return bytes_; }

private:
    BasicLock(void* handle, Byte* address, size_t size)
        : Owner(address != nullptr ? handle : nullptr), bytes_(address, address != nullptr ? size : 0) {}

    // A copy in the swap file, should there be one, no longer counts.
    void tellChange() {
        if (!std::is_const_v<Byte> && get() != nullptr)
            KalMarkDirtyVMem(get());
    }

    std::span<Byte> bytes_;
};
using Lock = BasicLock<std::byte>;           // to change
using ReadLock = BasicLock<const std::byte>; // to read

// A movable block.
class VMemBlock : public Owner<ClosedBy<void, KalFreeVMem>> {
public:
    using Record = void; // its handle

    // Owns nothing, or a handle of a block of this size.
    VMemBlock() = default;
    VMemBlock(void* handle, uint32_t size) : Owner(handle), size_(size) {}

    // A block of `size` bytes, their values undefined; KAL_ERR_VMEM when there is none to be had.
    static Expected<VMemBlock> allocate(uint32_t size) {
        void* handle = KalAllocVMem(2, size);
        if (handle == nullptr)
            return Unexpected{KAL_ERR_VMEM};
        return VMemBlock(handle, size);
    }

    // Resizes it. 0, or KAL_ERR_VMEM with the block as it was.
    Status resize(uint32_t size) {
        if (KalReAllocVMem(get(), size) == nullptr)
            return KAL_ERR_VMEM;
        size_ = size;
        return KAL_OK;
    }

    // Its bytes in memory, to change or only to read; KAL_ERR_VMEM when they cannot be brought back.
    Expected<Lock> lock() { return checked(Lock(get(), size_)); }
    Expected<ReadLock> lockToRead() const { return checked(ReadLock(get(), size_)); }

    // In bytes.
    uint32_t size() const { return size_; }

private:
    template <class T>
    static Expected<T> checked(T lock) {
        if (!lock)
            return Unexpected{KAL_ERR_VMEM};
        return lock;
    }

    uint32_t size_ = 0;
};

} // namespace kal

#endif
