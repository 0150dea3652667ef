// Things made side by side and used in their order.
#ifndef KAL_TOOLS_IN_ORDER_H
#define KAL_TOOLS_IN_ORDER_H

#include "tools/interrupt.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <future>

// Calls `make(first, end)` for one range of 0 to `count` after another, in up to `jobs` threads at a time, and `use` with
// what each gives, in this thread. The first of them that throws ends it.
template <class Make, class Use>
void inOrder(size_t count, size_t jobs, Make make, Use use) {
    const size_t step = std::clamp<size_t>(count / (4 * jobs), 1, 64);
    std::deque<std::future<decltype(make(count, count))>> made;
    for (size_t next = 0; next < count || !made.empty();) {
        for (; next < count && made.size() < jobs; next += step)
            made.push_back(std::async(std::launch::async, make, next, std::min(count, next + step)));
        while (made.front().wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
            throwIfInterrupted();
        use(made.front().get());
        made.pop_front();
    }
}

#endif
