#include "memory/arrivals.h"

#include "memory/vmem_manager.h"

#include <atomic>
#include <bit>

namespace {

std::atomic<uint32_t> passedOverCount;

bool mayGo(const Arrivals* arrivals, uint32_t place) {
    return (arrivals->mayGo[place / 64] >> place % 64 & 1) != 0;
}

void setMayGo(Arrivals* arrivals, uint32_t place) {
    arrivals->mayGo[place / 64] |= uint64_t{1} << place % 64;
    arrivals->mayGoWords[place / 4096] |= uint64_t{1} << place / 64 % 64;
}

void clearMayGo(Arrivals* arrivals, uint32_t place) {
    uint64_t& word = arrivals->mayGo[place / 64];
    word &= ~(uint64_t{1} << place % 64);
    if (word == 0)
        arrivals->mayGoWords[place / 4096] &= ~(uint64_t{1} << place / 64 % 64);
}

// Moves all blocks up to the first places.
void closeRanks(Arrivals* arrivals, Record* const* records) {
    uint32_t end = 0;
    for (uint32_t place = 1; place <= arrivals->end; place++) {
        const uint16_t id = arrivals->ids[place];
        if (id == 0)
            continue;
        const bool may = mayGo(arrivals, place);
        clearMayGo(arrivals, place);
        arrivals->ids[place] = 0;
        arrivals->ids[++end] = id;
        if (may)
            setMayGo(arrivals, end);
        records[id]->place = end;
    }
    arrivals->end = end;
}

} // namespace

void arrive(Arrivals* arrivals, Record* const* records, uint16_t id) {
    if (arrivals->end + 1 == Arrivals::kPlaces)
        closeRanks(arrivals, records);
    const uint32_t place = ++arrivals->end;
    arrivals->ids[place] = id;
    setMayGo(arrivals, place);
    records[id]->place = place;
}

void depart(Arrivals* arrivals, uint32_t place) {
    takeBack(arrivals, place);
    clearMayGo(arrivals, place);
    arrivals->ids[place] = 0;
}

void passOver(Arrivals* arrivals, uint32_t place) {
    clearMayGo(arrivals, place);
    passedOverCount.fetch_add(1, std::memory_order_relaxed);
}

void takeBack(Arrivals* arrivals, uint32_t place) {
    if (mayGo(arrivals, place))
        return;
    setMayGo(arrivals, place);
    passedOverCount.fetch_sub(1, std::memory_order_relaxed);
}

uint32_t passedOver() {
    return passedOverCount.load(std::memory_order_relaxed);
}

uint32_t oldestPlace(const Arrivals* arrivals) {
    for (uint32_t i = 0; i < sizeof arrivals->mayGoWords / sizeof arrivals->mayGoWords[0]; i++)
        if (const uint64_t words = arrivals->mayGoWords[i]; words != 0) {
            const uint32_t word = i * 64 + static_cast<uint32_t>(std::countr_zero(words));
            return word * 64 + static_cast<uint32_t>(std::countr_zero(arrivals->mayGo[word]));
        }
    return 0;
}
