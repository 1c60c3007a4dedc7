// Resamples between rates whose ratio is a fraction of small numbers, such as 44100 and 48000.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "converter/filter_kernels.h"

namespace marlinda {

// A windowed sinc filter with one row of taps for each phase that occurs. The response is flat up
// to 0.91 of the lower rate's Nyquist frequency and at least 140 dB down above that Nyquist
// frequency. Output frame n has the time of input frame n * source rate / target rate.
class PolyphaseFilter {
 public:
  // Returns false if the tap table would be larger than 4 MiB.
  static bool CanConvert(std::int32_t source_rate, std::int32_t target_rate) noexcept;

  // Throws std::bad_alloc.
  PolyphaseFilter(std::int32_t source_rate, std::int32_t target_rate, std::size_t channels);

  // Resamples whole frames and appends the output frames that are ready. The result does not depend
  // on how the caller splits the stream into calls. Throws std::bad_alloc.
  void Process(std::span<const float> frames, std::vector<float>& output);

 private:
  // Eight consecutive taps of one phase, aligned for AVX loads.
  struct alignas(32) TapBlock {
    float taps[8];
  };

  std::size_t ReadyFrames() const noexcept;
  void TakeIn(std::span<const float> frames) noexcept;
  void Filter(std::span<float> output) noexcept;

  const std::size_t channels_;
  // The rates divided by their greatest common divisor. target_ output frames consume source_ input
  // frames.
  const std::size_t source_;
  const std::size_t target_;
  const std::size_t taps_;  // per phase
  const FilterKernel filter_;
  std::vector<TapBlock> table_;  // one row for each phase, in the order of use
  // Each channel has room for `room_` input frames. The first `held_` frames are filled. The taps
  // of the next output frame begin at frame `begin_`.
  const std::size_t room_;
  std::vector<float> history_;
  std::size_t held_;
  std::size_t begin_ = 0;
  std::size_t phase_ = 0;  // phase of the next output frame, in 1 / target_ input frames
  std::size_t row_ = 0;
};

}  // namespace marlinda
