// Dithering and noise shaping of float samples towards the codes of a fixed-point width.
#pragma once

#include <array>
#include <functional>
#include <span>

namespace marlinda {

// A three-tap filter over the quantisation errors of one channel; it moves their noise to where the
// ear is less sensitive. State and coefficients are floats.
class NoiseShaper {
 public:
  void Reset() noexcept { e1_ = e2_ = 0.0F; }

  float operator()(float error) noexcept {
    const double shaped = static_cast<double>(kTap0) * error + static_cast<double>(kTap1) * e1_ +
                          static_cast<double>(kTap2) * e2_;
    e2_ = e1_;
    e1_ = error;
    return static_cast<float>(shaped);
  }

 private:
  static constexpr float kTap0 = 1.623F;
  static constexpr float kTap1 = -0.982F;
  static constexpr float kTap2 = 0.109F;

  float e1_ = 0.0F;
  float e2_ = 0.0F;
};

// Dithers interleaved blocks, one after the other; the errors carry over from block to block.
//
// Everything that is kept (samples, errors, filter state) is a float; expressions in between are
// evaluated in double, because in float a 24-bit code could no longer be told from its neighbour.
class DitherState {
 public:
  static constexpr int kMaxChannels = 8;

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
  struct Channel {
    NoiseShaper shaper;
    float error = 0.0F;
  };

  float Dithered(float sample, Channel& channel, const Random& random);

  int channels_ = 0;
  int mode_ = kOff;
  double scale_ = 1.0;    // highest code
  double offset_ = -1.0;  // lowest code
  double step_ = 1.0;     // one code as a sample
  double lowest_ = -1.0;  // the lowest code as a sample
  std::array<Channel, kMaxChannels> states_;
};

}  // namespace marlinda
