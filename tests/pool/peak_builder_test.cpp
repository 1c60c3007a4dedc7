#include "pool/peak_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

constexpr float kLargest = std::numeric_limits<float>::max();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

using Peaks = std::vector<float>;

Peaks PeaksOf(const std::vector<float>& samples, int channels) {
  Peaks peaks = {1.0F, 2.0F};  // to be replaced
  BuildPeaks(samples, channels, peaks);
  return peaks;
}

std::vector<float> Ramp(std::size_t count) {
  std::vector<float> samples(count);
  for (std::size_t i = 0; i < count; ++i) samples[i] = static_cast<float>(i + 1);
  return samples;
}

TEST(BuildPeaks, MakesOneGroupMoreThanThereAreWholeOnes) {
  EXPECT_EQ(PeaksOf({}, 1), Peaks());
  EXPECT_EQ(PeaksOf(Ramp(1), 1), (Peaks{1, 1}));
  EXPECT_EQ(PeaksOf(Ramp(255), 1), (Peaks{1, 255}));
  // If no frame is left for the last group, it holds the last frame once more.
  EXPECT_EQ(PeaksOf(Ramp(256), 1), (Peaks{1, 256, 256, 256}));
  EXPECT_EQ(PeaksOf(Ramp(257), 1), (Peaks{1, 256, 257, 257}));
  EXPECT_EQ(PeaksOf(Ramp(600), 1), (Peaks{1, 256, 257, 512, 513, 600}));
}

TEST(BuildPeaks, KeepsChannelsApartAndLeavesOutAnIncompleteFrame) {
  EXPECT_EQ(PeaksOf(Ramp(512), 2), (Peaks{1, 511, 2, 512, 511, 511, 512, 512}));
  EXPECT_EQ(PeaksOf({1, -1, 5, -5, 99}, 2), (Peaks{1, 5, -5, -1}));
  EXPECT_EQ(PeaksOf({1, 2}, 3), Peaks());
  EXPECT_EQ(PeaksOf({1, 2}, 32767), Peaks());
}

// A group of NaN alone, infinities, and the sign of zeros.
TEST(BuildPeaks, CountsOnlySamplesThatCompareLessOrGreater) {
  EXPECT_EQ(PeaksOf({kNan, kNan}, 1), (Peaks{kLargest, -kLargest}));
  EXPECT_EQ(PeaksOf({kNan, 0.5F, kNan, -0.5F, kNan}, 1), (Peaks{-0.5F, 0.5F}));
  EXPECT_EQ(PeaksOf({kInfinity}, 1), (Peaks{kLargest, kInfinity}));
  EXPECT_EQ(PeaksOf({-kInfinity}, 1), (Peaks{-kInfinity, -kLargest}));
  EXPECT_FALSE(std::signbit(PeaksOf({0.0F, -0.0F}, 1)[0]));
  EXPECT_TRUE(std::signbit(PeaksOf({-0.0F, 0.0F}, 1)[1]));
}

// Blocks of few different values, so that zeros of both signs, NaN and infinities meet often; of
// one sign, whose peak is a zero; silence; and noise.
TEST(BuildPeaks, GivesTheBitsOfAComparisonFrameByFrame) {
  const std::vector<std::vector<float>> palettes = {
      {0.0F, -0.0F, kNan, kInfinity, -kInfinity, kLargest, -kLargest, 0.5F, -0.5F},
      {0.0F, -0.0F, 0.25F, kNan},
      {0.0F, -0.0F, -0.25F},
      {kNan},
      {-0.7F, 0.3F, 0.1F, kNan, 0.9F, std::numeric_limits<float>::denorm_min()}};
  std::minstd_rand random(3);
  for (const auto& palette : palettes) {
    for (const std::size_t channels : {1U, 2U, 3U, 4U, 8U, 9U}) {
      for (const std::size_t frames : {1U, 3U, 255U, 256U, 1000U, 1024U}) {
        // The block ends where its memory does, and begins at an odd place.
        std::vector<float> memory(1 + frames * channels);
        for (std::size_t i = 1; i < memory.size(); ++i) {
          // Each channel has a level of its own.
          const auto level = static_cast<float>(1 + (i - 1) % channels);
          memory[i] = level * palette[random() % palette.size()];
        }
        const float* const samples = memory.data() + 1;
        std::vector<float> peaks;
        LimitCpuLevel(random() % 2 == 0 ? CpuLevel::kScalar : HighestCpuLevel());
        BuildPeaks({samples, frames * channels}, static_cast<int>(channels), peaks);
        ASSERT_EQ(peaks.size(), (frames / 256 + 1) * 2 * channels);
        for (std::size_t pair = 0; 2 * pair < peaks.size(); ++pair) {
          float lowest = kLargest;
          float highest = -kLargest;
          for (std::size_t k = 0; k < 256; ++k) {
            const std::size_t frame = std::min(pair / channels * 256 + k, frames - 1);
            const float sample = samples[frame * channels + pair % channels];
            if (sample < lowest) lowest = sample;
            if (sample > highest) highest = sample;
          }
          ASSERT_EQ(std::bit_cast<std::uint32_t>(peaks[2 * pair]),
                    std::bit_cast<std::uint32_t>(lowest));
          ASSERT_EQ(std::bit_cast<std::uint32_t>(peaks[2 * pair + 1]),
                    std::bit_cast<std::uint32_t>(highest));
        }
      }
    }
  }
  LimitCpuLevel(HighestCpuLevel());
}

}  // namespace
}  // namespace marlinda
