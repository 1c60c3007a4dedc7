#include "converter/stream_converter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <stdexcept>

namespace marlinda {
namespace {

using Format = StreamConverter::Format;

constexpr double kPi = std::numbers::pi;
constexpr double kMinus3dB = 1.0 / std::numbers::sqrt2;

// All of a signal, and silence after it until the last frame has come out.
std::vector<float> Convert(const std::vector<float>& in, const Format& source,
                           const Format& target) {
  StreamConverter converter(source, target);
  std::vector<float> out;
  converter.Convert(in, out);
  const auto channels = static_cast<std::size_t>(target.channels);
  const std::uint64_t source_frames = in.size() / static_cast<std::size_t>(source.channels);
  const auto frames =
      static_cast<std::size_t>(source_frames * static_cast<std::uint64_t>(target.rate) /
                               static_cast<std::uint64_t>(source.rate));
  for (int block = 0; out.size() < frames * channels && block < 16; ++block) {
    converter.Convert(std::vector<float>(4096 * static_cast<std::size_t>(source.channels)), out);
  }
  out.resize(std::min(out.size(), frames * channels));
  return out;
}

std::vector<float> Sine(double frequency, int rate, std::size_t frames) {
  std::vector<float> sine(frames);
  for (std::size_t i = 0; i < frames; ++i) {
    sine[i] = static_cast<float>(std::sin(2 * kPi * frequency * static_cast<double>(i) / rate));
  }
  return sine;
}

double Decibels(double power) { return 10 * std::log10(power + 1e-30); }

// Power of the difference from the ideal sine.
double ErrorAgainst(double frequency, int rate, const std::vector<float>& signal) {
  double error = 0;
  double ideal = 0;
  for (std::size_t i = signal.size() / 10; i < signal.size() * 9 / 10; ++i) {
    const double s = std::sin(2 * kPi * frequency * static_cast<double>(i) / rate);
    error += (signal[i] - s) * (signal[i] - s);
    ideal += s * s;
  }
  return Decibels(error / ideal);
}

TEST(StreamConverter, ConvertsASineWithAnErrorBelowMinus120dB) {
  const auto sine = Sine(997, 44100, 88200);
  const auto there = Convert(sine, {44100, 1}, {48000, 1});
  ASSERT_EQ(there.size(), 96000U);
  EXPECT_LT(ErrorAgainst(997, 48000, there), -120.0);
}

TEST(StreamConverter, LeavesNoAliasOfASweep) {
  constexpr int kRate = 96000;
  constexpr std::size_t kFrames = 2 * kRate;
  constexpr double kTop = 47000;
  std::vector<float> sweep(kFrames);
  for (std::size_t i = 0; i < kFrames; ++i) {
    const double t = static_cast<double>(i) / kRate;
    sweep[i] = static_cast<float>(std::sin(kPi * kTop / 2 * t * t));  // kTop is reached at 2 s
  }
  const auto out = Convert(sweep, {kRate, 1}, {44100, 1});
  ASSERT_EQ(out.size(), 88200U);
  const auto power = [&](double from_hz, double to_hz) {
    const auto begin = static_cast<std::size_t>(from_hz / kTop * 88200);
    const auto end = static_cast<std::size_t>(to_hz / kTop * 88200);
    double sum = 0;
    for (std::size_t i = begin; i < end; ++i) sum += static_cast<double>(out[i]) * out[i];
    return Decibels(2 * sum / static_cast<double>(end - begin));
  };
  EXPECT_NEAR(power(1000, 20000), 0.0, 0.01);
  for (double hz = 22500; hz < 46500; hz += 500) EXPECT_LT(power(hz, hz + 500), -110.0) << hz;
}

TEST(StreamConverter, AddsNoDelay) {
  const std::pair<int, int> kRates[] = {{44100, 48000}, {8000, 192000}, {192000, 8000}};
  for (const auto& [source, target] : kRates) {
    constexpr std::size_t kFrames = 20000;
    for (const std::size_t at : {std::size_t{0}, std::size_t{9600}, kFrames - 50}) {
      std::vector<float> click(kFrames);
      click[at] = 1.0F;
      const auto out = Convert(click, {source, 1}, {target, 1});
      ASSERT_EQ(out.size(),
                kFrames * static_cast<std::size_t>(target) / static_cast<std::size_t>(source));
      const auto top = std::ranges::max_element(out) - out.begin();
      EXPECT_NEAR(static_cast<double>(top), static_cast<double>(at) * target / source, 1.0)
          << source << " to " << target << " at " << at;
    }
  }
}

TEST(StreamConverter, JoinsBlocksWithoutSeams) {
  std::mt19937 random(3);
  std::uniform_real_distribution<float> noise(-1.0F, 1.0F);
  std::vector<float> in(30000);
  for (float& sample : in) sample = noise(random);
  const std::pair<Format, Format> kFormats[] = {{{44100, 2}, {48000, 2}},
                                                {{48000, 6}, {32000, 2}},
                                                {{8000, 1}, {44100, 2}},
                                                {{44100, 3}, {44100, 1}},
                                                {{96000, 2}, {44100, 6}}};
  for (const auto& [source, target] : kFormats) {
    StreamConverter whole(source, target);
    std::vector<float> expected;
    whole.Convert(in, expected);
    EXPECT_FALSE(expected.empty());
    StreamConverter pieces(source, target);
    std::vector<float> got;
    for (std::span<const float> rest = in; !rest.empty();) {
      const auto count =
          std::min<std::size_t>(rest.size(), random() % (random() % 2 == 0 ? 4 : 700));
      pieces.Convert(rest.first(count), got);
      rest = rest.subspan(count);
    }
    EXPECT_EQ(got, expected) << source.rate << " to " << target.rate;
  }
}

TEST(StreamConverter, RefusesFormatsThatItCannotConvert) {
  const std::pair<Format, Format> kBad[] = {{{0, 2}, {48000, 2}},     {{44100, 2}, {-1, 2}},
                                            {{44100, 0}, {48000, 2}}, {{44100, 2}, {48000, -2}},
                                            {{100, 1}, {48000, 1}},   {{44100, 129}, {48000, 200}}};
  for (const auto& [source, target] : kBad) {
    EXPECT_THROW(StreamConverter(source, target), std::invalid_argument);
  }
  EXPECT_NO_THROW(StreamConverter({44100, 200}, {44100, 2}));
  EXPECT_NO_THROW(StreamConverter({44100, 200}, {48000, 2}));
}

TEST(ChannelMap, MapsPositionsWithTheirGains) {
  struct Case {
    std::vector<float> source;
    std::vector<double> target;
  };
  const Case kCases[] = {
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
    std::vector<float> target;
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
