#include "edit/waveplot.h"

#include <algorithm>
#include <limits>

#include "core/frame_math.h"
#include "core/samples/extremes.h"

namespace marlinda {
namespace {

constexpr float kLargest = std::numeric_limits<float>::max();

// Computes FirstOfColumn for consecutive columns without a division for each.
class ColumnEnds {
 public:
  ColumnEnds(std::int64_t columns, std::int64_t count, std::int64_t column) noexcept
      : quotient_(count / columns), remainder_(count % columns), columns_(columns) {
    // column * count = whole_ * columns + part_. The two products that form part_ may wrap, but
    // their difference does not.
    const std::int64_t carried = Scale(column, remainder_, columns);
    const auto unsigned_column = static_cast<std::uint64_t>(column);
    whole_ = static_cast<std::int64_t>(unsigned_column * static_cast<std::uint64_t>(quotient_)) +
             carried;
    part_ = static_cast<std::int64_t>(unsigned_column * static_cast<std::uint64_t>(remainder_) -
                                      static_cast<std::uint64_t>(carried) *
                                          static_cast<std::uint64_t>(columns));
  }

  // Each call returns the end of the next column.
  std::int64_t Next() noexcept {
    whole_ += quotient_;
    const std::int64_t room = columns_ - part_;
    if (remainder_ < room) {
      part_ += remainder_;
    } else {
      part_ = remainder_ - room;
      ++whole_;
    }
    return whole_ + (part_ > 0 ? 1 : 0);
  }

 private:
  std::int64_t quotient_;
  std::int64_t remainder_;
  std::int64_t columns_;
  // The end that Next last returned is whole_ + part_ / columns_, rounded up.
  std::int64_t whole_;
  std::int64_t part_;
};

void FillColumns(std::span<float> pairs, float minimum, float maximum) noexcept {
  for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
    pairs[i] = minimum;
    pairs[i + 1] = maximum;
  }
}

// Draws a piece with more columns than frames: column c shows frame c * frames / columns.
void RepeatSamples(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                   std::int64_t frames, std::int64_t first,
                   std::span<const float> samples) noexcept {
  const auto visible = static_cast<std::int64_t>(pairs.size() / (2 * channels));
  const std::int64_t end = first + static_cast<std::int64_t>(samples.size() / channels);
  // Swaps two arguments, so that FirstOfColumn returns the first column of frame `first`.
  // NOLINTNEXTLINE(readability-suspicious-call-argument)
  for (std::int64_t column = FirstOfColumn(first, frames, columns); column < visible; ++column) {
    const std::int64_t frame = Scale(column, frames, columns);
    if (frame >= end) return;
    for (std::size_t channel = 0; channel < channels; ++channel) {
      const float sample = samples[static_cast<std::size_t>(frame - first) * channels + channel];
      const std::size_t pair = 2 * (static_cast<std::size_t>(column) * channels + channel);
      pairs[pair] = sample;
      pairs[pair + 1] = sample;
    }
  }
}

// Initialises each minimum with the left neighbour's maximum, and each maximum with the neighbour's
// minimum, so that the two columns touch. `own` holds the column's pairs. The neighbour's pairs
// precede `own` in memory.
void LinkToLeft(std::span<float> own) noexcept {
  float* const pairs = own.data();
  const float* const left = pairs - own.size();
  for (std::size_t i = 0; i < own.size(); i += 2) {
    pairs[i] = left[i + 1];
    pairs[i + 1] = left[i];
  }
}

}  // namespace

std::int64_t Scale(std::int64_t value, std::int64_t numerator, std::int64_t denominator) noexcept {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  // For small values, this comparison avoids the division by `numerator` below.
  constexpr std::int64_t kSmall = std::int64_t{1} << 31;
  if (value <= kSmall && numerator <= kSmall) return value * numerator / denominator;
  if (numerator == 0 || value <= kMax / numerator) return value * numerator / denominator;
  // Long division of the wide product, one bit of the numerator at a time. The remainder stays
  // below the denominator, so twice the remainder fits.
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

std::int64_t FirstOfColumn(std::int64_t column, std::int64_t columns, std::int64_t count) noexcept {
  return count - Scale(columns - column, count, columns);
}

void DrawSamples(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                 std::int64_t frames, std::int64_t first, std::span<const float> samples) noexcept {
  if (frames < columns) {
    RepeatSamples(pairs, channels, columns, frames, first, samples);
    return;
  }
  if (first == 0) FillColumns(pairs, 1.0F, -1.0F);
  const std::size_t pair_floats = 2 * channels;
  const auto visible = static_cast<std::int64_t>(pairs.size() / pair_floats);
  const std::int64_t end = first + static_cast<std::int64_t>(samples.size() / channels);
  // Frame s belongs to column s * columns / frames.
  std::int64_t column = Scale(first, columns, frames);
  ColumnEnds ends(columns, frames, column);
  for (std::int64_t frame = first; frame < end && column < visible; ++column) {
    const std::int64_t stop = std::min(end, ends.Next());
    const std::size_t count = static_cast<std::size_t>(stop - frame) * channels;
    ExtendBySamples(pairs.subspan(static_cast<std::size_t>(column) * pair_floats, pair_floats),
                    samples.first(count));
    samples = samples.subspan(count);
    frame = stop;
  }
}

void DrawPeaks(std::span<float> pairs, std::size_t channels, std::int64_t columns,
               std::int64_t count, std::int64_t first, std::span<const float> peaks) noexcept {
  const std::size_t pair_floats = 2 * channels;
  if (first == 0)
    FillColumns(pairs.first(std::min(pairs.size(), pair_floats)), kLargest, -kLargest);
  const auto visible = static_cast<std::int64_t>(pairs.size() / pair_floats);
  const std::int64_t end = first + static_cast<std::int64_t>(peaks.size() / pair_floats);
  for (std::int64_t peak = first; peak < end;) {
    // Peak i belongs to column i * columns / count.
    const std::int64_t column = Scale(peak, columns, count);
    if (column >= visible) return;
    const auto own = pairs.subspan(static_cast<std::size_t>(column) * pair_floats, pair_floats);
    if (column > 0 && peak == FirstOfColumn(column, columns, count)) LinkToLeft(own);
    const std::int64_t stop = std::min(end, FirstOfColumn(column + 1, columns, count));
    const std::size_t floats = static_cast<std::size_t>(stop - peak) * pair_floats;
    ExtendByPeaks(own, peaks.first(floats));
    peaks = peaks.subspan(floats);
    peak = stop;
  }
}

}  // namespace marlinda
