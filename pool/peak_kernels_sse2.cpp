// The search for peaks with SSE2.
#include <emmintrin.h>

#include "pool/peak_kernels.h"

namespace marlinda {
namespace {

constexpr std::size_t kLanes = 4;

// Minima and maxima lane by lane. A comparison with NaN takes its second operand, the value so far:
// NaN never counts, nor does a sample that is merely equal. kPeriod vectors hold whole frames, so
// that a lane of each always belongs to one channel; kUnroll of them are searched side by side,
// because each step waits for the one before it.
template <std::size_t kPeriod, std::size_t kUnroll>
PeakLanes SearchGroup(const float* sample, std::size_t channels) noexcept {
  constexpr std::size_t kVectors = kPeriod * kUnroll;
  __m128 low[kVectors];
  __m128 high[kVectors];
  for (std::size_t i = 0; i < kVectors; ++i) {
    low[i] = _mm_set1_ps(kLargestSample);
    high[i] = _mm_set1_ps(-kLargestSample);
  }
  const float* const end = sample + kFramesPerPeak * channels;
  for (; sample < end; sample += kVectors * kLanes) {
    for (std::size_t i = 0; i < kVectors; ++i) {
      const __m128 value = _mm_loadu_ps(sample + i * kLanes);
      low[i] = _mm_min_ps(value, low[i]);
      high[i] = _mm_max_ps(value, high[i]);
    }
  }
  PeakLanes lanes;
  lanes.count = kPeriod * kLanes;
  for (std::size_t i = 0; i < kPeriod; ++i) {
    for (std::size_t other = i + kPeriod; other < kVectors; other += kPeriod) {
      low[i] = _mm_min_ps(low[other], low[i]);
      high[i] = _mm_max_ps(high[other], high[i]);
    }
    _mm_storeu_ps(lanes.lowest + i * kLanes, low[i]);
    _mm_storeu_ps(lanes.highest + i * kLanes, high[i]);
  }
  return lanes;
}

using Search = PeakLanes (*)(const float* group, std::size_t channels);

// The period is the channel count without the factors that it shares with the lane count.
Search SearchFor(std::size_t channels) noexcept {
  switch (channels) {
    case 3:
    case 6:
      return SearchGroup<3, 1>;
    case 5:
      return SearchGroup<5, 1>;
    case 7:
      return SearchGroup<7, 1>;
    case 8:
      return SearchGroup<2, 2>;
    default:
      return SearchGroup<1, 4>;
  }
}

}  // namespace

void Sse2Peaks(const float* samples, std::size_t groups, std::size_t channels,
               PeakRecord* peaks) noexcept {
  const Search search = SearchFor(channels);
  for (; groups > 0; --groups, samples += kFramesPerPeak * channels, peaks += channels) {
    FoldPeakLanes(search(samples, channels), samples, channels, peaks);
  }
}

}  // namespace marlinda
