// The sums of a polyphase filter, for each level of vector instructions. Only polyphase_filter.cpp
// calls them. A file that is compiled for AVX2 includes this header, so it defines nothing inline.
#pragma once

#include <cstddef>

namespace marlinda {

// Counts of taps are multiples of this.
inline constexpr std::size_t kTapsPerStep = 16;

// One output frame: for each channel the sum of taps[i] * samples[i]. `samples` of the next channel
// lie `stride` floats further on. Taps are aligned to 32 bytes.
using FilterKernel = void (*)(const float* taps, std::size_t count, const float* samples,
                              std::size_t stride, std::size_t channels, float* frame);

// The definition of the result.
void ScalarFilter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                  std::size_t channels, float* frame) noexcept;
// The same results, faster.
void Sse2Filter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                std::size_t channels, float* frame) noexcept;
void Avx2Filter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                std::size_t channels, float* frame) noexcept;

}  // namespace marlinda
