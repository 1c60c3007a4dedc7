// The overview by the rules, as plain loops over frames and peaks: the reference for the kernel and
// for documents. A piece is drawn into the columns from `first` on, `n` of them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace marlinda::testing {

class PlainOverview {
 public:
  PlainOverview(std::vector<float>& pairs, std::int64_t channels)
      : pairs_(pairs), channels_(channels) {}

  void Samples(std::int64_t first, std::int64_t n, const float* samples, std::int64_t frames) {
    for (std::int64_t channel = 0; channel < channels_; ++channel) {
      const auto sample = [&](std::int64_t frame) { return samples[frame * channels_ + channel]; };
      for (std::int64_t column = 0; column < n; ++column) {
        const bool repeated = frames < n;
        Set(first + column, channel, repeated ? sample(column * frames / n) : 1.0F,
            repeated ? sample(column * frames / n) : -1.0F);
      }
      for (std::int64_t s = 0; s < frames && frames >= n; ++s) {
        Extend(first + s * n / frames, channel, sample(s), sample(s));
      }
    }
  }

  void Peaks(std::int64_t first, std::int64_t n, const float* peaks, std::int64_t count) {
    for (std::int64_t channel = 0; channel < channels_; ++channel) {
      Set(first, channel, 3.4028235e38F, -3.4028235e38F);
      for (std::int64_t i = 0; i < count; ++i) {
        const std::int64_t column = i * n / count;
        if (column > std::max<std::int64_t>(0, (i - 1) * n / count)) {
          const float* const left = At(first + column - 1, channel);
          Set(first + column, channel, left[1], left[0]);
        }
        const float* const peak = peaks + 2 * (i * channels_ + channel);
        Extend(first + column, channel, peak[0], peak[1]);
      }
    }
  }

  void Silence(std::int64_t first, std::int64_t n) {
    std::fill_n(At(first, 0), 2 * n * channels_, 0.0F);
  }

 private:
  float* At(std::int64_t column, std::int64_t channel) {
    return pairs_.data() + 2 * (column * channels_ + channel);
  }
  void Set(std::int64_t column, std::int64_t channel, float minimum, float maximum) {
    At(column, channel)[0] = minimum;
    At(column, channel)[1] = maximum;
  }
  void Extend(std::int64_t column, std::int64_t channel, float low, float high) {
    float* const pair = At(column, channel);
    if (low < pair[0]) pair[0] = low;
    if (high > pair[1]) pair[1] = high;
  }

  std::vector<float>& pairs_;
  const std::int64_t channels_;
};

}  // namespace marlinda::testing
