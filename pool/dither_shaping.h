// The vector form of noise shaping. A vector holds two channels, not two samples of one channel,
// because each sample needs the error of the previous one.
//
// `Ops` multiplies, adds and truncates for one instruction level. Each source file defines Ops in
// an unnamed namespace. The linker then cannot merge the template instances of different levels.
#pragma once

#include <emmintrin.h>

#include "pool/dither_kernels.h"

namespace marlinda {

// Three steps differ from ScalarShape but compute the same bits:
// - A product of two floats is exact in double, so fusing it with the addition changes no result.
// - Half a code is added together with the offset. This saves one rounding. The error of that
//   rounding is too small to change the code.
// - code / scale is computed as code * (1 / scale). Rounded to float, both results agree for every
//   code of up to 24 bits and samples below 4.0.
// ScalarShape processes frames with larger samples, NaN or small errors that it sets to 0.
template <class Ops, std::size_t kChannels>
void ShapeChannels(const ShapingSteps& steps, ShapingErrors* errors, float* samples,
                   std::size_t frames) noexcept {
  constexpr std::size_t kPairs = (kChannels + 1) / 2;
  constexpr bool kOdd = kChannels % 2 != 0;
  const __m128d tap0 = _mm_set1_pd(kShapingTaps[0]);
  const __m128d tap1 = _mm_set1_pd(kShapingTaps[1]);
  const __m128d tap2 = _mm_set1_pd(kShapingTaps[2]);
  const __m128d scale = _mm_set1_pd(steps.scale);
  const __m128d offset = _mm_set1_pd(0.5 - steps.offset);
  const __m128d reciprocal = _mm_set1_pd(steps.reciprocal);
  const __m128d lowest = _mm_set1_pd(steps.lowest);
  const __m128 limit = _mm_set1_ps(4.0F);
  const __m128 smallest = _mm_set1_ps(kSmallestShapedError);
  const __m128 sign = _mm_set1_ps(-0.0F);

  __m128 newest[kPairs];
  __m128 second[kPairs];
  __m128 third[kPairs];
  const auto load = [&] {
    for (std::size_t pair = 0; pair < kPairs; ++pair) {
      const ShapingErrors& left = errors[2 * pair];
      const ShapingErrors right =
          kOdd && pair + 1 == kPairs ? ShapingErrors{} : errors[2 * pair + 1];
      newest[pair] = _mm_setr_ps(left.newest, right.newest, 0.0F, 0.0F);
      second[pair] = _mm_setr_ps(left.second, right.second, 0.0F, 0.0F);
      third[pair] = _mm_setr_ps(left.third, right.third, 0.0F, 0.0F);
    }
  };
  const auto store = [&] {
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      float all[3][4];
      _mm_storeu_ps(all[0], newest[channel / 2]);
      _mm_storeu_ps(all[1], second[channel / 2]);
      _mm_storeu_ps(all[2], third[channel / 2]);
      errors[channel] = {all[0][channel % 2], all[1][channel % 2], all[2][channel % 2]};
    }
  };

  load();
  for (; frames > 0; --frames, samples += kChannels) {
    __m128 quantised[kPairs];
    __m128 rest[kPairs];
    int by_definition = 0;
    for (std::size_t pair = 0; pair < kPairs; ++pair) {
      const float* const at = samples + 2 * pair;
      const bool single = kOdd && pair + 1 == kPairs;
      __m128 sample = single
                          ? _mm_load_ss(at)
                          : _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(at)));
      // Adds in the order of ScalarShape. The product with tap1 does not wait for the newest error.
      __m128d shaped = Ops::MultiplyAdd(_mm_cvtps_pd(newest[pair]), tap0,
                                        _mm_mul_pd(_mm_cvtps_pd(second[pair]), tap1));
      shaped = Ops::MultiplyAdd(_mm_cvtps_pd(third[pair]), tap2, shaped);
      sample = _mm_add_ps(sample, _mm_cvtpd_ps(shaped));
      const __m128d code = Ops::Truncate(Ops::MultiplyAdd(_mm_cvtps_pd(sample), scale, offset));
      quantised[pair] = _mm_cvtpd_ps(_mm_add_pd(_mm_mul_pd(code, reciprocal), lowest));
      rest[pair] = _mm_sub_ps(sample, quantised[pair]);
      const __m128 in_range = _mm_cmplt_ps(_mm_andnot_ps(sign, sample), limit);
      const __m128 kept = _mm_or_ps(_mm_cmpge_ps(_mm_andnot_ps(sign, rest[pair]), smallest),
                                    _mm_cmpeq_ps(rest[pair], _mm_setzero_ps()));
      by_definition |= _mm_movemask_ps(_mm_and_ps(in_range, kept)) ^ 0xF;
    }
    if (by_definition != 0) {
      store();
      ScalarShape(steps, errors, samples, 1, kChannels);
      load();
      continue;
    }
    for (std::size_t pair = 0; pair < kPairs; ++pair) {
      float* const at = samples + 2 * pair;
      if (kOdd && pair + 1 == kPairs) {
        _mm_store_ss(at, quantised[pair]);
      } else {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(at), _mm_castps_si128(quantised[pair]));
      }
      third[pair] = second[pair];
      second[pair] = newest[pair];
      newest[pair] = rest[pair];
    }
  }
  store();
}

template <class Ops>
void ShapeWith(const ShapingSteps& steps, ShapingErrors* errors, float* samples, std::size_t frames,
               std::size_t channels) noexcept {
  using Shape = void (*)(const ShapingSteps&, ShapingErrors*, float*, std::size_t);
  static constexpr Shape kShapes[kMaxShapedChannels] = {
      ShapeChannels<Ops, 1>, ShapeChannels<Ops, 2>, ShapeChannels<Ops, 3>, ShapeChannels<Ops, 4>,
      ShapeChannels<Ops, 5>, ShapeChannels<Ops, 6>, ShapeChannels<Ops, 7>, ShapeChannels<Ops, 8>};
  kShapes[channels - 1](steps, errors, samples, frames);
}

}  // namespace marlinda
