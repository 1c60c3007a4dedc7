// The AVX form of the search for the peaks of a group. Only peak_builder.cpp calls it. A file that
// is compiled for AVX2 includes this header, so it defines nothing inline.
#pragma once

#include <cstddef>
#include <limits>

namespace marlinda {

inline constexpr float kLargestSample = std::numeric_limits<float>::max();

// Writes the pair (minimum, maximum) of each channel of `count` samples, a multiple of 32, of 1, 2,
// 4 or 8 channels. False if a zero is among the results: its sign depends on the order of samples.
bool Avx2PeakGroup(const float* samples, std::size_t count, std::size_t channels,
                   float* pairs) noexcept;

}  // namespace marlinda
