#include <gtest/gtest.h>

#include <cmath>

#include "device/overlap_add.h"

namespace marlinda {
namespace {

TEST(OverlapAdd, HeldBlockFadesInOnceWithConstantPowerAndThenRepeats) {
  for (const std::size_t frames : {2U, 1024U, 4410U}) {
    const auto window = ScrubWindow(frames);
    ASSERT_EQ(window.size(), frames);
    for (std::size_t i = 0; i < frames; ++i) {
      ASSERT_NEAR(window[i], std::sin(3.14159265358979 * static_cast<double>(i) / frames), 1e-5);
    }
  }
  const std::vector<float> block = {1, 0, 1, 1, 1, 2, 1, 3, 1, 4, 1, 5, 1, 6, 1, 7};
  const std::vector<float> silence(16);
  const auto w = ScrubWindow(8);
  OverlapAdd scrub(8, 2);
  std::vector<float> out(scrub.OutputSamples());
  // A silent block ends the sound within one pass.
  const std::vector<float>* before = &silence;
  for (const auto* given : {&block, &block, &block, &silence, &silence}) {
    scrub.Pass(*given, out);
    for (std::size_t i = 0; i < 8; ++i) {
      EXPECT_FLOAT_EQ(out[i], (*given)[i] * w[i / 2] + (*before)[i + 8] * w[i / 2 + 4]);
    }
    before = given;
  }
}

}  // namespace
}  // namespace marlinda
