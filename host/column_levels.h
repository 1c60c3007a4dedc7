// ColumnLevels: minimum, maximum and root mean square for each column of a picture.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/samples/extremes.h"

namespace marlinda {

// Divides `frames` evenly among `columns`. A column without frames is silent.
class ColumnLevels {
 public:
  ColumnLevels(std::int64_t frames, std::size_t columns, std::size_t channels, bool rms)
      : frames_(frames),
        columns_(static_cast<std::int64_t>(columns)),
        channels_(channels),
        pairs_(2 * columns * channels),
        squares_(rms ? columns * channels : 0) {}

  // Adds the next whole frames. Frames beyond the last column are ignored.
  void Add(std::span<const float> samples) {
    while (samples.size() >= channels_ && position_ < frames_) {
      const std::int64_t column = position_ * columns_ / frames_;
      const std::int64_t left = BeginOf(column + 1) - position_;
      const auto count = std::min(static_cast<std::size_t>(left), samples.size() / channels_);
      AddTo(static_cast<std::size_t>(column), samples.first(count * channels_));
      samples = samples.subspan(count * channels_);
      position_ += static_cast<std::int64_t>(count);
    }
  }

  // One (minimum, maximum) pair for each channel of each column.
  std::span<const float> pairs() const { return pairs_; }
  // One root mean square for each channel of each column. Empty if `rms` was false.
  std::vector<float> RootMeanSquares() const {
    std::vector<float> result(squares_.size());
    for (std::size_t i = 0; i < result.size(); ++i) {
      const auto column = static_cast<std::int64_t>(i / channels_);
      const std::int64_t count = BeginOf(column + 1) - BeginOf(column);
      result[i] = static_cast<float>(
          std::sqrt(squares_[i] / static_cast<double>(std::max<std::int64_t>(count, 1))));
    }
    return result;
  }

 private:
  // The first frame that belongs to the column.
  std::int64_t BeginOf(std::int64_t column) const {
    return (column * frames_ + columns_ - 1) / columns_;
  }
  void AddTo(std::size_t column, std::span<const float> samples) {
    const auto pairs = std::span(pairs_).subspan(2 * column * channels_, 2 * channels_);
    if (position_ == BeginOf(static_cast<std::int64_t>(column))) {
      for (std::size_t i = 0; i < pairs.size(); ++i) pairs[i] = samples[i / 2];
    }
    ExtendBySamples(pairs, samples);
    if (squares_.empty()) return;
    for (std::size_t channel = 0; channel < channels_; ++channel) {
      double& sum = squares_[column * channels_ + channel];
      for (std::size_t i = channel; i < samples.size(); i += channels_) {
        sum += double{samples[i]} * samples[i];
      }
    }
  }

  const std::int64_t frames_;
  const std::int64_t columns_;
  const std::size_t channels_;
  std::int64_t position_ = 0;
  std::vector<float> pairs_;
  std::vector<double> squares_;
};

}  // namespace marlinda
