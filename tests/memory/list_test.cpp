#include "tests/support/faults.h"

#include <kal/heap.h>
#include <kal/list.h>

#include <algorithm>
#include <list>
#include <random>
#include <vector>

namespace {

int& valueOf(void* node) {
    return *static_cast<int*>(node);
}

// Both families through one set of names, so that one body tests both.
#define FAMILY(Name, S, s, noHeadStatus)                                                                     \
    struct Name {                                                                                            \
        using Head = s##listhd;                                                                              \
        static constexpr int16_t noHead = noHeadStatus;                                                      \
        static constexpr auto create = Kal##S##CreateList;                                                   \
        static constexpr auto createE = Kal##S##CreateListE;                                                 \
        static constexpr auto createNode = Kal##S##CreateNode;                                               \
        static constexpr auto addHead = Kal##S##AddHead;                                                     \
        static constexpr auto addTail = Kal##S##AddTail;                                                     \
        static constexpr auto insert = Kal##S##InsertNode;                                                   \
        static constexpr auto takeHead = Kal##S##DeleteHead;                                                 \
        static constexpr auto takeTail = Kal##S##DeleteTail;                                                 \
        static constexpr auto extract = Kal##S##ExtractNode;                                                 \
        static constexpr auto destroyNode = Kal##S##DestroyNode;                                             \
        static constexpr auto destroy = Kal##S##DestroyList;                                                 \
        static constexpr auto prev = Kal##S##PrevNode;                                                       \
        static constexpr auto peek = Kal##S##PeekList;                                                       \
        static constexpr auto reversePeek = Kal##S##ReversePeekList;                                         \
        static constexpr auto count = Kal##S##CountList;                                                     \
    }
FAMILY(Plain, , , -100);
FAMILY(Small, S, s, -105);

template <class Family>
class ListTest : public ::testing::Test {};
using Families = ::testing::Types<Plain, Small>;
TYPED_TEST_SUITE(ListTest, Families);

uint16_t isEven(void* node, void*) {
    return valueOf(node) % 2 == 0;
}

uint16_t collect(void* node, void* context) {
    static_cast<std::vector<void*>*>(context)->push_back(node);
    return 0;
}

} // namespace

TYPED_TEST(ListTest, RandomSequencesMatchAModel) {
    using F = TypeParam;
    HeapBalance balance;
    std::mt19937 random(11);
    auto* list = F::create();
    std::list<void*> model;
    auto some = [&] { return std::next(model.begin(), long(random() % model.size())); };
    for (int step = 0; step < 3000; step++) {
        void* node = F::createNode(sizeof(int));
        valueOf(node) = step;
        switch (random() % 7) {
        case 0:
            EXPECT_EQ(F::addHead(list, node), 0);
            model.push_front(node);
            break;
        case 1:
            EXPECT_EQ(F::addTail(list, node), 0);
            model.push_back(node);
            break;
        case 2:
            if (!model.empty()) {
                auto after = some();
                EXPECT_EQ(F::insert(list, *after, node), 0);
                model.insert(std::next(after), node);
                break;
            }
            [[fallthrough]];
        default:
            F::destroyNode(node);
            node = nullptr;
        }
        if (node == nullptr && !model.empty()) {
            auto gone = random() % 3 == 0   ? model.begin()
                        : random() % 2 == 0 ? std::prev(model.end())
                                            : some();
            void* taken = *gone;
            if (gone == model.begin())
                EXPECT_EQ(F::takeHead(list), taken);
            else if (std::next(gone) == model.end())
                EXPECT_EQ(F::takeTail(list), taken);
            else
                EXPECT_EQ(F::extract(list, taken), 0);
            model.erase(gone);
            EXPECT_EQ(F::destroyNode(taken), 0);
        }
        std::vector<void*> forward, backward;
        F::peek(list, collect, &forward);
        F::reversePeek(list, collect, &backward);
        const std::vector<void*> expected(model.begin(), model.end());
        ASSERT_EQ(forward, expected) << "step " << step;
        ASSERT_EQ(std::vector<void*>(backward.rbegin(), backward.rend()), expected);
        const auto first =
            std::find_if(expected.begin(), expected.end(), [](void* n) { return isEven(n, nullptr); });
        ASSERT_EQ(F::peek(list, isEven, nullptr), first == expected.end() ? nullptr : *first);
        const auto last =
            std::find_if(expected.rbegin(), expected.rend(), [](void* n) { return isEven(n, nullptr); });
        ASSERT_EQ(F::reversePeek(list, isEven, nullptr), last == expected.rend() ? nullptr : *last);
        for (size_t i = 0; i < expected.size(); i++) {
            ASSERT_EQ(F::prev(expected[i]), i == 0 ? nullptr : expected[i - 1]);
            ASSERT_EQ(KalNextNode(expected[i]), i + 1 == expected.size() ? nullptr : expected[i + 1]);
        }
        ASSERT_EQ(F::count(list), int(model.size()));
        ASSERT_EQ(list->first == nullptr, model.empty());
        ASSERT_EQ(list->last == nullptr, model.empty());
    }
    EXPECT_EQ(F::destroy(list), 0);
}

TYPED_TEST(ListTest, NullsAndShortMemoryGiveTheirStatuses) {
    using F = TypeParam;
    HeapBalance balance;
    typename F::Head* none = nullptr;
    int node = 0;
    EXPECT_EQ(F::addHead(none, &node), -801);
    EXPECT_EQ(F::addTail(none, &node), -801);
    EXPECT_EQ(F::insert(none, &node, &node), -801);
    EXPECT_EQ(F::extract(none, &node), -801);
    EXPECT_EQ(F::takeHead(none), nullptr);
    EXPECT_EQ(F::takeTail(none), nullptr);
    EXPECT_EQ(F::peek(none, isEven, nullptr), nullptr);
    EXPECT_EQ(F::count(none), 0);
    EXPECT_EQ(F::destroy(none), 0);
    EXPECT_EQ(F::destroyNode(nullptr), -802);

    int16_t status = 1;
    auto* list = F::createE(&status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(F::insert(list, nullptr, &node), -802);
    EXPECT_EQ(F::insert(list, &node, nullptr), -802);
    EXPECT_EQ(F::extract(list, nullptr), -802);
    EXPECT_EQ(F::destroy(list), 0);

    failHeapAllocation(1);
    EXPECT_EQ(F::createE(&status), nullptr);
    EXPECT_EQ(status, F::noHead);
    failHeapAllocation(1);
    EXPECT_EQ(F::createNode(8), nullptr);
    failHeapAllocation(0);
}

TEST(List, ANodeThatCannotBeFreedStopsOnlyThePlainDestroy) {
    auto overrun = [](void* node) -> uint8_t& { return static_cast<uint8_t*>(node)[4]; };
    listhd* plain = KalCreateList();
    slisthd* small = KalSCreateList();
    void* bad[] = {KalCreateNode(4), KalSCreateNode(4)};
    KalAddTail(plain, KalCreateNode(4));
    KalAddTail(plain, bad[0]);
    KalAddTail(plain, KalCreateNode(4));
    KalSAddTail(small, KalSCreateNode(4));
    KalSAddTail(small, bad[1]);
    KalSAddTail(small, KalSCreateNode(4));
    overrun(bad[0]) ^= 0xFF;
    overrun(bad[1]) ^= 0xFF;
    EXPECT_EQ(KalIsSListGood(small), 0);
    EXPECT_EQ(KalDestroyList(plain), -801);
    EXPECT_EQ(KalCountList(plain), 2) << "what is left is still a list";
    EXPECT_EQ(KalSDestroyList(small), 0);
    overrun(bad[0]) ^= 0xFF;
    overrun(bad[1]) ^= 0xFF;
    EXPECT_EQ(KalDestroyList(plain), 0);
    EXPECT_EQ(KalSDestroyNode(bad[1]), 0);
}

TEST(List, SizeCountsBlocksAndGuards) {
    HeapBalance balance;
    listhd* list = KalCreateList();
    const int header = int(sizeof(KalNodeHeader));
    for (int data : {24 - header, 24 - header, 40 - header})
        KalAddTail(list, KalCreateNode(data));
    EXPECT_EQ(KalSizeList(list), 94);
    KalAddTail(list, KalCreateNode(65536 - 94 + 2 - header)); // 65,540 in all: wraps
    EXPECT_EQ(KalSizeList(list), 4);
    KalDestroyList(list);
}

TEST(List, SoundnessSeesABrokenChain) {
    slisthd* list = KalSCreateList();
    EXPECT_EQ(KalIsSListGood(list), 1);
    for (int i = 0; i < 3; i++)
        KalSAddTail(list, KalSCreateNode(8));
    EXPECT_EQ(KalIsSListGood(list), 1);
    KalNodeHeader* last = list->last;
    list->last = last->prev;
    EXPECT_EQ(KalIsSListGood(list), 0);
    list->last = nullptr;
    EXPECT_EQ(KalIsSListGood(list), 0);
    list->last = last;
    last->next = reinterpret_cast<KalNodeHeader*>(0x1000);
    EXPECT_EQ(KalIsSListGood(list), 0);
    last->next = nullptr;
    EXPECT_EQ(KalSDestroyList(list), 0);
}
