// Both list families. The heads have one layout, so every step is written once, for any head, and the two
// sets of calls below only differ where the families do.
#include <kal/list.h>

#include <kal/heap.h>

#include <cstring>

namespace {

using Header = KalNodeHeader;

Header* headerOf(void* node) {
    return static_cast<Header*>(node) - 1;
}

void* nodeOf(Header* header) {
    return header != nullptr ? header + 1 : nullptr;
}

template <class Head>
Head* createList(int16_t* status, int16_t failure) {
    auto* list = static_cast<Head*>(KalAllocSMem(sizeof(Head)));
    if (status != nullptr)
        *status = list != nullptr ? int16_t(KAL_OK) : failure;
    return list;
}

template <class Head>
int16_t addHead(Head* list, void* node) {
    if (list == nullptr)
        return KAL_ERR_LIST;
    if (node == nullptr)
        return KAL_ERR_NODE;
    Header* h = headerOf(node);
    h->next = list->first;
    h->prev = nullptr;
    list->first = h;
    if (h->next != nullptr)
        h->next->prev = h;
    if (list->last == nullptr)
        list->last = h;
    return KAL_OK;
}

template <class Head>
int16_t addTail(Head* list, void* node) {
    if (list == nullptr)
        return KAL_ERR_LIST;
    if (node == nullptr)
        return KAL_ERR_NODE;
    Header* h = headerOf(node);
    h->next = nullptr;
    h->prev = list->last;
    if (list->last != nullptr)
        list->last->next = h;
    list->last = h;
    if (list->first == nullptr)
        list->first = h;
    return KAL_OK;
}

template <class Head>
int16_t insertAfter(Head* list, void* after, void* node) {
    if (list == nullptr)
        return KAL_ERR_LIST;
    if (after == nullptr || node == nullptr)
        return KAL_ERR_NODE;
    Header* a = headerOf(after);
    Header* h = headerOf(node);
    h->next = a->next;
    h->prev = a;
    if (a->next != nullptr)
        a->next->prev = h;
    else
        list->last = h;
    a->next = h;
    return KAL_OK;
}

template <class Head>
int16_t extract(Head* list, void* node) {
    if (list == nullptr)
        return KAL_ERR_LIST;
    if (node == nullptr)
        return KAL_ERR_NODE;
    Header* h = headerOf(node);
    if (h->prev != nullptr)
        h->prev->next = h->next;
    else
        list->first = h->next;
    if (h->next != nullptr)
        h->next->prev = h->prev;
    else
        list->last = h->prev;
    return KAL_OK;
}

template <class Head>
void* takeHead(Head* list) {
    void* node = list != nullptr ? nodeOf(list->first) : nullptr;
    if (node != nullptr)
        extract(list, node);
    return node;
}

template <class Head>
void* takeTail(Head* list) {
    void* node = list != nullptr ? nodeOf(list->last) : nullptr;
    if (node != nullptr)
        extract(list, node);
    return node;
}

int16_t destroyNode(void* node) {
    return node != nullptr && KalFreeSMem(headerOf(node)) == 0 ? KAL_OK : KAL_ERR_NODE;
}

template <class Head>
void* peek(Head* list, Header* Head::*start, Header* Header::*step, KalPeekCallback callback, void* context) {
    for (Header* h = list != nullptr ? list->*start : nullptr; h != nullptr; h = h->*step)
        if (callback(nodeOf(h), context) != 0)
            return nodeOf(h);
    return nullptr;
}

template <class Head>
int32_t count(const Head* list) {
    int32_t nodes = 0;
    for (const Header* h = list != nullptr ? list->first : nullptr; h != nullptr; h = h->next)
        nodes++;
    return nodes;
}

void* previous(void* node) {
    return node != nullptr ? nodeOf(headerOf(node)->prev) : nullptr;
}

bool isNodeSound(const Header* h) {
    if (KalIsValidFarPointer(h) == 0)
        return false;
    const uint8_t* guard = reinterpret_cast<const uint8_t*>(h) + KalSizeSMem(h);
    return KalIsValidFarPointer(guard) != 0 &&
           std::memcmp(guard, &KAL_HEAP_GUARD, sizeof KAL_HEAP_GUARD) == 0;
}

} // namespace

void* KalCreateNode(int32_t size) {
    return size < 0 ? nullptr
                    : nodeOf(static_cast<Header*>(KalAllocSMem(uint32_t(sizeof(Header)) + uint32_t(size))));
}

void* KalSCreateNode(int32_t size) {
    return KalCreateNode(size);
}

listhd* KalCreateList() {
    return createList<listhd>(nullptr, 0);
}

slisthd* KalSCreateList() {
    return createList<slisthd>(nullptr, 0);
}

listhd* KalCreateListE(int16_t* status) {
    return createList<listhd>(status, KAL_ERR_MEMORY);
}

slisthd* KalSCreateListE(int16_t* status) {
    return createList<slisthd>(status, KAL_ERR_BUFFER);
}

int16_t KalAddHead(listhd* list, void* node) {
    return addHead(list, node);
}

int16_t KalSAddHead(slisthd* list, void* node) {
    return addHead(list, node);
}

int16_t KalAddTail(listhd* list, void* node) {
    return addTail(list, node);
}

int16_t KalSAddTail(slisthd* list, void* node) {
    return addTail(list, node);
}

int16_t KalInsertNode(listhd* list, void* after, void* node) {
    return insertAfter(list, after, node);
}

int16_t KalSInsertNode(slisthd* list, void* after, void* node) {
    return insertAfter(list, after, node);
}

void* KalDeleteHead(listhd* list) {
    return takeHead(list);
}

void* KalSDeleteHead(slisthd* list) {
    return takeHead(list);
}

void* KalDeleteTail(listhd* list) {
    return takeTail(list);
}

void* KalSDeleteTail(slisthd* list) {
    return takeTail(list);
}

int16_t KalExtractNode(listhd* list, void* node) {
    return extract(list, node);
}

int16_t KalSExtractNode(slisthd* list, void* node) {
    return extract(list, node);
}

int16_t KalDestroyNode(void* node) {
    return destroyNode(node);
}

int16_t KalSDestroyNode(void* node) {
    return destroyNode(node);
}

int16_t KalDestroyList(listhd* list) {
    if (list == nullptr)
        return KAL_OK;
    while (Header* h = list->first) {
        Header* next = h->next;
        if (KalFreeSMem(h) != 0)
            return KAL_ERR_LIST;
        list->first = next; // a list that cannot be freed whole still names only live nodes
        if (next != nullptr)
            next->prev = nullptr;
        else
            list->last = nullptr;
    }
    return KalFreeSMem(list) == 0 ? KAL_OK : KAL_ERR_LIST;
}

int16_t KalSDestroyList(slisthd* list) {
    if (list == nullptr)
        return KAL_OK;
    while (void* node = takeHead(list))
        destroyNode(node);
    return KalFreeSMem(list) == 0 ? KAL_OK : KAL_ERR_LIST;
}

void* KalNextNode(void* node) {
    return node != nullptr ? nodeOf(headerOf(node)->next) : nullptr;
}

void* KalPrevNode(void* node) {
    return previous(node);
}

void* KalSPrevNode(void* node) {
    return previous(node);
}

void* KalPeekList(listhd* list, KalPeekCallback callback, void* context) {
    return peek(list, &listhd::first, &Header::next, callback, context);
}

void* KalSPeekList(slisthd* list, KalPeekCallback callback, void* context) {
    return peek(list, &slisthd::first, &Header::next, callback, context);
}

void* KalReversePeekList(listhd* list, KalPeekCallback callback, void* context) {
    return peek(list, &listhd::last, &Header::prev, callback, context);
}

void* KalSReversePeekList(slisthd* list, KalPeekCallback callback, void* context) {
    return peek(list, &slisthd::last, &Header::prev, callback, context);
}

int32_t KalCountList(listhd* list) {
    return count(list);
}

int32_t KalSCountList(slisthd* list) {
    return count(list);
}

uint16_t KalSizeList(listhd* list) {
    uint32_t bytes = 0;
    for (const Header* h = list->first; h != nullptr; h = h->next)
        bytes += KalSizeSMem(h) + uint32_t(sizeof KAL_HEAP_GUARD);
    return static_cast<uint16_t>(bytes);
}

uint16_t KalIsSListGood(slisthd* list) {
    if (list == nullptr)
        return 0;
    const Header* last = nullptr;
    for (const Header* h = list->first; h != nullptr; h = h->next) {
        if (!isNodeSound(h))
            return 0;
        last = h;
    }
    return last == list->last ? 1 : 0;
}
