#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "converter/stream_converter.h"
#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

// The numbers of the last two ratios are too large for a table of taps.
constexpr std::pair<std::int32_t, std::int32_t> kRates[] = {
    {44100, 48000}, {48000, 44100},  {96000, 44100}, {44100, 192000},
    {8000, 48000},  {192000, 11025}, {44100, 44101}, {48000, 47999}};

// Level of the difference between the converted sine and gain * the exact one.
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

TEST(Resampling, GivesTheSameBitsWithEveryLevelOfInstructions) {
  std::vector<float> in(30000);
  for (std::minstd_rand random(7); float& sample : in)
    sample = 1e-9F * static_cast<float>(random()) - 1;
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
}  // namespace
}  // namespace marlinda
