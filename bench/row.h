// A benchmark is one cell of the table that scripts/bench prints. Its name tells the row and who does the work
// there: "kal", "limit" (the bare machine doing what cannot be left out) or the peer's name.
#ifndef KAL_BENCH_ROW_H
#define KAL_BENCH_ROW_H

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

template <class Work>
benchmark::internal::Benchmark* cell(const std::string& row, const char* who, Work work) {
    return benchmark::RegisterBenchmark((row + ": " + who).c_str(), work)->Unit(benchmark::kMillisecond);
}

inline void check(bool held) {
    if (!held)
        std::abort();
}

#endif
