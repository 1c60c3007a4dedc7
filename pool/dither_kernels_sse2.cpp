// Noise shaping with SSE2.
#include "pool/dither_shaping.h"

namespace marlinda {
namespace {

struct Ops {
  static __m128d MultiplyAdd(__m128d a, __m128d b, __m128d sum) noexcept {
    return _mm_add_pd(_mm_mul_pd(a, b), sum);
  }
  // Requires values that fit in 32 bits.
  static __m128d Truncate(__m128d value) noexcept {
    return _mm_cvtepi32_pd(_mm_cvttpd_epi32(value));
  }
};

}  // namespace

void Sse2Shape(const ShapingSteps& steps, ShapingErrors* errors, float* samples, std::size_t frames,
               std::size_t channels) noexcept {
  ShapeWith<Ops>(steps, errors, samples, frames, channels);
}

}  // namespace marlinda
