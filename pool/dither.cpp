#include "pool/dither.h"

#include <algorithm>
#include <cmath>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

// The widest code that the vector kernels can produce.
constexpr int kMaxVectorBits = 24;

ShapingKernel KernelFor(int bits) noexcept {
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

}  // namespace

void DitherState::SetUp(int mode, int channels, int bits) noexcept {
  mode_ = mode;
  channels_ = channels;
  // A client may set any width. Codes have 2 to 32 bits.
  bits_ = std::clamp(bits, 2, 32);
  const double half_range = std::ldexp(1.0, bits_ - 1);
  const double scale = half_range - 1.0;
  steps_ = {scale, -half_range, -half_range / scale, 1.0 / scale};
  errors_ = {};
}

void DitherState::Shape(std::span<float> whole_frames) noexcept {
  const auto channels = static_cast<std::size_t>(channels_);
  KernelFor(bits_)(steps_, errors_.data(), whole_frames.data(), whole_frames.size() / channels,
                   channels);
}

}  // namespace marlinda
