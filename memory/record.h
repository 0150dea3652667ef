// A record that callers see is the beginning of a larger one, which ends with what only the library knows:
//
//     struct Whole {
//         vfile shown;
//         uint32_t more;
//     };
//
// Callers hold the shown part; these two lead from one to the other.
#ifndef KAL_MEMORY_RECORD_H
#define KAL_MEMORY_RECORD_H

#include <cstddef>

template <class Whole, class Shown>
Whole* wholeOf(Shown* shown) {
    static_assert(offsetof(Whole, shown) == 0);
    return reinterpret_cast<Whole*>(shown);
}

template <class Whole>
auto* shownOf(Whole* whole) {
    static_assert(offsetof(Whole, shown) == 0);
    return &whole->shown;
}

#endif
