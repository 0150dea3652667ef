// Sorting: the steps themselves are part of the contract, so the library's are held against a model's.
#include <kal/text.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

// An element: a key to compare by and a name of its own, whatever the width allows.
struct Element {
    int key;
    int id;
    bool operator==(const Element&) const = default;
};

using Comparisons = std::vector<std::pair<int, int>>; // the ids that were compared

// The sort over indices, with its comparisons.
struct Model {
    std::vector<Element> a;
    Comparisons made;

    int compare(long i, long j) {
        made.emplace_back(a[size_t(i)].id, a[size_t(j)].id);
        return a[size_t(i)].key - a[size_t(j)].key;
    }
    void sort(long lo, long hi) {
        while (hi > lo) {
            long i = lo, j = hi + 1;
            while (true) {
                for (i++; i < hi && compare(i, lo) <= 0;)
                    i++;
                for (j--; j > lo && compare(j, lo) >= 0;)
                    j--;
                if (i >= j)
                    break;
                std::swap(a[size_t(i)], a[size_t(j)]);
            }
            std::swap(a[size_t(lo)], a[size_t(j)]);
            if (hi - j <= j - lo) {
                sort(j + 1, hi);
                hi = j - 1;
            } else {
                sort(lo, j - 1);
                lo = j + 1;
            }
        }
    }
    void run() {
        for (long i = 0; i + 1 < long(a.size()); i++)
            if (compare(i, i + 1) > 0)
                return sort(0, long(a.size()) - 1);
    }
};

Comparisons comparisons;
uintptr_t lowest;

int32_t compareElements(const void* left, const void* right) {
    Element l, r;
    std::memcpy(&l, left, sizeof l);
    std::memcpy(&r, right, sizeof r);
    comparisons.emplace_back(l.id, r.id);
    lowest = std::min(lowest, reinterpret_cast<uintptr_t>(__builtin_frame_address(0)));
    return l.key - r.key;
}

int32_t compareBytes(const void* left, const void* right) {
    return *static_cast<const uint8_t*>(left) - *static_cast<const uint8_t*>(right);
}

// Elements of `width` bytes; the rest of each follows its element.
void expectSameSteps(const std::vector<int>& keys, uint32_t width) {
    Model model;
    std::vector<uint8_t> array(keys.size() * width);
    for (size_t i = 0; i < keys.size(); i++) {
        model.a.push_back({keys[i], int(i)});
        std::memset(&array[i * width], int(i & 0xFF), width);
        std::memcpy(&array[i * width], &model.a.back(), sizeof(Element));
    }
    model.run();
    comparisons.clear();
    KalQSort(array.data(), uint32_t(keys.size()), width, compareElements);
    EXPECT_EQ(comparisons == model.made, true) << keys.size() << " elements of " << width;
    for (size_t i = 0; i < keys.size(); i++) {
        Element got;
        std::memcpy(&got, &array[i * width], sizeof got);
        ASSERT_EQ(got, model.a[i]) << i;
        for (size_t rest = sizeof(Element); rest < width; rest++)
            ASSERT_EQ(array[i * width + rest], uint8_t(got.id));
    }
}

} // namespace

TEST(QSort, MakesTheSameComparisonsAndSwapsAsTheModel) {
    std::mt19937 random(3);
    for (uint32_t width : {8u, 9u, 13u, 16u, 100u}) {
        for (size_t count : {0u, 1u, 2u, 3u, 4u, 7u, 50u, 700u}) {
            std::vector<int> keys(count);
            for (int range : {1, 3, 1000}) {
                for (int& key : keys)
                    key = int(random()) % range;
                expectSameSteps(keys, width);
            }
            std::sort(keys.begin(), keys.end());
            expectSameSteps(keys, width);
            EXPECT_EQ(comparisons.size(), count > 0 ? count - 1 : 0);
            std::reverse(keys.begin(), keys.end());
            expectSameSteps(keys, width);
        }
    }
}

TEST(QSort, NarrowAndEmptyElements) {
    std::mt19937 random(5);
    for (uint32_t width : {1u, 2u, 3u}) {
        std::vector<uint8_t> array(996);
        std::generate(array.begin(), array.end(), [&] { return uint8_t(random()); });
        std::vector<uint8_t> keys;
        for (size_t i = 0; i < array.size(); i += width)
            keys.push_back(array[i]);
        std::sort(keys.begin(), keys.end());
        KalQSort(array.data(), uint32_t(keys.size()), width, compareBytes);
        for (size_t i = 0; i < keys.size(); i++)
            ASSERT_EQ(array[i * width], keys[i]);
    }
    uint8_t nothing = 1;
    KalQSort(&nothing, 5, 0, compareBytes);
    KalQSort(nullptr, 0, 4, compareBytes);
}

TEST(QSort, TheStackGrowsWithTheLogarithmOnly) {
    constexpr int count = 2000;
    std::vector<Element> array(count);
    // Sorted but for its ends: each partition splits one element off.
    for (int i = 0; i < count; i++)
        array[size_t(i)] = {i == 0 ? 1 : i == 1 ? 0 : i, i};
    comparisons.clear();
    lowest = UINTPTR_MAX;
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    KalQSort(array.data(), count, sizeof(Element), compareElements);
    EXPECT_GT(comparisons.size(), size_t(count) * count / 4) << "the worst case";
    EXPECT_LT(here - lowest, size_t(std::log2(count)) * 1024);
    EXPECT_TRUE(std::is_sorted(array.begin(), array.end(), [](auto& l, auto& r) { return l.key < r.key; }));
}
