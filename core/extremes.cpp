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

__m128 Two(const float* at) noexcept {
  return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(at)));
}

__m128 TwoAndTwo(const float* first, const float* second) noexcept {
  return _mm_loadh_pi(Two(first), reinterpret_cast<const __m64*>(second));
}

// Extremes of two floats side by side, in the lower half. The instructions return their second
// operand for equal numbers and for a NaN, as Add does.
struct TwoExtremes {
  void Add(__m128 low, __m128 high) noexcept {
    lowest = _mm_min_ps(low, lowest);
    highest = _mm_max_ps(high, highest);
  }
  // First the lower halves, then the upper ones.
  void AddBoth(const TwoExtremes& other) noexcept {
    Add(other.lowest, other.highest);
    Add(_mm_movehl_ps(other.lowest, other.lowest), _mm_movehl_ps(other.highest, other.highest));
  }

  __m128 lowest = _mm_set1_ps(kNoLowest);
  __m128 highest = _mm_set1_ps(kNoHighest);
};

// Records of two floats, each with extremes of its own.
TwoExtremes Extended(TwoExtremes extremes, const float* at, std::size_t count,
                     std::size_t stride) noexcept {
  const std::size_t each = count < kFewRecords ? 0 : count / 4;
  if (each > 0) {
    const std::size_t apart = each * stride;
    TwoExtremes front;
    TwoExtremes back;
    for (std::size_t i = 0; i < each; ++i, at += stride) {
      const __m128 first = TwoAndTwo(at, at + apart);
      const __m128 second = TwoAndTwo(at + 2 * apart, at + 3 * apart);
      front.Add(first, first);
      back.Add(second, second);
    }
    extremes.AddBoth(front);
    extremes.AddBoth(back);
    at += 3 * apart;
  }
  for (std::size_t i = 4 * each; i < count; ++i, at += stride) extremes.Add(Two(at), Two(at));
  return extremes;
}

}  // namespace

void ExtendBySamples(std::span<float> pairs, std::span<const float> samples) noexcept {
  const std::size_t channels = pairs.size() / 2;
  const std::size_t frames = samples.size() / channels;
  float* pair = pairs.data();
  std::size_t channel = 0;
  for (; channel + 1 < channels; channel += 2, pair += 4) {
    const TwoExtremes two =
        Extended({_mm_setr_ps(pair[0], pair[2], 0, 0), _mm_setr_ps(pair[1], pair[3], 0, 0)},
                 samples.data() + channel, frames, channels);
    _mm_storeu_ps(pair, _mm_unpacklo_ps(two.lowest, two.highest));
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
    const TwoExtremes two = Extended({_mm_set1_ps(pairs[i]), _mm_set1_ps(pairs[i + 1])},
                                     peaks.data() + i, count, pairs.size());
    pairs[i] = _mm_cvtss_f32(two.lowest);
    pairs[i + 1] = _mm_cvtss_f32(_mm_shuffle_ps(two.highest, two.highest, 1));
  }
}

}  // namespace marlinda
