// The blocks in memory in the order in which they came in: a row of places with the block's id in each, and one bit a
// place that says whether the block may be swapped out as far as is known. A locked block that was met on the way to
// the oldest is passed over: its bit is taken away until it is unlocked, so that nobody looks at it again.
#ifndef KAL_MEMORY_ARRIVALS_H
#define KAL_MEMORY_ARRIVALS_H

#include <cstdint>

struct Record;

struct Arrivals {
    static constexpr uint32_t kPlaces = 0x20000; // twice as many as ids, so that ranks are seldom closed
    uint16_t ids[kPlaces];                       // 0 where the block has left; place 0 is nobody's
    uint64_t mayGo[kPlaces / 64];
    uint64_t mayGoWords[kPlaces / 64 / 64]; // a bit for each word of `mayGo` that is not 0
    uint32_t end;                           // the last place taken
};

// Gives a block the last place, which its record keeps.
void arrive(Arrivals* arrivals, Record* const* records, uint16_t id);

// Takes a block out.
void depart(Arrivals* arrivals, uint32_t place);

// The block in a place is locked, or unlocked again.
void passOver(Arrivals* arrivals, uint32_t place);
void takeBack(Arrivals* arrivals, uint32_t place);

// The blocks of the whole process that are passed over.
uint32_t passedOver();

// The place of the oldest block that is not passed over, or 0.
uint32_t oldestPlace(const Arrivals* arrivals);

#endif
