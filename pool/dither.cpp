#include "pool/dither.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <limits>

namespace marlinda {
namespace {

// An error below this is far too small to reach any code. Dropping it keeps the filter, which would
// ring on for ever in a silent take, out of the denormals, which are slow.
constexpr float kSmallestError = 0x1p-100F;

float ErrorToKeep(float error) noexcept {
  const float magnitude = std::fabs(error);
  // Both comparisons are false for NaN.
  const bool keep = magnitude >= kSmallestError && magnitude <= std::numeric_limits<float>::max();
  return keep ? error : 0.0F;
}

}  // namespace

void DitherState::SetUp(int mode, int channels, int bits) noexcept {
  mode_ = mode;
  channels_ = channels;
  // No code is narrower than 2 bits or wider than 32, whatever a client sets.
  const double half_range = std::ldexp(1.0, std::clamp(bits, 2, 32) - 1);
  scale_ = half_range - 1.0;
  offset_ = -half_range;
  step_ = 1.0 / scale_;
  lowest_ = offset_ / scale_;
  states_.fill({});
}

float DitherState::Dithered(float sample, Channel& channel, const Random& random) {
  if (mode_ == kTriangularNoise) {
    const int first = random();
    const int second = random();
    sample = static_cast<float>(sample + ((first + second) / 65534.0 - 0.5) * step_);
  }
  sample += channel.shaper(channel.error);
  const double code = std::trunc(sample * scale_ - offset_ + 0.5);
  const auto quantised = static_cast<float>(code / scale_ + lowest_);
  channel.error = ErrorToKeep(sample - quantised);
  return quantised;
}

void DitherState::Process(std::span<float> samples, const Random& random) {
  if (mode_ == kOff) return;
  assert(CanDither());
  const auto channels = static_cast<std::size_t>(channels_);
  for (; samples.size() >= channels; samples = samples.subspan(channels)) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      samples[channel] = Dithered(samples[channel], states_[channel], random);
    }
  }
}

}  // namespace marlinda
