// Crossfades the blocks of the scrubber. Weights them by a square-root Hann window and adds them at
// 50 % overlap. A repeated block loops without clicks, and a new block fades in.
#pragma once

#include <cassert>
#include <cmath>
#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

// The square-root Hann window of `frames` values: 0 at the start, 1 in the middle. The squares of
// two values half a window apart add up to 1, so a crossfade has constant power.
inline std::vector<float> ScrubWindow(std::size_t frames) {
  // Single precision, because a double would change the output samples.
  constexpr float kPi = 3.1415927F;
  std::vector<float> window(frames);
  for (std::size_t i = 0; i < frames; ++i) {
    const float angle = 2.0F * static_cast<float>(i) * kPi / static_cast<float>(frames);
    window[i] = static_cast<float>(std::sqrt(0.5 - 0.5 * std::cos(static_cast<double>(angle))));
  }
  return window;
}

class OverlapAdd {
 public:
  // `block_frames` must be even.
  OverlapAdd(std::size_t block_frames, std::size_t channels)
      : channels_(channels),
        window_(ScrubWindow(block_frames)),
        overlap_(block_frames / 2 * channels) {
    assert(block_frames % 2 == 0);
  }

  // Fades out the second half of the previous block and fades in the first half of `block`. `block`
  // is a whole block, `output` half a block. Real-time safe.
  void Pass(std::span<const float> block, std::span<float> output) noexcept {
    const std::size_t half = window_.size() / 2;
    assert(block.size() >= 2 * overlap_.size() && output.size() == overlap_.size());
    std::size_t sample = 0;
    for (std::size_t frame = 0; frame < half; ++frame) {
      for (std::size_t channel = 0; channel < channels_; ++channel, ++sample) {
        output[sample] = block[sample] * window_[frame] + overlap_[sample];
        overlap_[sample] = block[sample + overlap_.size()] * window_[frame + half];
      }
    }
  }

 private:
  std::size_t channels_;
  std::vector<float> window_;
  std::vector<float> overlap_;
};

}  // namespace marlinda
