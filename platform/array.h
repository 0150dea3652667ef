// A growing array of plain elements on the small-memory heap, whose growth can fail.
#ifndef KAL_PLATFORM_ARRAY_H
#define KAL_PLATFORM_ARRAY_H

#include <kal/heap.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

template <class T>
class Array {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

public:
    Array() = default;
    ~Array() {
        if (data_ != nullptr)
            KalFreeSMem(data_);
    }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;
    void swap(Array& other) {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    T* begin() { return data_; }
    T* end() { return data_ + size_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }
    T& operator[](size_t index) { return data_[index]; }
    const T& operator[](size_t index) const { return data_[index]; }
    T& back() { return data_[size_ - 1]; }

    // Room for `count` elements, so that growing up to there does not fail. Some to spare is taken where
    // there is enough, so that growing step by step costs little. Counts have 64 bits, since those that come
    // from a file may pass what this process can address.
    bool reserve(uint64_t count) {
        return count <= capacity_ || setCapacity(std::max<uint64_t>(count, capacity_ + capacity_ / 2)) ||
               setCapacity(count);
    }

    // Elements gained are all 0.
    bool resize(uint64_t wanted) {
        if (!reserve(wanted))
            return false;
        const auto count = static_cast<size_t>(wanted);
        if (count > size_)
            std::memset(static_cast<void*>(data_ + size_), 0, (count - size_) * sizeof(T));
        size_ = count;
        return true;
    }
    void shrink(size_t count) { size_ = count; }

    bool append(const T& element) {
        if (!reserve(size_ + 1))
            return false;
        data_[size_++] = element;
        return true;
    }
    bool insert(size_t index, const T& element) {
        if (!append(element))
            return false;
        std::rotate(data_ + index, data_ + size_ - 1, data_ + size_);
        return true;
    }

private:
    bool setCapacity(uint64_t count) {
        if (count > UINT32_MAX / sizeof(T))
            return false;
        const auto bytes = static_cast<uint32_t>(count * sizeof(T));
        void* grown = data_ == nullptr ? KalAllocSMem(bytes) : KalReAllocSMem(data_, bytes);
        if (grown == nullptr)
            return false;
        data_ = static_cast<T*>(grown);
        capacity_ = static_cast<size_t>(count);
        return true;
    }

    T* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

#endif
