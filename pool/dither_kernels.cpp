// The scalar form of noise shaping, one sample at a time. Samples and errors are stored as floats.
// Expressions are evaluated in double, because floats are too coarse for 24-bit codes.
#include "pool/dither_kernels.h"

#include <cmath>
#include <limits>

namespace marlinda {
namespace {

float ErrorToKeep(float error) noexcept {
  const float magnitude = std::fabs(error);
  // Both comparisons are false for NaN.
  const bool keep =
      magnitude >= kSmallestShapedError && magnitude <= std::numeric_limits<float>::max();
  return keep ? error : 0.0F;
}

float Shape(const ShapingSteps& steps, ShapingErrors& errors, float sample) noexcept {
  const double shaped = static_cast<double>(kShapingTaps[0]) * errors.newest +
                        static_cast<double>(kShapingTaps[1]) * errors.second +
                        static_cast<double>(kShapingTaps[2]) * errors.third;
  sample += static_cast<float>(shaped);
  const double code = std::trunc(sample * steps.scale - steps.offset + 0.5);
  const auto quantised = static_cast<float>(code / steps.scale + steps.lowest);
  errors = {ErrorToKeep(sample - quantised), errors.newest, errors.second};
  return quantised;
}

}  // namespace

void ScalarShape(const ShapingSteps& steps, ShapingErrors* errors, float* samples,
                 std::size_t frames, std::size_t channels) noexcept {
  for (; frames > 0; --frames, samples += channels) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      samples[channel] = Shape(steps, errors[channel], samples[channel]);
    }
  }
}

}  // namespace marlinda
