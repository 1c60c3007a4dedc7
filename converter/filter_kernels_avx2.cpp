// The sums of a polyphase filter with AVX2. This file is compiled for AVX2. Call its function only
// on a processor with AVX2.
#include <immintrin.h>

#include "converter/filter_sum.h"

namespace marlinda {
namespace {

struct Lanes {
  // Multiplies and adds separately. A fused operation rounds only once, so its results would differ
  // from those of the other forms.
  void Add(const float* taps, const float* samples) noexcept {
    sum = _mm256_add_ps(sum, _mm256_mul_ps(_mm256_load_ps(taps), _mm256_loadu_ps(samples)));
  }

  __m256 sum = _mm256_setzero_ps();
};

float Sum(const Lanes& left, const Lanes& right) noexcept {
  const __m256 both = _mm256_add_ps(left.sum, right.sum);
  const __m128 pairs = _mm_add_ps(_mm256_castps256_ps128(both), _mm256_extractf128_ps(both, 1));
  const __m128 two = _mm_add_ps(pairs, _mm_movehl_ps(pairs, pairs));
  return _mm_cvtss_f32(_mm_add_ss(two, _mm_shuffle_ps(two, two, _MM_SHUFFLE(1, 1, 1, 1))));
}

}  // namespace

void Avx2Filter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                std::size_t channels, float* frame) noexcept {
  FilterFrame<Lanes>(taps, count, samples, stride, channels, frame);
}

}  // namespace marlinda
