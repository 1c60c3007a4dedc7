// The sums of a polyphase filter for each instruction level. This header defines no inline
// functions, because the linker could choose a copy that is compiled for AVX2.
#pragma once

#include <cstddef>

namespace marlinda {

// Every tap count is a multiple of this.
inline constexpr std::size_t kTapsPerStep = 16;

// Computes one output frame: for each channel, the sum of taps[i] * samples[i]. The samples of the
// next channel begin `stride` floats later. `taps` must be aligned to 32 bytes.
using FilterKernel = void (*)(const float* taps, std::size_t count, const float* samples,
                              std::size_t stride, std::size_t channels, float* frame);

// The scalar form, which defines the results.
void ScalarFilter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                  std::size_t channels, float* frame) noexcept;
// Sse2Filter and Avx2Filter compute the same bits as ScalarFilter.
void Sse2Filter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                std::size_t channels, float* frame) noexcept;
void Avx2Filter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                std::size_t channels, float* frame) noexcept;

}  // namespace marlinda
