// Dithering and noise shaping of float samples to a fixed-point width.
#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <span>

#include "core/samples/cpu_level.h"
#include "pool/dither_kernels.h"

namespace marlinda {

// Dithers interleaved blocks. Quantisation errors carry over from block to block. A filter moves
// the noise of the errors to frequencies where the ear is less sensitive.
class DitherState {
 public:
  static constexpr int kMaxChannels = kMaxShapedChannels;

  // Modes. Any other value means noise shaping alone.
  static constexpr int kOff = 0;
  static constexpr int kNoiseShaping = 1;
  static constexpr int kTriangularNoise = 2;  // triangular dither, then noise shaping

  // Clears the quantisation errors. Accepts any values, but only 1 to 8 channels can be dithered.
  void SetUp(int mode, int channels, int bits) noexcept {
    mode_ = mode;
    channels_ = channels;
    // A client may set any width. Codes have 2 to 32 bits.
    bits_ = std::clamp(bits, 2, 32);
    const double half_range = std::ldexp(1.0, bits_ - 1);
    const double scale = half_range - 1.0;
    steps_ = {scale, -half_range, -half_range / scale, 1.0 / scale};
    errors_ = {};
  }

  bool CanDither() const noexcept { return channels_ >= 1 && channels_ <= kMaxChannels; }

  // Rounds the samples of all whole frames to codes of the target width. Does nothing in mode kOff.
  // An incomplete last frame stays unchanged. `random` returns uniformly distributed numbers from 0
  // to 32767. kTriangularNoise calls it twice for each sample. The other modes do not call it.
  //
  // A NaN or infinite sample stays unchanged and leaves no error, because a NaN error would turn
  // the rest of the channel into NaN.
  template <class Random>
  void Process(std::span<float> samples, Random random) {
    if (mode_ == kOff) return;
    assert(CanDither());
    const auto channels = static_cast<std::size_t>(channels_);
    const std::span<float> whole_frames = samples.first(samples.size() / channels * channels);
    // The noise does not depend on the errors, so all noise can be added first.
    if (mode_ == kTriangularNoise) {
      for (float& sample : whole_frames) {
        const int first = random();
        const int second = random();
        const double noise = (first + second) / 65534.0 - 0.5;
        sample = static_cast<float>(sample + noise * steps_.reciprocal);
      }
    }
    Shape(whole_frames);
  }

 private:
  static ShapingKernel KernelFor(int bits) noexcept {
    // The widest code that the vector kernels can produce.
    constexpr int kMaxVectorBits = 24;
    if (bits > kMaxVectorBits) return ScalarShape;
    switch (CurrentCpuLevel()) {
      case CpuLevel::kAvx2:
        return Avx2Shape;
      case CpuLevel::kSse2:
        return Sse2Shape;
      default:
        return ScalarShape;
    }
  }

  void Shape(std::span<float> whole_frames) noexcept {
    const auto channels = static_cast<std::size_t>(channels_);
    KernelFor(bits_)(steps_, errors_.data(), whole_frames.data(), whole_frames.size() / channels,
                     channels);
  }

  int channels_ = 0;
  int mode_ = kOff;
  int bits_ = 0;
  ShapingSteps steps_ = {};
  std::array<ShapingErrors, kMaxChannels> errors_ = {};
};

}  // namespace marlinda
