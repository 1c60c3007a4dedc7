#include "core/samples/extremes.h"

#include <emmintrin.h>

namespace marlinda {
namespace {

// A record has one sample, or one peak (lowest, highest), for each channel. The enumerator's value
// is the offset, in floats, of the highest from the lowest. For a sample it is 0.
enum class Kind : std::size_t { kSamples = 0, kPeaks = 1 };

struct Extremes {
  // Comparisons with NaN are false, so NaN replaces no value.
  void Add(float low, float high) noexcept {
    lowest = low < lowest ? low : lowest;
    highest = high > highest ? high : highest;
  }

  float lowest = kNoLowest;
  float highest = kNoHighest;
};

// From this record count on, Extend searches four parts in parallel.
constexpr std::size_t kFewRecords = 24;

// The scalar form. Extends one channel's pair by `count` records, each `stride` floats after the
// previous one. Each comparison of a search waits for the previous one, so four parts are searched
// in parallel. Joining the parts in order gives the result of a single search.
void Extend(float* pair, const float* at, std::size_t count, std::size_t stride,
            Kind kind) noexcept {
  const auto high = static_cast<std::size_t>(kind);
  const std::size_t each = count < kFewRecords ? 0 : count / 4;
  const std::size_t apart = each * stride;
  Extremes part[4];
  for (std::size_t i = 0; i < each; ++i, at += stride) {
    part[0].Add(at[0], at[high]);
    part[1].Add(at[apart], at[apart + high]);
    part[2].Add(at[2 * apart], at[2 * apart + high]);
    part[3].Add(at[3 * apart], at[3 * apart + high]);
  }
  Extremes all{pair[0], pair[1]};
  for (const Extremes& next : part) all.Add(next.lowest, next.highest);
  at += 3 * apart;
  for (std::size_t i = 4 * each; i < count; ++i, at += stride) all.Add(at[0], at[high]);
  pair[0] = all.lowest;
  pair[1] = all.highest;
}

// The extremes of four lanes of contiguous floats. For NaN and equal numbers the instructions
// return the old value, which is their second operand. Extremes::Add keeps the old value too.
struct FourExtremes {
  void Add(__m128 low, __m128 high) noexcept {
    lowest = _mm_min_ps(low, lowest);
    highest = _mm_max_ps(high, highest);
  }
  void Add(const float* at) noexcept {
    const __m128 values = _mm_loadu_ps(at);
    Add(values, values);
  }
  void Add(const FourExtremes& other) noexcept { Add(other.lowest, other.highest); }

  __m128 lowest = _mm_set1_ps(kNoLowest);
  __m128 highest = _mm_set1_ps(kNoHighest);
};

// Searches four or more floats, in records of 1, 2 or 4 floats. Lane i of the result holds extremes
// of float number i % s of the records, where s is the record size.
FourExtremes Search(std::span<const float> records) noexcept {
  const float* at = records.data();
  const float* const end = at + records.size();
  FourExtremes first;
  FourExtremes second;
  FourExtremes third;
  FourExtremes fourth;
  for (; end - at >= 16; at += 16) {
    first.Add(at);
    second.Add(at + 4);
    third.Add(at + 8);
    fourth.Add(at + 12);
  }
  for (; end - at >= 4; at += 4) first.Add(at);
  // Searches the last four floats, some of them again. Repeated floats change no extreme.
  if (at < end) first.Add(end - 4);
  first.Add(second);
  third.Add(fourth);
  first.Add(third);
  return first;
}

bool HasNegativeZero(std::span<const float> values) noexcept {
  const __m128i negative_zero = _mm_set1_epi32(static_cast<int>(0x80000000U));
  __m128i found = _mm_setzero_si128();
  const auto look = [&](const float* at) {
    const __m128i four = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    found = _mm_or_si128(found, _mm_cmpeq_epi32(four, negative_zero));
  };
  std::size_t i = 0;
  for (; i + 4 <= values.size(); i += 4) look(&values[i]);
  if (i < values.size()) look(&values[values.size() - 4]);
  return _mm_movemask_epi8(found) != 0;
}

// Extends the pairs by one Search over all channels. Returns false and changes nothing if Search
// does not accept the records, or if an extreme is zero and the records contain -0.0. Of 0.0 and
// -0.0, the first in the records must win, but Search compares the floats in another order.
bool ExtendSideBySide(std::span<float> pairs, std::span<const float> records, std::size_t size,
                      Kind kind) noexcept {
  if (size > 4 || 4 % size != 0 || records.size() < 4) return false;
  FourExtremes found = Search(records);
  const auto fold = [&found](auto shuffled) {
    found.Add(shuffled(found.lowest), shuffled(found.highest));
  };
  if (size < 4) fold([](__m128 v) { return _mm_movehl_ps(v, v); });
  if (size < 2) fold([](__m128 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 1, 1, 1)); });

  const __m128 zero = _mm_setzero_ps();
  const __m128 zeros =
      _mm_or_ps(_mm_cmpeq_ps(found.lowest, zero), _mm_cmpeq_ps(found.highest, zero));
  if (_mm_movemask_ps(zeros) != 0 && HasNegativeZero(records)) return false;

  float lowest[4];
  float highest[4];
  _mm_storeu_ps(lowest, found.lowest);
  _mm_storeu_ps(highest, found.highest);
  const std::size_t step = kind == Kind::kPeaks ? 2 : 1;
  for (std::size_t i = 0; 2 * i < pairs.size(); ++i) {
    Extremes all{pairs[2 * i], pairs[2 * i + 1]};
    all.Add(lowest[i * step], highest[i * step + static_cast<std::size_t>(kind)]);
    pairs[2 * i] = all.lowest;
    pairs[2 * i + 1] = all.highest;
  }
  return true;
}

}  // namespace

void ExtendBySamples(std::span<float> pairs, std::span<const float> samples) noexcept {
  const std::size_t channels = pairs.size() / 2;
  if (ExtendSideBySide(pairs, samples, channels, Kind::kSamples)) return;
  for (std::size_t channel = 0; channel < channels; ++channel) {
    Extend(&pairs[2 * channel], samples.data() + channel, samples.size() / channels, channels,
           Kind::kSamples);
  }
}

void ExtendByPeaks(std::span<float> pairs, std::span<const float> peaks) noexcept {
  if (ExtendSideBySide(pairs, peaks, pairs.size(), Kind::kPeaks)) return;
  for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
    Extend(&pairs[i], peaks.data() + i, peaks.size() / pairs.size(), pairs.size(), Kind::kPeaks);
  }
}

}  // namespace marlinda
