#include "edit/waveplot.h"

#include <emmintrin.h>

#include <algorithm>
#include <limits>

#include "core/frame_math.h"

namespace marlinda {
namespace {

constexpr float kLargest = std::numeric_limits<float>::max();

struct Extremes {
  // The two comparisons, and no minimum function, decide what becomes of a NaN: it is passed over.
  void Add(float low, float high) noexcept {
    lowest = low < lowest ? low : lowest;
    highest = high > highest ? high : highest;
  }

  float lowest = std::numeric_limits<float>::infinity();
  float highest = -std::numeric_limits<float>::infinity();
};

// The walks below compare four stretches of the records side by side, because each comparison
// waits for the one before it. Joined in their order the stretches give what one walk gives, down
// to which of two equal zeros stays.

// Extends `extremes` by `count` floats, each `stride` behind the one before.
void Extend(Extremes& extremes, const float* at, std::size_t count, std::size_t stride) noexcept {
  const std::size_t each = count / 4;
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
  for (std::size_t i = count % 4; i > 0; --i, at += stride) extremes.Add(at[0], at[0]);
}

__m128 TwoAndTwo(const float* first, const float* second) noexcept {
  const __m128i low = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(first));
  return _mm_loadh_pi(_mm_castsi128_ps(low), reinterpret_cast<const __m64*>(second));
}

// Extends `two` by `count` pairs of floats, each `stride` behind the one before. The instructions
// return their second operand for equal numbers and for a NaN, as Add does.
void ExtendTwo(Extremes (&two)[2], const float* at, std::size_t count,
               std::size_t stride) noexcept {
  const std::size_t each = count / 4;
  const std::size_t apart = each * stride;
  __m128 lowest[2] = {_mm_set1_ps(Extremes().lowest), _mm_set1_ps(Extremes().lowest)};
  __m128 highest[2] = {_mm_set1_ps(Extremes().highest), _mm_set1_ps(Extremes().highest)};
  for (std::size_t i = 0; i < each; ++i, at += stride) {
    const __m128 front = TwoAndTwo(at, at + apart);
    const __m128 back = TwoAndTwo(at + 2 * apart, at + 3 * apart);
    lowest[0] = _mm_min_ps(front, lowest[0]);
    highest[0] = _mm_max_ps(front, highest[0]);
    lowest[1] = _mm_min_ps(back, lowest[1]);
    highest[1] = _mm_max_ps(back, highest[1]);
  }
  float lows[8];
  float highs[8];
  for (std::size_t half = 0; half < 2; ++half) {
    _mm_storeu_ps(lows + 4 * half, lowest[half]);
    _mm_storeu_ps(highs + 4 * half, highest[half]);
  }
  for (std::size_t i = 0; i < 8; ++i) two[i % 2].Add(lows[i], highs[i]);
  at += 3 * apart;
  for (std::size_t i = count % 4; i > 0; --i, at += stride) {
    two[0].Add(at[0], at[0]);
    two[1].Add(at[1], at[1]);
  }
}

}  // namespace

std::int64_t Scale(std::int64_t value, std::int64_t numerator, std::int64_t denominator) noexcept {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  if (numerator == 0 || value <= kMax / numerator) return value * numerator / denominator;
  // Long division of the wide product, one bit of the numerator at a time. The remainder stays
  // below the denominator, so its double fits.
  const std::int64_t whole = value / denominator;
  if (whole > kMax / numerator) return kMax;
  const auto divisor = static_cast<std::uint64_t>(denominator);
  const auto step = static_cast<std::uint64_t>(value % denominator);
  std::uint64_t quotient = 0;
  std::uint64_t remainder = 0;
  const auto add = [&](std::uint64_t amount) {
    remainder += amount;
    if (remainder < divisor) return;
    remainder -= divisor;
    ++quotient;
  };
  for (int bit = 62; bit >= 0; --bit) {
    quotient *= 2;
    add(remainder);
    if ((numerator >> bit & 1) != 0) add(step);
  }
  return SaturatingAdd(whole * numerator, static_cast<std::int64_t>(quotient));
}

SampleColumns::SampleColumns(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                             std::int64_t frames) noexcept
    : pairs_(pairs),
      channels_(channels),
      columns_(columns),
      frames_(frames),
      visible_(static_cast<std::int64_t>(pairs.size() / (2 * channels))) {
  if (frames_ < columns_) return;
  for (std::size_t i = 0; i + 1 < pairs_.size(); i += 2) {
    pairs_[i] = 1.0F;
    pairs_[i + 1] = -1.0F;
  }
}

void SampleColumns::Add(std::span<const float> samples) noexcept {
  const std::int64_t end = frame_ + static_cast<std::int64_t>(samples.size() / channels_);
  if (frames_ >= columns_) {
    Narrow(samples, end);
  } else {
    Repeat(samples, end);
  }
  frame_ = end;
}

// At least one frame a column: frame s belongs to column s * columns / frames.
void SampleColumns::Narrow(std::span<const float> samples, std::int64_t end) noexcept {
  std::int64_t frame = frame_;
  const float* sample = samples.data();
  while (frame < end && column_ < visible_) {
    const std::int64_t next_column = FirstFrame(column_ + 1);
    const std::int64_t stop = std::min(end, next_column);
    float* const pairs = &pairs_[static_cast<std::size_t>(column_) * 2 * channels_];
    const auto count = static_cast<std::size_t>(stop - frame);
    std::size_t channel = 0;
    for (; channel + 1 < channels_; channel += 2) {
      float* const pair = pairs + 2 * channel;
      Extremes two[2] = {{pair[0], pair[1]}, {pair[2], pair[3]}};
      ExtendTwo(two, sample + channel, count, channels_);
      pair[0] = two[0].lowest;
      pair[1] = two[0].highest;
      pair[2] = two[1].lowest;
      pair[3] = two[1].highest;
    }
    if (channel < channels_) {
      float* const pair = pairs + 2 * channel;
      Extremes one{pair[0], pair[1]};
      Extend(one, sample + channel, count, channels_);
      pair[0] = one.lowest;
      pair[1] = one.highest;
    }
    sample += static_cast<std::size_t>(stop - frame) * channels_;
    frame = stop;
    if (frame == next_column) ++column_;
  }
}

// More columns than frames: column c shows frame c * frames / columns.
void SampleColumns::Repeat(std::span<const float> samples, std::int64_t end) noexcept {
  for (; column_ < visible_; ++column_) {
    const std::int64_t frame = Scale(column_, frames_, columns_);
    if (frame >= end) return;
    for (std::size_t channel = 0; channel < channels_; ++channel) {
      const float sample = samples[static_cast<std::size_t>(frame - frame_) * channels_ + channel];
      const std::size_t pair = 2 * (static_cast<std::size_t>(column_) * channels_ + channel);
      pairs_[pair] = sample;
      pairs_[pair + 1] = sample;
    }
  }
}

// The quotient column * frames / columns rounded up.
std::int64_t SampleColumns::FirstFrame(std::int64_t column) const noexcept {
  return frames_ - Scale(columns_ - column, frames_, columns_);
}

PeakColumns::PeakColumns(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                         std::int64_t peaks) noexcept
    : pairs_(pairs),
      channels_(channels),
      columns_(columns),
      peaks_(peaks),
      visible_(static_cast<std::int64_t>(pairs.size() / (2 * channels))) {
  if (visible_ == 0) return;
  for (std::size_t channel = 0; channel < channels_; ++channel) {
    pairs_[2 * channel] = kLargest;
    pairs_[2 * channel + 1] = -kLargest;
  }
}

// Peak i belongs to column i * columns / peaks.
void PeakColumns::Add(std::span<const float> peaks) noexcept {
  const std::int64_t end = peak_ + static_cast<std::int64_t>(peaks.size() / (2 * channels_));
  const float* peak = peaks.data();
  while (peak_ < end) {
    const std::int64_t column = Scale(peak_, columns_, peaks_);
    if (column >= visible_) break;
    if (column > column_) Open(column);
    // The first peak of the next column that has one.
    const std::int64_t next = peaks_ - Scale(columns_ - column - 1, peaks_, columns_);
    const std::int64_t stop = std::min(end, next);
    float* const pairs = &pairs_[static_cast<std::size_t>(column) * 2 * channels_];
    for (std::size_t channel = 0; channel < channels_; ++channel) {
      float* const pair = pairs + 2 * channel;
      Extremes two[2];
      two[0].lowest = pair[0];
      two[1].highest = pair[1];
      ExtendTwo(two, peak + 2 * channel, static_cast<std::size_t>(stop - peak_), 2 * channels_);
      pair[0] = two[0].lowest;
      pair[1] = two[1].highest;
    }
    peak += static_cast<std::size_t>(stop - peak_) * 2 * channels_;
    peak_ = stop;
  }
  peak_ = end;
}

// A column starts from its left neighbour with minimum and maximum exchanged. Deliberate: it links
// the two, so that the drawn waveform has no gap between them. With fewer peaks than columns the
// neighbour may be one that nothing was written to; it then counts as the host left it.
void PeakColumns::Open(std::int64_t column) noexcept {
  float* const pairs = &pairs_[static_cast<std::size_t>(column) * 2 * channels_];
  const float* const left = pairs - 2 * channels_;
  for (std::size_t channel = 0; channel < channels_; ++channel) {
    pairs[2 * channel] = left[2 * channel + 1];
    pairs[2 * channel + 1] = left[2 * channel];
  }
  column_ = column;
}

}  // namespace marlinda
