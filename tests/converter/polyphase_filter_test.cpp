// The quality of sample rate conversion, and its forms for each level of instructions.
#include "converter/polyphase_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "converter/stream_converter.h"
#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

using Rates = std::pair<std::int32_t, std::int32_t>;

// The last two ratios have too large numbers for a table of taps.
constexpr Rates kRates[] = {{44100, 48000}, {48000, 44100},  {96000, 44100}, {44100, 192000},
                            {8000, 48000},  {192000, 11025}, {44100, 44101}, {48000, 47999}};

// Level of the difference between the converted sine and gain * the exact one.
double ErrorLevel(const Rates& rates, double hertz, double gain) {
  std::vector<float> in(static_cast<std::size_t>(rates.first));
  const double step = 2 * std::numbers::pi * hertz;
  for (std::size_t i = 0; i < in.size(); ++i) {
    in[i] = static_cast<float>(std::sin(step * static_cast<double>(i) / rates.first));
  }
  std::vector<float> out;
  StreamConverter({rates.first, 1}, {rates.second, 1}).Convert(in, out);
  double power = 0;
  const std::size_t edge = out.size() / 10;
  for (std::size_t i = edge; i < out.size() - edge; ++i) {
    const double exact = gain * std::sin(step * static_cast<double>(i) / rates.second);
    power += 2 * (out[i] - exact) * (out[i] - exact) / static_cast<double>(out.size() - 2 * edge);
  }
  return 10 * std::log10(power);
}

TEST(Resampling, HasErrorsAndAliasesBelowMinus140dB) {
  for (const Rates& rates : kRates) {
    const double nyquist = std::min(rates.first, rates.second) / 2.0;
    EXPECT_LT(ErrorLevel(rates, 997, 1.0), -140.0) << rates.first << " to " << rates.second;
    EXPECT_LT(ErrorLevel(rates, 0.9 * nyquist, 1.0), -130.0) << rates.first << " " << rates.second;
    if (rates.second * 1.1 > rates.first) continue;
    EXPECT_LT(ErrorLevel(rates, 1.005 * nyquist, 0.0), -140.0) << rates.first;
  }
}

TEST(Resampling, GivesTheSameBitsWithEveryLevelOfInstructions) {
  std::minstd_rand random(7);
  std::uniform_real_distribution<float> level(-1.0F, 1.0F);
  std::vector<float> in(30000);
  for (float& sample : in) sample = level(random);
  for (const auto& [source, target] : kRates) {
    if (!PolyphaseFilter::CanConvert(source, target)) continue;
    for (std::size_t channels = 1; channels <= 3; ++channels) {
      std::vector<float> expected;
      for (const CpuLevel limit : {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2}) {
        LimitCpuLevel(limit);
        std::vector<float> out;
        PolyphaseFilter(source, target, channels).Process(in, out);
        if (limit == CpuLevel::kScalar) expected = out;
        ASSERT_EQ(out, expected) << source << " to " << target << ", " << channels << " channels";
      }
      EXPECT_FALSE(expected.empty());
    }
  }
  LimitCpuLevel(HighestCpuLevel());
}

}  // namespace
}  // namespace marlinda
