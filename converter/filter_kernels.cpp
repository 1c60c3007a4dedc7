// The sums of a polyphase filter: the reference and the SSE2 form.
#include "converter/filter_kernels.h"

#include <emmintrin.h>

#include "converter/filter_sum.h"

namespace marlinda {
namespace {

struct ScalarLanes {
  void Add(const float* taps, const float* samples) noexcept {
    for (std::size_t i = 0; i < 8; ++i) sum[i] += taps[i] * samples[i];
  }

  float sum[8] = {};
};

float Sum(const ScalarLanes& left, const ScalarLanes& right) noexcept {
  float pairs[4];
  for (std::size_t i = 0; i < 4; ++i) {
    pairs[i] = (left.sum[i] + right.sum[i]) + (left.sum[i + 4] + right.sum[i + 4]);
  }
  return (pairs[0] + pairs[2]) + (pairs[1] + pairs[3]);
}

struct Sse2Lanes {
  void Add(const float* taps, const float* samples) noexcept {
    low = _mm_add_ps(low, _mm_mul_ps(_mm_load_ps(taps), _mm_loadu_ps(samples)));
    high = _mm_add_ps(high, _mm_mul_ps(_mm_load_ps(taps + 4), _mm_loadu_ps(samples + 4)));
  }

  __m128 low = _mm_setzero_ps();
  __m128 high = _mm_setzero_ps();
};

float Sum(const Sse2Lanes& left, const Sse2Lanes& right) noexcept {
  const __m128 pairs =
      _mm_add_ps(_mm_add_ps(left.low, right.low), _mm_add_ps(left.high, right.high));
  const __m128 two = _mm_add_ps(pairs, _mm_movehl_ps(pairs, pairs));
  return _mm_cvtss_f32(_mm_add_ss(two, _mm_shuffle_ps(two, two, _MM_SHUFFLE(1, 1, 1, 1))));
}

}  // namespace

void ScalarFilter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                  std::size_t channels, float* frame) noexcept {
  FilterFrame<ScalarLanes>(taps, count, samples, stride, channels, frame);
}

void Sse2Filter(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                std::size_t channels, float* frame) noexcept {
  FilterFrame<Sse2Lanes>(taps, count, samples, stride, channels, frame);
}

}  // namespace marlinda
