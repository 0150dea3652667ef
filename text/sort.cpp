// Sorting an array of elements of any width.
#include <kal/text.h>

#include <algorithm>

namespace {

struct Sorter {
    size_t width;
    KalCompare compare;

    void swap(uint8_t* a, uint8_t* b) const {
        if (a != b)
            std::swap_ranges(a, a + width, b);
    }

    bool isSorted(const uint8_t* base, size_t count) const {
        for (size_t i = 1; i < count; i++, base += width)
            if (compare(base, base + width) > 0)
                return false;
        return true;
    }

    // Brings the first element of the range to its final place, smaller ones before and greater ones behind
    // it; elements equal to it stop neither scan. Returns the place.
    uint8_t* partition(uint8_t* low, uint8_t* high) const {
        uint8_t* left = low;
        uint8_t* right = high + width;
        for (;;) {
            do
                left += width;
            while (left < high && compare(left, low) <= 0);
            do
                right -= width;
            while (right > low && compare(right, low) >= 0);
            if (left >= right)
                break;
            swap(left, right);
        }
        swap(low, right);
        return right;
    }

    // Sorts the elements from `low` to `high`. The smaller part is sorted by recursion and the larger by the
    // loop, which keeps the depth within the logarithm of the count.
    void sort(uint8_t* low, uint8_t* high) const {
        while (low < high) {
            uint8_t* pivot = partition(low, high);
            if (high - pivot <= pivot - low) {
                if (pivot < high)
                    sort(pivot + width, high);
                if (pivot == low)
                    return;
                high = pivot - width;
            } else {
                if (pivot > low)
                    sort(low, pivot - width);
                low = pivot + width;
            }
        }
    }
};

} // namespace

void KalQSort(void* base, uint32_t count, uint32_t width, KalCompare compare) {
    auto* first = static_cast<uint8_t*>(base);
    const Sorter sorter{width, compare};
    if (count < 2 || width == 0 || sorter.isSorted(first, count))
        return;
    sorter.sort(first, first + size_t(count - 1) * width);
}
