// The search for peaks with SSE2.
#include <emmintrin.h>

#include "pool/peak_search.h"

namespace marlinda {
namespace {

struct Ops {
  using Vector = __m128;
  static constexpr std::size_t kLanes = 4;
  static __m128 Fill(float value) noexcept { return _mm_set1_ps(value); }
  static __m128 Load(const float* from) noexcept { return _mm_loadu_ps(from); }
  static void Store(float* to, const __m128& value) noexcept { _mm_storeu_ps(to, value); }
  static __m128 Min(const __m128& a, const __m128& b) noexcept { return _mm_min_ps(a, b); }
  static __m128 Max(const __m128& a, const __m128& b) noexcept { return _mm_max_ps(a, b); }
};

}  // namespace

void Sse2Peaks(const float* samples, std::size_t groups, std::size_t channels,
               PeakRecord* peaks) noexcept {
  SearchPeaks<Ops>(samples, groups, channels, peaks);
}

}  // namespace marlinda
