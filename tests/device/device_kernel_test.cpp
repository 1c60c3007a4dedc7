#include <gtest/gtest.h>

#include <cmath>

#include "device/overlap_add.h"

namespace marlinda {
namespace {

TEST(OverlapAdd, WindowHasConstantPowerAcrossTheOverlap) {
  for (const std::size_t frames : {2U, 4U, 1024U, 4410U}) {
    const auto window = ScrubWindow(frames);
    ASSERT_EQ(window.size(), frames);
    EXPECT_EQ(window[0], 0.0F);
    EXPECT_NEAR(window[frames / 2], 1.0F, 1e-6);
    for (std::size_t i = 0; i < frames / 2; ++i) {
      ASSERT_NEAR(window[i] * window[i] + window[i + frames / 2] * window[i + frames / 2], 1.0,
                  1e-5);
    }
  }
  EXPECT_NEAR(ScrubWindow(8)[1], std::sin(3.14159265358979 / 8), 1e-6);
}

TEST(OverlapAdd, HeldBlockFadesInOnceAndThenRepeats) {
  OverlapAdd scrub(8, 2);
  std::vector<float> block(16);
  for (std::size_t frame = 0; frame < 8; ++frame) {
    block[2 * frame] = 1.0F;
    block[2 * frame + 1] = static_cast<float>(frame);
  }
  const auto w = ScrubWindow(8);
  std::vector<float> out(scrub.OutputSamples());
  ASSERT_EQ(out.size(), 8U);
  scrub.Pass(block, out);
  for (std::size_t j = 0; j < 4; ++j) {
    EXPECT_FLOAT_EQ(out[2 * j], w[j]);
    EXPECT_FLOAT_EQ(out[2 * j + 1], static_cast<float>(j) * w[j]);
  }
  for (int pass = 0; pass < 2; ++pass) {
    scrub.Pass(block, out);
    for (std::size_t j = 0; j < 4; ++j) {
      EXPECT_FLOAT_EQ(out[2 * j], w[j] + w[j + 4]);
      EXPECT_FLOAT_EQ(out[2 * j + 1],
                      static_cast<float>(j) * w[j] + static_cast<float>(j + 4) * w[j + 4]);
    }
  }
  // A silent block ends the sound within one pass.
  const std::vector<float> silence(16);
  scrub.Pass(silence, out);
  EXPECT_FLOAT_EQ(out[2], w[5]);
  scrub.Pass(silence, out);
  EXPECT_EQ(out, std::vector<float>(8, 0.0F));
}

}  // namespace
}  // namespace marlinda
