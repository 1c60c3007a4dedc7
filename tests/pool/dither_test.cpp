#include "pool/dither.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

constexpr int kNoiseShaping = DitherState::kNoiseShaping;
constexpr int kTriangularNoise = DitherState::kTriangularNoise;

// Returns fixed numbers and counts them.
class Numbers {
 public:
  explicit Numbers(std::vector<int> numbers) : numbers_(std::move(numbers)) {}
  auto Source() {
    return [this] { return numbers_[drawn_++ % numbers_.size()]; };
  }
  std::size_t drawn() const { return drawn_; }

 private:
  std::vector<int> numbers_;
  std::size_t drawn_ = 0;
};

int NoNumber() {
  ADD_FAILURE() << "a random number was drawn";
  return 0;
}

std::vector<int> Codes(std::span<const float> samples, int bits) {
  const double scale = std::ldexp(1.0, bits - 1) - 1;
  std::vector<int> codes;
  for (const float sample : samples) {
    const double code = std::round(sample * scale);
    // The result is a step of the code, as exactly as a float can hold it.
    EXPECT_NEAR(sample, code / scale, 2e-7);
    codes.push_back(static_cast<int>(code));
  }
  return codes;
}

const std::vector<float> kSamples = {0.3F,   -0.3F,   0.301F, -0.302F, 0.303F, -0.303F,
                                     0.304F, -0.305F, 0.25F,  -0.9F,   0.25F,  1.2F,
                                     0.0F,   -1.2F,   0.0F,   0.0F};

// A separate program computed the codes, in double precision with single precision for the values
// that are kept.
TEST(Dither, FollowsTheRuleStepByStep) {
  const std::vector<int> random = {0, 32767, 16384, 8192,  100, 32000, 25000, 25000,
                                   0, 0,     32767, 32767, 1,   2,     3,     4};
  struct Row {
    int mode, channels, bits;
    std::vector<int> codes;
  };
  const Row rows[] = {
      {kNoiseShaping,
       2,
       8,
       {38, -38, 38, -39, 39, -38, 38, -39, 32, -114, 32, 152, 0, -151, -1, -2}},
      {kTriangularNoise,
       2,
       8,
       {38, -38, 38, -38, 38, -39, 39, -38, 31, -115, 32, 153, -1, -151, 0, -2}},
      // An unknown mode is noise shaping alone.
      {-1, 1, 8, {38, -38, 38, -38, 38, -38, 38, -38, 31, -114, 32, 152, 0, -151, -2, 1}},
      {kTriangularNoise,
       1,
       24,
       {2516582, -2516582, 2524971, -2533359, 2541747, -2541747, 2550135, -2558525, 2097152,
        -7549747, 2097152, 10066329, -1, -10066327, -2, 0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << "mode " << row.mode << ", " << row.bits << " bits");
    Numbers numbers(random);
    DitherState dither;
    dither.SetUp(row.mode, row.channels, row.bits);
    std::vector<float> samples = kSamples;
    dither.Process(samples, numbers.Source());
    EXPECT_EQ(Codes(samples, row.bits), row.codes);
    EXPECT_EQ(numbers.drawn(), row.mode == kTriangularNoise ? 2 * kSamples.size() : 0);

    // The errors carry over: the same samples in two blocks come out the same. SetUp forgets them.
    Numbers again(random);
    dither.SetUp(row.mode, row.channels, row.bits);
    std::vector<float> parts = kSamples;
    dither.Process(std::span(parts).first(6), again.Source());
    dither.Process(std::span(parts).subspan(6), again.Source());
    EXPECT_EQ(parts, samples);
  }
}

TEST(Dither, LeavesTheBlockAloneInModeZeroAndAnIncompleteFrameInAnyMode) {
  DitherState dither;
  dither.SetUp(DitherState::kOff, 2, 8);
  std::vector<float> samples = kSamples;
  dither.Process(samples, NoNumber);
  EXPECT_EQ(samples, kSamples);

  dither.SetUp(kTriangularNoise, 3, 8);
  Numbers numbers({0, 100});
  dither.Process(std::span(samples).first(5), numbers.Source());
  EXPECT_EQ(numbers.drawn(), 6U);
  EXPECT_NE(samples[2], kSamples[2]);
  EXPECT_EQ(samples[3], kSamples[3]);
  EXPECT_EQ(samples[4], kSamples[4]);
  dither.Process({}, NoNumber);
}

TEST(Dither, HasRoomForOneToEightChannels) {
  DitherState dither;
  for (const int channels : {-32768, -1, 0, 9, 32767}) {
    dither.SetUp(kNoiseShaping, channels, 16);
    EXPECT_FALSE(dither.CanDither()) << channels;
  }
  for (int channels = 1; channels <= 8; ++channels) {
    dither.SetUp(kNoiseShaping, channels, 8);
    EXPECT_TRUE(dither.CanDither());
    // Each channel has errors of its own: all see the same samples and give the same codes.
    std::vector<float> block;
    for (const float sample : kSamples) block.insert(block.end(), channels, sample);
    dither.Process(block, NoNumber);
    for (std::size_t i = 0; i < block.size(); ++i) {
      ASSERT_EQ(block[i], block[i - i % static_cast<std::size_t>(channels)]);
    }
    EXPECT_EQ(Codes({&block[3U * static_cast<std::size_t>(channels)], 1}, 8)[0], -38);
  }
}

TEST(Dither, LeavesNaNAndHugeSamplesUnchangedAndRecoversAtOnce) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float infinity = std::numeric_limits<float>::infinity();
  const float largest = std::numeric_limits<float>::max();
  for (const float bad : {nan, -nan, infinity, -infinity, largest, -largest, 1e30F}) {
    for (const int bits : {8, 16, 24}) {
      DitherState dither;
      dither.SetUp(kNoiseShaping, 1, bits);
      std::vector<float> samples = {0.3F, bad, 0.3F, 0.3F, 0.3F, 0.3F};
      dither.Process(samples, NoNumber);
      if (std::isnan(bad)) {
        EXPECT_TRUE(std::isnan(samples[1]));
      } else {
        EXPECT_EQ(samples[1], bad);
      }
      for (std::size_t i = 2; i < samples.size(); ++i) EXPECT_NEAR(samples[i], 0.3F, 3.0 / 127.0);
    }
  }
}

// Noise, a ramp through all codes, overs, a decay into silence, and now and then NaN or infinity.
// The errors feed back, so a difference in any of them shows in the samples behind it.
std::vector<float> HardSamples(std::size_t count) {
  std::minstd_rand random(7);
  std::uniform_real_distribution<float> level(-1.1F, 1.1F);
  std::vector<float> samples(count);
  const float odd[] = {std::numeric_limits<float>::quiet_NaN(),
                       std::numeric_limits<float>::infinity(),
                       -3.999F,
                       4.0F,
                       -300.0F,
                       1e30F,
                       -0.0F,
                       std::numeric_limits<float>::denorm_min(),
                       0x1p-110F};
  for (std::size_t i = 0; i < count; ++i) {
    const float x = static_cast<float>(i % 4096) / 2048.0F - 1.0F;
    switch (i / 4096 % 4) {
      case 0:
        samples[i] = level(random);
        break;
      case 1:
        samples[i] = x;
        break;
      case 2:
        samples[i] = level(random) * std::exp2(-40.0F * (x + 1.0F));
        break;
      default:
        samples[i] = random() % 97 == 0 ? odd[random() % std::size(odd)] : 2.0F * level(random);
    }
  }
  return samples;
}

TEST(Dither, GivesTheSameBitsWithEveryLevelOfInstructions) {
  const std::vector<float> source = HardSamples(65536);
  for (const int bits : {-1, 2, 8, 16, 24, 25, 40}) {
    for (int channels = 1; channels <= 8; ++channels) {
      std::vector<std::uint32_t> expected;
      for (const CpuLevel level : {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2}) {
        LimitCpuLevel(level);
        DitherState dither;
        dither.SetUp(kNoiseShaping, channels, bits);
        std::vector<float> samples = source;
        // In two blocks, the second one at an odd place.
        const auto split = static_cast<std::size_t>(channels * 333);
        dither.Process(std::span(samples).first(split), NoNumber);
        dither.Process(std::span(samples).subspan(split), NoNumber);
        std::vector<std::uint32_t> patterns;
        for (const float sample : samples) patterns.push_back(std::bit_cast<std::uint32_t>(sample));
        if (level == CpuLevel::kScalar) expected = patterns;
        ASSERT_EQ(patterns, expected) << bits << " bits, " << channels << " channels";
      }
    }
  }
  LimitCpuLevel(HighestCpuLevel());
}

}  // namespace
}  // namespace marlinda
