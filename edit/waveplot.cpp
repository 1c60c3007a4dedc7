#include "edit/waveplot.h"

#include <algorithm>
#include <limits>

#include "core/frame_math.h"
#include "core/samples/extremes.h"

namespace marlinda {
namespace {

constexpr float kLargest = std::numeric_limits<float>::max();

}  // namespace

std::int64_t Scale(std::int64_t value, std::int64_t numerator, std::int64_t denominator) noexcept {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  // Almost always so, and a comparison costs less than the division below.
  constexpr std::int64_t kSmall = std::int64_t{1} << 31;
  if (value <= kSmall && numerator <= kSmall) return value * numerator / denominator;
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

std::int64_t FirstOfColumn(std::int64_t column, std::int64_t columns, std::int64_t count) noexcept {
  return count - Scale(columns - column, count, columns);
}

ColumnEnds::ColumnEnds(std::int64_t columns, std::int64_t count) noexcept
    : each_(count / columns), more_(count % columns), columns_(columns) {
  Advance();
}

void ColumnEnds::Advance() noexcept {
  whole_ += each_;
  const std::int64_t room = columns_ - part_;
  if (more_ < room) {
    part_ += more_;
  } else {
    part_ = more_ - room;
    ++whole_;
  }
}

SampleColumns::SampleColumns(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                             std::int64_t frames) noexcept
    : pairs_(pairs),
      channels_(channels),
      columns_(columns),
      frames_(frames),
      visible_(static_cast<std::int64_t>(pairs.size() / (2 * channels))),
      ends_(columns, frames) {
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
  const std::size_t pair_floats = 2 * channels_;
  std::int64_t frame = frame_;
  while (frame < end && column_ < visible_) {
    const std::int64_t stop = std::min(end, ends_.end());
    const std::size_t count = static_cast<std::size_t>(stop - frame) * channels_;
    ExtendBySamples(pairs_.subspan(static_cast<std::size_t>(column_) * pair_floats, pair_floats),
                    samples.first(count));
    samples = samples.subspan(count);
    frame = stop;
    if (frame < ends_.end()) break;
    ends_.Advance();
    ++column_;
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
  const std::size_t pair_floats = 2 * channels_;
  const std::int64_t end = peak_ + static_cast<std::int64_t>(peaks.size() / pair_floats);
  while (peak_ < end) {
    const std::int64_t column = Scale(peak_, columns_, peaks_);
    if (column >= visible_) break;
    if (column > column_) Open(column);
    // The first peak of the next column that has one.
    const std::int64_t stop = std::min(end, FirstOfColumn(column + 1, columns_, peaks_));
    const std::size_t count = static_cast<std::size_t>(stop - peak_) * pair_floats;
    ExtendByPeaks(pairs_.subspan(static_cast<std::size_t>(column) * pair_floats, pair_floats),
                  peaks.first(count));
    peaks = peaks.subspan(count);
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
