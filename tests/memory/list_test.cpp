#include "tests/support/faults.h"

#include <list>

namespace {

// Both families through one set of names, so that one body tests both.
#define FAMILY(Name, S, s, noHeadStatus, badNodeStatus)                                                      \
    struct Name {                                                                                            \
        using Head = s##listhd;                                                                              \
        static constexpr int16_t noHead = noHeadStatus, badNode = badNodeStatus;                             \
        static constexpr auto create = Kal##S##CreateList;                                                   \
        static constexpr auto createE = Kal##S##CreateListE;                                                 \
        static constexpr auto createNode = Kal##S##CreateNode;                                               \
        static constexpr auto addHead = Kal##S##AddHead, addTail = Kal##S##AddTail;                          \
        static constexpr auto takeHead = Kal##S##DeleteHead, takeTail = Kal##S##DeleteTail;                  \
        static constexpr auto insert = Kal##S##InsertNode;                                                   \
        static constexpr auto extract = Kal##S##ExtractNode;                                                 \
        static constexpr auto destroyNode = Kal##S##DestroyNode;                                             \
        static constexpr auto destroy = Kal##S##DestroyList;                                                 \
        static constexpr auto peek = Kal##S##PeekList, reversePeek = Kal##S##ReversePeekList;                \
        static constexpr auto prev = Kal##S##PrevNode;                                                       \
        static constexpr auto count = Kal##S##CountList;                                                     \
    }
FAMILY(Plain, , , KAL_ERR_MEMORY, KAL_ERR_LIST);
FAMILY(Small, S, s, KAL_ERR_BUFFER, KAL_OK);

template <class Family>
class ListTest : public ::testing::Test {};
using Families = ::testing::Types<Plain, Small>;
TYPED_TEST_SUITE(ListTest, Families);

// Notes the nodes that it is shown, until it has seen as many as were asked for.
struct Seen {
    size_t most;
    std::vector<void*> nodes = {};
};
uint16_t see(void* node, void* seen) {
    auto* all = static_cast<Seen*>(seen);
    all->nodes.push_back(node);
    return all->nodes.size() == all->most;
}

} // namespace

TYPED_TEST(ListTest, AgreesWithAModelInRandomSequences) {
    using F = TypeParam;
    HeapBalance balance;
    std::mt19937 random(11);
    auto* list = F::create();
    std::list<void*> model;
    void* node = F::createNode(8); // goes in and comes out again
    for (int step = 0; step < 3000; step++) {
        SCOPED_TRACE("step " + std::to_string(step));
        node = node != nullptr ? node : F::createNode(8);
        auto some = std::next(model.begin(), long(random() % (model.size() + 1)));
        const auto way = random() % 6;
        if (way == 0) {
            ASSERT_EQ(F::addHead(list, std::exchange(node, nullptr)), KAL_OK);
            model.push_front(list->first + 1);
        } else if (way == 1) {
            ASSERT_EQ(F::addTail(list, std::exchange(node, nullptr)), KAL_OK);
            model.push_back(list->last + 1);
        } else if (way == 2) {
            ASSERT_EQ(F::insert(list, some == model.end() ? nullptr : *some, node),
                      some == model.end() ? KAL_ERR_NODE : KAL_OK);
            if (some != model.end())
                model.insert(std::next(some), std::exchange(node, nullptr));
        } else {
            EXPECT_EQ(F::destroyNode(node), KAL_OK);
            some = way == 3 ? model.begin() : way == 4 && !model.empty() ? std::prev(model.end()) : some;
            node = some == model.end() ? nullptr : *some;
            if (way == 5)
                ASSERT_EQ(F::extract(list, node), node == nullptr ? KAL_ERR_NODE : KAL_OK);
            else
                ASSERT_EQ(way == 3 ? F::takeHead(list) : F::takeTail(list), node);
            if (node != nullptr)
                model.erase(some);
        }
        const std::vector<void*> expected(model.begin(), model.end());
        Seen forward = {0}, backward = {0}, part = {expected.size() / 2 + 1};
        ASSERT_EQ(F::peek(list, see, &forward), nullptr);
        ASSERT_EQ(F::reversePeek(list, see, &backward), nullptr);
        const void* found = F::peek(list, see, &part);
        ASSERT_EQ(found, expected.empty() ? nullptr : expected[expected.size() / 2]);
        ASSERT_EQ(forward.nodes, expected);
        ASSERT_EQ(std::vector<void*>(backward.nodes.rbegin(), backward.nodes.rend()), expected);
        ASSERT_EQ(F::count(list), int(expected.size()));
        for (size_t i = 0; i < expected.size(); i++) {
            ASSERT_EQ(F::prev(expected[i]), i == 0 ? nullptr : expected[i - 1]);
            ASSERT_EQ(KalNextNode(expected[i]), i + 1 == expected.size() ? nullptr : expected[i + 1]);
        }
    }
    EXPECT_EQ(F::destroyNode(node), node == nullptr ? KAL_ERR_NODE : KAL_OK);
    EXPECT_EQ(F::destroy(list), KAL_OK);
}

TYPED_TEST(ListTest, NullsAndShortMemoryGiveTheirStatuses) {
    using F = TypeParam;
    HeapBalance balance;
    typename F::Head* none = nullptr;
    int node = 0;
    for (const int status : {F::addHead(none, &node), F::addTail(none, &node), F::insert(none, &node, &node),
                             F::extract(none, &node)})
        EXPECT_EQ(status, KAL_ERR_LIST);
    EXPECT_EQ(F::count(none) + F::destroy(none), 0);
    for (void* found : {F::takeHead(none), F::takeTail(none), F::peek(none, see, nullptr), F::prev(nullptr),
                        KalNextNode(nullptr), F::createNode(-1)})
        EXPECT_EQ(found, nullptr);
    int16_t status = 1;
    auto* list = F::createE(&status);
    for (const int refused :
         {F::addHead(list, nullptr), F::addTail(list, nullptr), F::insert(list, &node, nullptr)})
        EXPECT_EQ(refused + status, KAL_ERR_NODE);
    failHeapAllocation(1);
    EXPECT_EQ(F::createE(&status), nullptr);
    EXPECT_EQ(status, F::noHead);
    failHeapAllocation(0);
    EXPECT_EQ(F::destroy(list), KAL_OK);
}

TYPED_TEST(ListTest, ANodeThatCannotBeFreedStopsOnlyThePlainDestroy) {
    using F = TypeParam;
    auto* list = F::create();
    for (int i = 0; i < 3; i++)
        F::addTail(list, F::createNode(4));
    auto* bad = static_cast<uint8_t*>(KalNextNode(list->first + 1));
    bad[4] ^= 0xFF; // overrun
    EXPECT_EQ(KalIsSListGood(reinterpret_cast<slisthd*>(list)), 0);
    EXPECT_EQ(F::destroy(list), F::badNode);
    bad[4] ^= 0xFF;
    EXPECT_EQ(F::badNode == KAL_OK ? F::destroyNode(bad) : F::destroy(list), KAL_OK);
}

TEST(List, SizeCountsBlocksAndGuards) {
    HeapBalance balance;
    listhd* list = KalCreateList();
    const int header = int(sizeof(KalNodeHeader));
    for (const auto& [data, sum] : {std::pair(24, 26), {24, 52}, {40, 94}, {65536 - 94 + 2, 4}}) { // it wraps
        KalAddTail(list, KalCreateNode(data - header));
        EXPECT_EQ(KalSizeList(list), sum);
    }
    KalDestroyList(list);
}

TEST(List, SoundnessSeesABrokenChain) {
    HeapBalance balance;
    slisthd* list = KalSCreateList();
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(KalIsSListGood(list), 1);
        KalSAddTail(list, KalSCreateNode(8));
    }
    KalNodeHeader* last = list->last;
    for (KalNodeHeader* wrong : {last->prev, static_cast<KalNodeHeader*>(nullptr)}) {
        list->last = wrong;
        EXPECT_EQ(KalIsSListGood(list), 0);
    }
    list->last = last;
    last->next = reinterpret_cast<KalNodeHeader*>(0x1000);
    EXPECT_EQ(KalIsSListGood(list) + KalIsSListGood(nullptr), 0);
    last->next = nullptr;
    EXPECT_EQ(KalSDestroyList(list), KAL_OK);
}
