#include "core/extremes.h"

#include <emmintrin.h>

namespace marlinda {
namespace {

struct Extremes {
  // The two comparisons, and no minimum function, decide what becomes of a NaN.
  void Add(float low, float high) noexcept {
    lowest = low < lowest ? low : lowest;
    highest = high > highest ? high : highest;
  }

  float lowest = kNoLowest;
  float highest = kNoHighest;
};

// Both walks below take `count` records, each `stride` floats behind the one before. Each
// comparison waits for the one before it, so they compare four stretches of the records side by
// side; joined in their order these give what one walk gives. For a few records that does not pay.
constexpr std::size_t kFewRecords = 24;

void Extend(Extremes& extremes, const float* at, std::size_t count, std::size_t stride) noexcept {
  const std::size_t each = count < kFewRecords ? 0 : count / 4;
  const std::size_t apart = each * stride;
  Extremes part[4];
  for (std::size_t i = 0; i < each; ++i, at += stride) {
    part[0].Add(at[0], at[0]);
    part[1].Add(at[apart], at[apart]);
    part[2].Add(at[2 * apart], at[2 * apart]);
    part[3].Add(at[3 * apart], at[3 * apart]);
  }
  for (const Extremes& next : part) extremes.Add(next.lowest, next.highest);
  at += 3 * apart;
  for (std::size_t i = 4 * each; i < count; ++i, at += stride) extremes.Add(at[0], at[0]);
}

__m128 TwoAndTwo(const float* first, const float* second) noexcept {
  const __m128i low = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(first));
  return _mm_loadh_pi(_mm_castsi128_ps(low), reinterpret_cast<const __m64*>(second));
}

// Records of two floats, each with extremes of its own. The instructions return their second
// operand for equal numbers and for a NaN, as Add does.
void ExtendTwo(Extremes (&two)[2], const float* at, std::size_t count,
               std::size_t stride) noexcept {
  const std::size_t each = count < kFewRecords ? 0 : count / 4;
  const std::size_t apart = each * stride;
  __m128 lowest[2] = {_mm_set1_ps(kNoLowest), _mm_set1_ps(kNoLowest)};
  __m128 highest[2] = {_mm_set1_ps(kNoHighest), _mm_set1_ps(kNoHighest)};
  for (std::size_t i = 0; i < each; ++i, at += stride) {
    const __m128 front = TwoAndTwo(at, at + apart);
    const __m128 back = TwoAndTwo(at + 2 * apart, at + 3 * apart);
    lowest[0] = _mm_min_ps(front, lowest[0]);
    highest[0] = _mm_max_ps(front, highest[0]);
    lowest[1] = _mm_min_ps(back, lowest[1]);
    highest[1] = _mm_max_ps(back, highest[1]);
  }
  if (each > 0) {
    float lows[8];
    float highs[8];
    for (std::size_t half = 0; half < 2; ++half) {
      _mm_storeu_ps(lows + 4 * half, lowest[half]);
      _mm_storeu_ps(highs + 4 * half, highest[half]);
    }
    for (std::size_t i = 0; i < 8; ++i) two[i % 2].Add(lows[i], highs[i]);
  }
  at += 3 * apart;
  for (std::size_t i = 4 * each; i < count; ++i, at += stride) {
    two[0].Add(at[0], at[0]);
    two[1].Add(at[1], at[1]);
  }
}

}  // namespace

void ExtendBySamples(std::span<float> pairs, std::span<const float> samples) noexcept {
  const std::size_t channels = pairs.size() / 2;
  const std::size_t frames = samples.size() / channels;
  float* pair = pairs.data();
  std::size_t channel = 0;
  for (; channel + 1 < channels; channel += 2, pair += 4) {
    Extremes two[2] = {{pair[0], pair[1]}, {pair[2], pair[3]}};
    ExtendTwo(two, samples.data() + channel, frames, channels);
    pair[0] = two[0].lowest;
    pair[1] = two[0].highest;
    pair[2] = two[1].lowest;
    pair[3] = two[1].highest;
  }
  if (channel == channels) return;
  Extremes last{pair[0], pair[1]};
  Extend(last, samples.data() + channel, frames, channels);
  pair[0] = last.lowest;
  pair[1] = last.highest;
}

void ExtendByPeaks(std::span<float> pairs, std::span<const float> peaks) noexcept {
  const std::size_t count = peaks.size() / pairs.size();
  for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
    // Of a peak's lowest sample only the lowest counts, and of its highest the highest.
    Extremes two[2];
    two[0].lowest = pairs[i];
    two[1].highest = pairs[i + 1];
    ExtendTwo(two, peaks.data() + i, count, pairs.size());
    pairs[i] = two[0].lowest;
    pairs[i + 1] = two[1].highest;
  }
}

}  // namespace marlinda
