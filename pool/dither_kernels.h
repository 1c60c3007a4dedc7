// Noise shaping of a block, for each instruction level. Only dither.h calls it. This header defines
// no inline functions, because the linker could choose a copy that is compiled for AVX2.
#pragma once

#include <cstddef>

namespace marlinda {

inline constexpr std::size_t kMaxShapedChannels = 8;

// The constants of one code width.
struct ShapingSteps {
  double scale;       // highest code
  double offset;      // lowest code
  double lowest;      // the lowest code as a sample
  double reciprocal;  // one code step as a sample
};

// The last quantisation errors of a channel, newest first.
struct ShapingErrors {
  float newest;
  float second;
  float third;
};

// A filter with these taps moves the errors' noise to where the ear is less sensitive.
inline constexpr float kShapingTaps[3] = {1.623F, -0.982F, 0.109F};

// Smaller errors are set to 0, because they cannot change the integer that a sample is rounded to.
// In silence they would otherwise decay to denormals, which slow the processor down.
inline constexpr float kSmallestShapedError = 0x1p-100F;

// Rounds the samples to codes, frame by frame. `errors` has one entry per channel and carries over
// to the next block.
using ShapingKernel = void (*)(const ShapingSteps& steps, ShapingErrors* errors, float* samples,
                               std::size_t frames, std::size_t channels);

// The scalar form, which defines the results.
void ScalarShape(const ShapingSteps& steps, ShapingErrors* errors, float* samples,
                 std::size_t frames, std::size_t channels) noexcept;
// Both compute the same bits as ScalarShape for codes of at most 24 bits.
void Sse2Shape(const ShapingSteps& steps, ShapingErrors* errors, float* samples, std::size_t frames,
               std::size_t channels) noexcept;
void Avx2Shape(const ShapingSteps& steps, ShapingErrors* errors, float* samples, std::size_t frames,
               std::size_t channels) noexcept;

}  // namespace marlinda
