#include "pool/dither.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

using Samples = std::vector<float>;

constexpr int kNoiseShaping = DitherState::kNoiseShaping;
constexpr int kTriangularNoise = DitherState::kTriangularNoise;

int NoNumber() {
  ADD_FAILURE() << "a random number was drawn";
  return 0;
}

std::vector<int> Codes(const Samples& samples, int bits) {
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

const Samples kSamples = {0.3F,  -0.3F, 0.301F, -0.302F, 0.303F, -0.303F, 0.304F, -0.305F,
                          0.25F, -0.9F, 0.25F,  1.2F,    0.0F,   -1.2F,   0.0F,   0.0F};

// A separate program computed the codes, in double precision with single precision for the values
// that are kept.
TEST(Dither, FollowsTheRuleStepByStep) {
  const int random[] = {0, 32767, 16384, 8192,  100, 32000, 25000, 25000,
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
      // An unknown mode is noise shaping alone.
      {-1, 1, 8, {38, -38, 38, -38, 38, -38, 38, -38, 31, -114, 32, 152, 0, -151, -2, 1}},
      {kTriangularNoise,
       1,
       24,
       {2516582, -2516582, 2524971, -2533359, 2541747, -2541747, 2550135, -2558525, 2097152,
        -7549747, 2097152, 10066329, -1, -10066327, -2, 0}},
  };
  DitherState dither;
  for (const Row& row : rows) {
    // In one block and in two: the errors carry over, and SetUp clears them.
    for (const std::size_t first : {16U, 6U}) {
      std::size_t drawn = 0;
      const auto next = [&] { return random[drawn++ % std::size(random)]; };
      dither.SetUp(row.mode, row.channels, row.bits);
      Samples samples = kSamples;
      dither.Process(std::span(samples).first(first), next);
      dither.Process(std::span(samples).subspan(first), next);
      EXPECT_EQ(Codes(samples, row.bits), row.codes) << row.mode << ", " << row.bits << " bits";
      EXPECT_EQ(drawn, row.mode == kTriangularNoise ? 2 * kSamples.size() : 0);
    }
  }
}

TEST(Dither, LeavesTheBlockAloneInModeZeroAndAnIncompleteFrameInAnyMode) {
  DitherState dither;
  Samples samples = kSamples;
  dither.SetUp(DitherState::kOff, 2, 8);
  dither.Process(samples, NoNumber);
  EXPECT_EQ(samples, kSamples);
  dither.SetUp(kTriangularNoise, 3, 8);
  int drawn = 0;
  dither.Process(std::span(samples).first(5), [&] { return 100 * drawn++; });
  EXPECT_EQ(drawn, 6);
  EXPECT_NE(samples[2], kSamples[2]);
  EXPECT_EQ(Samples(&samples[3], &samples[5]), Samples(&kSamples[3], &kSamples[5]));
}

TEST(Dither, HasErrorsOfItsOwnForEachOfOneToEightChannelsAndRecoversFromBadSamples) {
  DitherState dither;
  for (const int channels : {-1, 0, 9}) {
    dither.SetUp(kNoiseShaping, channels, 16);
    EXPECT_FALSE(dither.CanDither()) << channels;
  }
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  for (std::size_t channels = 1; channels <= 8; ++channels) {
    for (const float bad : {0.5F, 1e30F, -kInfinity, std::numeric_limits<float>::quiet_NaN()}) {
      dither.SetUp(kNoiseShaping, static_cast<int>(channels), 8);
      ASSERT_TRUE(dither.CanDither());
      Samples block;
      for (const float sample : {0.3F, bad, 0.3F, 0.3F, 0.3F}) {
        block.insert(block.end(), channels, sample);
      }
      dither.Process(block, NoNumber);
      for (std::size_t i = 0; i < block.size(); ++i) {
        EXPECT_EQ(std::bit_cast<int>(block[i]), std::bit_cast<int>(block[i - i % channels]));
        EXPECT_TRUE(i / channels == 1 || std::abs(block[i] - 0.3F) < 3.0 / 127.0);
      }
    }
  }
}

// The errors feed back, so a difference in any of them shows in the samples behind it.
TEST(Dither, GivesTheSameBitsWithEveryLevelOfInstructions) {
  // Noise, a ramp through all codes, a decay into silence, and overs with odd values among them.
  std::minstd_rand random(7);
  std::uniform_real_distribution<float> level(-1.1F, 1.1F);
  const float odd[] = {std::numeric_limits<float>::quiet_NaN(),
                       std::numeric_limits<float>::infinity(),
                       -3.999F,
                       4.0F,
                       -300.0F,
                       1e30F,
                       -0.0F,
                       std::numeric_limits<float>::denorm_min(),
                       0x1p-110F};
  Samples source;
  for (int i = 0; i < 16384; ++i) {
    const float x = static_cast<float>(i % 4096) / 2048.0F - 1.0F;
    const bool is_odd = random() % 97 == 0;
    const float sections[] = {level(random), x, level(random) * std::exp2(-40.0F * (x + 1.0F)),
                              is_odd ? odd[random() % std::size(odd)] : 2.0F * level(random)};
    source.push_back(sections[i / 4096]);
  }
  for (const int bits : {-1, 8, 16, 24, 25}) {
    for (std::size_t channels = 1; channels <= 8; ++channels) {
      Samples results[3];
      for (const CpuLevel limit : {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2}) {
        LimitCpuLevel(limit);
        DitherState dither;
        dither.SetUp(kNoiseShaping, static_cast<int>(channels), bits);
        Samples& samples = results[static_cast<int>(limit)] = source;
        // In two blocks, the second one at an odd place.
        dither.Process(std::span(samples).first(channels * 333), NoNumber);
        dither.Process(std::span(samples).subspan(channels * 333), NoNumber);
        ASSERT_EQ(std::memcmp(samples.data(), results[0].data(), sizeof(float) * samples.size()), 0)
            << bits << " bits, " << channels << " channels";
      }
    }
  }
  LimitCpuLevel(HighestCpuLevel());
}

}  // namespace
}  // namespace marlinda
