// Waveform overview: the lowest and the highest sample of each pixel column and channel, from
// samples or from precomputed peaks.
//
// Columns are (minimum, maximum) pairs, one for each channel, column after column. A piece of the
// document has its own columns 0 to `columns` - 1. The span that takes their pairs may be shorter:
// what lies past it is computed for and dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// value * numerator / denominator, truncated; no overflow on the way, and the largest number where
// the result does not fit. None is negative, the denominator is positive.
std::int64_t Scale(std::int64_t value, std::int64_t numerator, std::int64_t denominator) noexcept;

// The first frame or peak of a column, where `count` of them are spread over `columns` so that the
// i-th belongs to column i * columns / count: column * count / columns, rounded up.
std::int64_t FirstOfColumn(std::int64_t column, std::int64_t columns, std::int64_t count) noexcept;

// The same, column after column, without a division for each. None is negative, `columns` positive.
class ColumnEnds {
 public:
  ColumnEnds(std::int64_t columns, std::int64_t count) noexcept;

  // The first of the next column, which ends this one.
  std::int64_t end() const noexcept { return whole_ + (part_ > 0 ? 1 : 0); }
  void Advance() noexcept;

 private:
  // What a column takes, and the columns for which that is one more.
  std::int64_t each_;
  std::int64_t more_;
  std::int64_t columns_;
  // The end is this many and part_ / columns_, rounded up.
  std::int64_t whole_ = 0;
  std::int64_t part_ = 0;
};

// Fills the columns of a piece from its samples, which come in blocks.
class SampleColumns {
 public:
  // Where every column has a frame, columns start from +1 and -1: deliberate, so a column whose
  // samples all lie above full scale still begins at full scale.
  SampleColumns(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                std::int64_t frames) noexcept;

  // Takes the next samples of the piece, whole frames.
  void Add(std::span<const float> samples) noexcept;

 private:
  void Narrow(std::span<const float> samples, std::int64_t end) noexcept;
  void Repeat(std::span<const float> samples, std::int64_t end) noexcept;

  std::span<float> pairs_;
  std::size_t channels_;
  std::int64_t columns_;
  std::int64_t frames_;
  std::int64_t visible_;
  // The next frame to come, and the column that is being filled.
  std::int64_t frame_ = 0;
  std::int64_t column_ = 0;
  ColumnEnds ends_;
};

// Fills the columns of a piece from its peaks, which come in blocks of pairs.
class PeakColumns {
 public:
  PeakColumns(std::span<float> pairs, std::size_t channels, std::int64_t columns,
              std::int64_t peaks) noexcept;

  // Takes the next peaks of the piece, all channels of each.
  void Add(std::span<const float> peaks) noexcept;

 private:
  void Open(std::int64_t column) noexcept;

  std::span<float> pairs_;
  std::size_t channels_;
  std::int64_t columns_;
  std::int64_t peaks_;
  std::int64_t visible_;
  std::int64_t peak_ = 0;
  std::int64_t column_ = 0;
};

}  // namespace marlinda
