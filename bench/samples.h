// Bytes of the kinds that compress differently. The same seed gives the same ones.
#ifndef KAL_BENCH_SAMPLES_H
#define KAL_BENCH_SAMPLES_H

#include <cstddef>
#include <cstdint>
#include <vector>

// Words of a made-up language in lines, the common ones as common as in a natural one.
std::vector<uint8_t> sampleText(size_t count, uint32_t seed);

// Grey rows of 1,024 pixels: soft shapes under a little noise, as a scanner gives them.
std::vector<uint8_t> samplePicture(size_t count, uint32_t seed);

#endif
