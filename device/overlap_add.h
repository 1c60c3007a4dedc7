// The scrubber's sound: blocks under a square-root Hann window, added at 50 % overlap, so that a
// block which is held loops without clicks and a moving one glides.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

// The square-root Hann window of `frames` values: 0 at the start, 1 in the middle; the squares of
// two values half a window apart add up to 1, so the sum has constant power.
std::vector<float> ScrubWindow(std::size_t frames);

class OverlapAdd {
 public:
  // `block_frames` is even.
  OverlapAdd(std::size_t block_frames, std::size_t channels);

  // Samples that one pass gives: half a block.
  std::size_t OutputSamples() const noexcept { return overlap_.size(); }

  // Plays the first half of `block` faded in over the second half of the previous pass's block
  // faded out. `block` holds a whole block, `output` OutputSamples() samples. Real-time safe.
  void Pass(std::span<const float> block, std::span<float> output) noexcept;

 private:
  std::size_t channels_;
  std::vector<float> window_;
  std::vector<float> overlap_;
};

}  // namespace marlinda
