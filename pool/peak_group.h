// The AVX search for the peaks of a group. Only peak_builder.cpp calls it. This header defines no
// inline functions, because the linker could choose a copy that is compiled for AVX2.
#pragma once

#include <cstddef>
#include <limits>

namespace marlinda {

inline constexpr float kLargestSample = std::numeric_limits<float>::max();

// Writes the pair (minimum, maximum) of each channel. `count` is a multiple of 32, `channels` 1, 2,
// 4 or 8. Returns false if a result is zero, because its sign depends on the order of the samples.
bool Avx2PeakGroup(const float* samples, std::size_t count, std::size_t channels,
                   float* pairs) noexcept;

}  // namespace marlinda
