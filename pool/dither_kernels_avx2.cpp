// Noise shaping with FMA. Compiled for AVX2: call its function only on a processor with AVX2.
#include <immintrin.h>

#include "pool/dither_shaping.h"

namespace marlinda {
namespace {

struct Ops {
  static __m128d MultiplyAdd(__m128d a, __m128d b, __m128d sum) noexcept {
    return _mm_fmadd_pd(a, b, sum);
  }
  static __m128d Truncate(__m128d value) noexcept {
    return _mm_round_pd(value, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  }
};

}  // namespace

void Avx2Shape(const ShapingSteps& steps, ShapingErrors* errors, float* samples, std::size_t frames,
               std::size_t channels) noexcept {
  ShapeWith<Ops>(steps, errors, samples, frames, channels);
}

}  // namespace marlinda
