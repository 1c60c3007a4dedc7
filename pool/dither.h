// Dithering and noise shaping of float samples towards the codes of a fixed-point width.
#pragma once

#include <array>
#include <functional>
#include <span>

#include "pool/dither_kernels.h"

namespace marlinda {

// Dithers interleaved blocks, one after the other; the errors carry over from block to block.
//
// The errors go through a filter that moves their noise to where the ear is less sensitive.
class DitherState {
 public:
  static constexpr int kMaxChannels = kMostShapedChannels;

  // Modes; any other value but 0 works as noise shaping alone.
  static constexpr int kOff = 0;
  static constexpr int kNoiseShaping = 1;
  static constexpr int kTriangularNoise = 2;  // triangular dither, then noise shaping

  // A number from 0 to 32767, evenly distributed.
  using Random = std::function<int()>;

  // Forgets all errors. Any values are taken, but only 1 to 8 channels can be dithered.
  void SetUp(int mode, int channels, int bits) noexcept;

  bool CanDither() const noexcept { return channels_ >= 1 && channels_ <= kMaxChannels; }

  // Replaces the samples of all whole frames by the steps of the target code; does nothing in mode
  // 0. A part of a frame at the end stays as it is. Draws two numbers a sample in mode 2, none
  // otherwise.
  //
  // A sample that is NaN or infinite comes out as it went in and leaves no error behind: passed on,
  // its error would turn the rest of the channel into NaN.
  void Process(std::span<float> samples, const Random& random);

 private:
  void AddTriangularNoise(std::span<float> samples, const Random& random) const;

  int channels_ = 0;
  int mode_ = kOff;
  int bits_ = 0;
  ShapingSteps steps_ = {};
  std::array<ShapingErrors, kMaxChannels> errors_ = {};
};

}  // namespace marlinda
