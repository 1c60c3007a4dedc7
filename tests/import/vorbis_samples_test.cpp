// The codes of decoded floats, several at once, held against one at a time.
#include "import/vorbis_samples.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <vector>

namespace marlinda::testing {
namespace {

TEST(VorbisSamples, AreRoundedToTheNearestAndClippedAndWhatFitsNowhereBecomesTheLowest) {
  constexpr float kStep = 1.0F / 32768;
  EXPECT_EQ(VorbisCode(0.5F * kStep), 0);
  EXPECT_EQ(VorbisCode(1.5F * kStep), 2);
  EXPECT_EQ(VorbisCode(-0.5F * kStep), 0);
  EXPECT_EQ(VorbisCode(-2.6F * kStep), -3);
  EXPECT_EQ(VorbisCode(1.0F), 32767);
  EXPECT_EQ(VorbisCode(-1.5F), -32768);
  EXPECT_EQ(VorbisCode(65535.0F), 32767);
  EXPECT_EQ(VorbisCode(65536.0F), -32768);
  EXPECT_EQ(VorbisCode(std::numeric_limits<float>::quiet_NaN()), -32768);
}

TEST(VorbisSamples, AreTheSameSeveralAtOnceForAnyChannelsAndLength) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const float odd[] = {1.0F,      -1.0F,      65536.0F,   -65536.0F, 1e30F, -1e30F,
                       kInfinity, -kInfinity, -kInfinity, 0x1p-16F,  -0.0F, 0x3p-16F};
  std::minstd_rand random(3);
  std::uniform_real_distribution<float> noise(-1.2F, 1.2F);
  for (std::size_t channels = 1; channels <= 9; ++channels) {
    for (std::size_t frames = 0; frames <= 40; ++frames) {
      std::vector<std::vector<float>> samples(channels, std::vector<float>(frames));
      std::vector<const float*> planes;
      std::vector<std::int16_t> expected(channels * frames);
      for (std::size_t channel = 0; channel < channels; ++channel) {
        for (std::size_t frame = 0; frame < frames; ++frame) {
          const auto drawn = random();
          float& sample = samples[channel][frame];
          sample = drawn % 4 == 0 ? odd[drawn / 4 % std::size(odd)] : noise(random);
          if (drawn % 32 == 1) sample = std::numeric_limits<float>::quiet_NaN();
          expected[frame * channels + channel] = VorbisCode(sample);
        }
        planes.push_back(samples[channel].data());
      }
      std::vector<std::int16_t> codes(expected.size());
      PackVorbisFrames(planes.data(), channels, frames, codes.data());
      ASSERT_EQ(codes, expected) << channels << " channels, " << frames << " frames";
    }
  }
}

}  // namespace
}  // namespace marlinda::testing
