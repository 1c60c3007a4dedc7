#include "pool/dither.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

// The vector forms reach up to here.
constexpr int kMostVectorBits = 24;

ShapingKernel KernelFor(int bits) noexcept {
  if (bits > kMostVectorBits) return ScalarShape;
  switch (CurrentCpuLevel()) {
    case CpuLevel::kAvx2:
      return Avx2Shape;
    case CpuLevel::kSse2:
      return Sse2Shape;
    default:
      return ScalarShape;
  }
}

}  // namespace

void DitherState::SetUp(int mode, int channels, int bits) noexcept {
  mode_ = mode;
  channels_ = channels;
  // No code is narrower than 2 bits or wider than 32, whatever a client sets.
  bits_ = std::clamp(bits, 2, 32);
  const double half_range = std::ldexp(1.0, bits_ - 1);
  const double scale = half_range - 1.0;
  steps_ = {scale, -half_range, -half_range / scale, 1.0 / scale};
  errors_ = {};
}

void DitherState::AddTriangularNoise(std::span<float> samples, const Random& random) const {
  for (float& sample : samples) {
    const int first = random();
    const int second = random();
    sample = static_cast<float>(sample + ((first + second) / 65534.0 - 0.5) * steps_.reciprocal);
  }
}

void DitherState::Process(std::span<float> samples, const Random& random) {
  if (mode_ == kOff) return;
  assert(CanDither());
  const auto channels = static_cast<std::size_t>(channels_);
  const std::size_t frames = samples.size() / channels;
  // The noise does not depend on the errors, so all of it can come first.
  if (mode_ == kTriangularNoise) AddTriangularNoise(samples.first(frames * channels), random);
  KernelFor(bits_)(steps_, errors_.data(), samples.data(), frames, channels);
}

}  // namespace marlinda
