#include "pool/peak_builder.h"

#include <gtest/gtest.h>

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

using Peaks = std::vector<PeakRecord>;

Peaks PeaksOf(const std::vector<float>& samples, int channels) {
  Peaks peaks = {{1.0F, 2.0F}};  // to be replaced
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
  EXPECT_EQ(PeaksOf(Ramp(1), 1), (Peaks{{1, 1}}));
  EXPECT_EQ(PeaksOf(Ramp(100), 1), (Peaks{{1, 100}}));
  EXPECT_EQ(PeaksOf(Ramp(255), 1), (Peaks{{1, 255}}));
  // Where no frame is left for the last group, the last frame stands in.
  EXPECT_EQ(PeaksOf(Ramp(256), 1), (Peaks{{1, 256}, {256, 256}}));
  EXPECT_EQ(PeaksOf(Ramp(257), 1), (Peaks{{1, 256}, {257, 257}}));
  EXPECT_EQ(PeaksOf(Ramp(512), 1), (Peaks{{1, 256}, {257, 512}, {512, 512}}));
  EXPECT_EQ(PeaksOf(Ramp(600), 1), (Peaks{{1, 256}, {257, 512}, {513, 600}}));
}

TEST(BuildPeaks, KeepsChannelsApartAndLeavesOutAnIncompleteFrame) {
  EXPECT_EQ(PeaksOf(Ramp(512), 2), (Peaks{{1, 511}, {2, 512}, {511, 511}, {512, 512}}));
  EXPECT_EQ(PeaksOf({1, -1, 5, -5, 99}, 2), (Peaks{{1, 5}, {-5, -1}}));
  EXPECT_EQ(PeaksOf({1, 2, 3, 4, 5, 6, 7, 8, 9}, 3), (Peaks{{1, 7}, {2, 8}, {3, 9}}));
  EXPECT_EQ(PeaksOf({1, 2}, 3), Peaks());
  EXPECT_EQ(PeaksOf({1, 2}, 32767), Peaks());
}

TEST(BuildPeaks, LetsTheComparisonsDecideAboutWhatIsNoNumber) {
  EXPECT_EQ(PeaksOf({kNan, kNan}, 1), (Peaks{{kLargest, -kLargest}}));
  EXPECT_EQ(PeaksOf({kNan, 0.5F, kNan, -0.5F, kNan}, 1), (Peaks{{-0.5F, 0.5F}}));
  EXPECT_EQ(PeaksOf({kInfinity}, 1), (Peaks{{kLargest, kInfinity}}));
  EXPECT_EQ(PeaksOf({-kInfinity}, 1), (Peaks{{-kInfinity, -kLargest}}));
  EXPECT_EQ(PeaksOf({kLargest}, 1), (Peaks{{kLargest, kLargest}}));
  // Of the two zeros the first one stays.
  EXPECT_FALSE(std::signbit(PeaksOf({0.0F, -0.0F}, 1)[0].minimum));
  EXPECT_TRUE(std::signbit(PeaksOf({-0.0F, 0.0F}, 1)[0].maximum));
}

TEST(BuildPeaks, AgreesWithASearchFrameByFrame) {
  std::minstd_rand random(11);
  std::uniform_real_distribution<float> level(-1.0F, 1.0F);
  for (const int channels : {1, 2, 3, 6, 8}) {
    for (const std::size_t frames : {3U, 256U, 1000U, 2048U}) {
      const auto width = static_cast<std::size_t>(channels);
      std::vector<float> samples(frames * width);
      for (float& sample : samples) sample = level(random);
      const Peaks peaks = PeaksOf(samples, channels);
      ASSERT_EQ(peaks.size(), (frames / 256 + 1) * width);
      for (std::size_t i = 0; i < peaks.size(); ++i) {
        float lowest = 2.0F;
        float highest = -2.0F;
        for (std::size_t k = 0; k < 256; ++k) {
          const std::size_t frame = std::min(i / width * 256 + k, frames - 1);
          lowest = std::min(lowest, samples[frame * width + i % width]);
          highest = std::max(highest, samples[frame * width + i % width]);
        }
        ASSERT_EQ(peaks[i], (PeakRecord{lowest, highest}));
      }
    }
  }
}

std::vector<std::uint32_t> Bits(const Peaks& peaks) {
  std::vector<std::uint32_t> bits;
  for (const PeakRecord& peak : peaks) {
    bits.push_back(std::bit_cast<std::uint32_t>(peak.minimum));
    bits.push_back(std::bit_cast<std::uint32_t>(peak.maximum));
  }
  return bits;
}

// Blocks of few different values, so that zeros of both signs, NaN and infinities meet often;
// blocks of one sign, whose peak is a zero; silence; and noise.
TEST(BuildPeaks, GivesTheSameBitsWithEveryLevelOfInstructions) {
  const std::vector<std::vector<float>> palettes = {
      {0.0F, -0.0F, kNan, kInfinity, -kInfinity, kLargest, -kLargest, 0.5F, -0.5F},
      {0.0F, -0.0F, 0.25F, kNan},
      {0.0F, -0.0F, -0.25F},
      {0.0F, -0.0F},
      {0.0F},
      {kNan},
      {-0.7F, 0.3F, 0.1F, -0.2F, 0.9F, std::numeric_limits<float>::denorm_min()}};
  std::minstd_rand random(3);
  for (const auto& palette : palettes) {
    for (int channels = 1; channels <= 9; ++channels) {
      for (const std::size_t frames : {1U, 255U, 256U, 1023U, 1024U}) {
        // The block ends where its memory does, and begins at an odd place.
        std::vector<float> memory(1 + frames * static_cast<std::size_t>(channels));
        for (float& sample : memory) sample = palette[random() % palette.size()];
        const auto samples = std::span(memory).subspan(1);
        Peaks expected;
        LimitCpuLevel(CpuLevel::kScalar);
        BuildPeaks(samples, channels, expected);
        for (const CpuLevel level : {CpuLevel::kSse2, CpuLevel::kAvx2}) {
          LimitCpuLevel(level);
          Peaks peaks;
          BuildPeaks(samples, channels, peaks);
          ASSERT_EQ(Bits(peaks), Bits(expected)) << channels << " channels, " << frames;
        }
      }
    }
  }
  LimitCpuLevel(HighestCpuLevel());
}

}  // namespace
}  // namespace marlinda
