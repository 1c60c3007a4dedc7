// The search for peaks with AVX. Compiled for AVX2, so nothing else must call what is defined here
// but through the dispatch.
#include <immintrin.h>

#include "pool/peak_search.h"

namespace marlinda {
namespace {

struct Ops {
  using Vector = __m256;
  static constexpr std::size_t kLanes = 8;
  static __m256 Fill(float value) noexcept { return _mm256_set1_ps(value); }
  static __m256 Load(const float* from) noexcept { return _mm256_loadu_ps(from); }
  static void Store(float* to, const __m256& value) noexcept { _mm256_storeu_ps(to, value); }
  static __m256 Min(const __m256& a, const __m256& b) noexcept { return _mm256_min_ps(a, b); }
  static __m256 Max(const __m256& a, const __m256& b) noexcept { return _mm256_max_ps(a, b); }
};

}  // namespace

void Avx2Peaks(const float* samples, std::size_t groups, std::size_t channels,
               PeakRecord* peaks) noexcept {
  SearchPeaks<Ops>(samples, groups, channels, peaks);
}

}  // namespace marlinda
