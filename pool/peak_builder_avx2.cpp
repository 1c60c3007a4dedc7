// Finds the peaks of a group with AVX instructions. The compiler may also use AVX2 here, so call
// the function only on a processor with AVX2.
#include <immintrin.h>

#include "pool/peak_group.h"

namespace marlinda {
namespace {

constexpr std::size_t kLanes = 8;

// For NaN and equal numbers the instructions return their second operand, the old value. So the
// result equals that of comparing one sample after the other. Only the sign of a zero may differ,
// because it depends on the order of comparison.
struct Extremes {
  void Add(const float* at) noexcept {
    const __m256 values = _mm256_loadu_ps(at);
    low = _mm256_min_ps(values, low);
    high = _mm256_max_ps(values, high);
  }
  void Add(const Extremes& other) noexcept {
    low = _mm256_min_ps(other.low, low);
    high = _mm256_max_ps(other.high, high);
  }

  __m256 low = _mm256_set1_ps(kLargestSample);
  __m256 high = _mm256_set1_ps(-kLargestSample);
};

}  // namespace

bool Avx2PeakGroup(const float* samples, std::size_t count, std::size_t channels,
                   float* pairs) noexcept {
  // Runs four searches in parallel, because each step of a search waits for the previous step.
  Extremes first;
  Extremes second;
  Extremes third;
  Extremes fourth;
  for (const float* const end = samples + count; samples < end; samples += 4 * kLanes) {
    first.Add(samples);
    second.Add(samples + kLanes);
    third.Add(samples + 2 * kLanes);
    fourth.Add(samples + 3 * kLanes);
  }
  first.Add(second);
  third.Add(fourth);
  first.Add(third);
  float lows[kLanes];
  float highs[kLanes];
  _mm256_storeu_ps(lows, first.low);
  _mm256_storeu_ps(highs, first.high);
  for (std::size_t channel = 0; channel < channels; ++channel) {
    float lowest = lows[channel];
    float highest = highs[channel];
    for (std::size_t lane = channel + channels; lane < kLanes; lane += channels) {
      lowest = lows[lane] < lowest ? lows[lane] : lowest;
      highest = highs[lane] > highest ? highs[lane] : highest;
    }
    if (lowest == 0.0F || highest == 0.0F) return false;
    pairs[2 * channel] = lowest;
    pairs[2 * channel + 1] = highest;
  }
  return true;
}

}  // namespace marlinda
