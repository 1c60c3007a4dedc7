// The codes of decoded floats, several at once, held against one at a time.
#include "import/vorbis_samples.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace marlinda::testing {
namespace {

TEST(VorbisSamples, AreRoundedToTheNearestAndClippedForAnyChannelsAndLength) {
  constexpr float kStep = 1.0F / 32768;
  const std::pair<float, int> table[] = {{0.5F * kStep, 0},
                                         {1.5F * kStep, 2},
                                         {-0.5F * kStep, 0},
                                         {-2.6F * kStep, -3},
                                         {1.0F, 32767},
                                         {-1.5F, -32768},
                                         {65535.0F, 32767},
                                         {65536.0F, -32768},
                                         {1e30F, -32768},
                                         {-1e30F, -32768},
                                         {-0.0F, 0},
                                         {0.25F, 8192},
                                         {std::numeric_limits<float>::quiet_NaN(), -32768}};
  for (std::size_t channels = 1; channels <= 4; ++channels) {
    for (std::size_t frames = 0; frames <= 40; ++frames) {
      std::vector<std::vector<float>> samples(channels, std::vector<float>(frames));
      std::vector<const float*> planes;
      std::vector<std::int16_t> expected(channels * frames);
      for (std::size_t channel = 0; channel < channels; ++channel) {
        for (std::size_t frame = 0; frame < frames; ++frame) {
          const auto& [sample, code] = table[(7 * channel + 5 * frame) % std::size(table)];
          EXPECT_EQ(VorbisCode(sample), code) << sample;
          samples[channel][frame] = sample;
          expected[frame * channels + channel] = static_cast<std::int16_t>(code);
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
