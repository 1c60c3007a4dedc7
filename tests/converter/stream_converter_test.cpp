#include "converter/stream_converter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

using Format = StreamConverter::Format;
using Samples = std::vector<float>;

constexpr double kMinus3dB = 1.0 / std::numbers::sqrt2;

// For the last two ratios the tap table would be too large, so libsamplerate converts.
constexpr std::pair<std::int32_t, std::int32_t> kRates[] = {
    {44100, 48000}, {48000, 44100},  {96000, 44100}, {44100, 192000},
    {8000, 48000},  {192000, 11025}, {44100, 44101}, {48000, 47999}};

Samples Noise() {
  Samples noise(30000);
  for (std::minstd_rand random(7); float& sample : noise) {
    sample = 1e-9F * static_cast<float>(random()) - 1;
  }
  return noise;
}

// Converts a sine. Returns the level in dB of the difference from `gain` * the exact sine.
double ErrorLevel(std::int32_t source, std::int32_t target, double hertz, double gain) {
  std::vector<float> in(static_cast<std::size_t>(source));
  const double step = 2 * std::numbers::pi * hertz;
  for (std::size_t i = 0; i < in.size(); ++i) {
    in[i] = static_cast<float>(std::sin(step * static_cast<double>(i) / source));
  }
  std::vector<float> out;
  StreamConverter({source, 1}, {target, 1}).Convert(in, out);
  double power = 0;
  const std::size_t edge = out.size() / 10;
  for (std::size_t i = edge; i < out.size() - edge; ++i) {
    power += std::pow(out[i] - gain * std::sin(step * static_cast<double>(i) / target), 2);
  }
  return 10 * std::log10(2 * power / static_cast<double>(out.size() - 2 * edge));
}

TEST(Resampling, HasErrorsAndAliasesBelowMinus140dB) {
  for (const auto& [source, target] : kRates) {
    const double nyquist = std::min(source, target) / 2.0;
    EXPECT_LT(ErrorLevel(source, target, 997, 1.0), -140) << source << " to " << target;
    EXPECT_LT(ErrorLevel(source, target, 0.9 * nyquist, 1.0), -130) << source << " to " << target;
    if (target * 1.1 > source) continue;
    EXPECT_LT(ErrorLevel(source, target, 1.005 * nyquist, 0.0), -140) << source << " to " << target;
  }
}

TEST(Resampling, ReturnsTheSameBitsAtEveryInstructionLevel) {
  const Samples in = Noise();
  for (const auto& [source, target] : kRates) {
    std::vector<float> out[3];
    for (const CpuLevel limit : {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2}) {
      LimitCpuLevel(limit);
      StreamConverter({source, 3}, {target, 3}).Convert(in, out[static_cast<int>(limit)]);
    }
    EXPECT_TRUE(out[1] == out[0] && out[2] == out[0]) << source << " to " << target;
  }
  LimitCpuLevel(HighestCpuLevel());
}

TEST(StreamConverter, ConvertsBlocksOfAnySizeLikeTheWholeStream) {
  std::minstd_rand random(3);
  const Samples in = Noise();
  const std::pair<Format, Format> kFormats[] = {{{44100, 2}, {48000, 2}},
                                                {{48000, 6}, {32000, 2}},
                                                {{8000, 1}, {44100, 2}},
                                                {{44100, 3}, {44100, 1}},
                                                {{96000, 2}, {44100, 6}}};
  for (const auto& [source, target] : kFormats) {
    Samples expected;
    StreamConverter(source, target).Convert(in, expected);
    EXPECT_GT(expected.size(), 6000U);
    StreamConverter pieces(source, target);
    Samples got;
    for (std::span<const float> rest = in; !rest.empty();) {
      const auto count = std::min<std::size_t>(rest.size(), random() % (random() % 2 ? 4 : 700));
      pieces.Convert(rest.first(count), got);
      rest = rest.subspan(count);
    }
    EXPECT_EQ(got, expected) << source.rate << " to " << target.rate;
  }
}

TEST(ChannelMap, MixesSpeakerPositionsWithTheirGains) {
  const std::pair<Samples, std::vector<double>> kCases[] = {
      {{0.5F}, {0.5, 0.5}},
      {{0.5F, -0.25F}, {0.125}},
      {{0.5F}, {0, 0, 0.5, 0, 0, 0}},
      {{1, 2}, {1, 2, 0, 0, 0, 0}},
      {{1, 2, 4, 8, 16, 32}, {1 + 20 * kMinus3dB, 2 + 36 * kMinus3dB}},
      {{1, 2, 4, 8, 16, 32}, {1, 2, 4, 8, 0, 16, 32}},
      {{1, 2, 4, 8}, {1 + 4 * kMinus3dB, 2 + 8 * kMinus3dB}},
      {{1, 2, 4, 8, 16, 32, 64, 128}, {1, 2, 4, 8, 16 + 64 * kMinus3dB, 32 + 128 * kMinus3dB}},
      {{1, 2, 4, 8, 16, 32, 64},
       {1 + 4 * kMinus3dB + 8 + 32 * kMinus3dB, 2 + 4 * kMinus3dB + 8 + 64 * kMinus3dB}},
      {{1, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 2}},
      {{1, 2}, {1, 2, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& [source, expected] : kCases) {
    Samples target;
    ChannelMap(static_cast<int>(source.size()), static_cast<int>(expected.size()))
        .Apply(source, target);
    ASSERT_EQ(target.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
      EXPECT_NEAR(target[i], expected[i], 1e-5)
          << source.size() << " to " << expected.size() << ", channel " << i;
    }
  }
}

}  // namespace
}  // namespace marlinda
