// Tests dither, and compares peaks bit by bit with those of a plain loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "core/samples/cpu_level.h"
#include "core/samples/extremes.h"
#include "pool/dither.h"
#include "pool/peak_builder.h"
#include "pool/peak_groups.h"

namespace marlinda {
namespace {

using Floats = std::vector<float>;

constexpr float kLargest = std::numeric_limits<float>::max();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr CpuLevel kLevels[] = {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2};

std::vector<std::uint32_t> Bits(const Floats& values) {
  std::vector<std::uint32_t> bits;
  for (const float value : values) bits.push_back(std::bit_cast<std::uint32_t>(value));
  return bits;
}

class Dither : public ::testing::Test {
 protected:
  ~Dither() override { LimitCpuLevel(HighestCpuLevel()); }
  // Clears the rounding errors, then dithers two blocks. The errors of the first affect the second.
  Floats Process(int mode, int channels, int bits, Floats samples, std::size_t first) {
    dither_.SetUp(mode, channels, bits);
    for (const auto block : {std::span(samples).first(first), std::span(samples).subspan(first)}) {
      dither_.Process(block, [this] { return kRandom[drawn_++ % std::size(kRandom)]; });
    }
    return samples;
  }

  static constexpr int kRandom[] = {0, 32767, 16384, 8192,  100, 32000, 25000, 25000,
                                    0, 0,     32767, 32767, 1,   2,     3,     4};
  DitherState dither_;
  std::size_t drawn_ = 0;
};

// A separate program computed the codes. It used double precision but stored values in single
// precision.
TEST_F(Dither, MatchesTheCodesOfAnIndependentImplementation) {
  const Floats source = {0.3F,  -0.3F, 0.301F, -0.302F, 0.303F, -0.303F, 0.304F, -0.305F,
                         0.25F, -0.9F, 0.25F,  1.2F,    0.0F,   -1.2F,   0.0F,   0.0F};
  struct Row {
    int mode, channels, bits;
    std::vector<int> codes;
  };
  const Row rows[] = {
      {DitherState::kNoiseShaping,
       2,
       8,
       {38, -38, 38, -39, 39, -38, 38, -39, 32, -114, 32, 152, 0, -151, -1, -2}},
      {DitherState::kTriangularNoise,
       1,
       24,
       {2516582, -2516582, 2524971, -2533359, 2541747, -2541747, 2550135, -2558525, 2097152,
        -7549747, 2097152, 10066329, -1, -10066327, -2, 0}},
  };
  for (const auto& [mode, channels, bits, codes] : rows) {
    for (const std::size_t first : {16U, 6U}) {
      drawn_ = 0;
      const Floats samples = Process(mode, channels, bits, source, first);
      for (std::size_t i = 0; i < 16; ++i) {
        const double code = samples[i] * (std::ldexp(1.0, bits - 1) - 1);
        EXPECT_EQ(std::lround(code), codes[i]) << bits;
        // The tolerance is the precision of a float.
        EXPECT_NEAR(code, codes[i], std::abs(code) * 1e-7) << bits;
      }
      EXPECT_EQ(drawn_, mode == DitherState::kTriangularNoise ? 32U : 0U);
    }
  }
  EXPECT_EQ(Process(DitherState::kOff, 2, 8, source, 8), source);
  const Floats bad = {0.3F, kNan, 0.3F, 0.3F};
  EXPECT_NEAR(Process(DitherState::kNoiseShaping, 1, 8, bad, 0)[3], 0.3F, 3.0 / 127.0);
  drawn_ = 0;
  const Floats incomplete = Process(DitherState::kTriangularNoise, 3, 8, {0.3F, 0.3F, 0.3F, 9}, 4);
  EXPECT_NE(incomplete[2], 0.3F);
  EXPECT_EQ(incomplete[3], 9.0F);
  EXPECT_EQ(drawn_, 6U);
}

// Each rounding error affects the later samples, so a difference in any error becomes visible.
TEST_F(Dither, ReturnsTheSameBitsAtEveryInstructionLevel) {
  // Noise, a ramp through all codes, a decay into silence, and values beyond full scale with
  // special values among them.
  std::minstd_rand random(7);
  std::uniform_real_distribution<float> level(-1.1F, 1.1F);
  const float odd[] = {kNan, kInfinity, -3.999F, 4.0F, -300.0F, 1e30F, -0.0F, 1e-45F, 0x1p-110F};
  Floats source;
  for (int i = 0; i < 16384; ++i) {
    const float x = static_cast<float>(i % 4096) / 2048.0F - 1.0F;
    const float over = random() % 97 == 0 ? odd[random() % std::size(odd)] : 2.0F * level(random);
    const float sections[] = {level(random), x, level(random) * std::exp2(-40.0F * (x + 1.0F)),
                              over};
    source.push_back(sections[i / 4096]);
  }
  for (const int bits : {-1, 8, 16, 24, 25}) {
    for (int channels = 1; channels <= 8; ++channels) {
      std::vector<std::uint32_t> results[3];
      for (const CpuLevel limit : kLevels) {
        LimitCpuLevel(limit);
        // The second block starts at an odd frame.
        results[static_cast<int>(limit)] =
            Bits(Process(DitherState::kNoiseShaping, channels, bits, source,
                         static_cast<std::size_t>(channels) * 333));
      }
      ASSERT_TRUE(results[1] == results[0] && results[2] == results[0])
          << bits << " bits, " << channels << " channels";
    }
  }
}

void Extend(float* pair, float low, float high) {
  if (low < pair[0]) pair[0] = low;
  if (high > pair[1]) pair[1] = high;
}

Floats Noise() {
  Floats values(4096, kNan);
  for (std::size_t i = 1; i < values.size(); ++i) values[i] = static_cast<float>(i) / 2048 - 1;
  return values;
}

// The first palette has few values, so that zeros of both signs, NaN and infinities often meet.
// Besides zeros, the next two have numbers of only one sign, so one extreme is a zero. The others
// are NaN alone and noise.
const Floats kPalettes[] = {
    {0.0F, -0.0F, kNan, kInfinity, -kInfinity, kLargest, -kLargest, 0.5F, -0.5F, 1e-45F},
    {0.0F, -0.0F, 0.25F, kNan},
    {0.0F, -0.0F, -0.25F},
    {kNan},
    Noise()};

class Peaks : public ::testing::Test {
 protected:
  ~Peaks() override { LimitCpuLevel(HighestCpuLevel()); }
  Floats Draw(const Floats& palette, std::size_t count) {
    Floats values(count);
    for (float& value : values) value = palette[random_() % palette.size()];
    return values;
  }

  std::mt19937 random_{11};
};

TEST_F(Peaks, ABlockHasOnePeakMoreThanItHasWholeGroups) {
  for (const Floats& palette : kPalettes) {
    for (const std::size_t channels : {1U, 2U, 3U, 8U, 9U}) {
      for (const std::size_t frames : {0U, 1U, 255U, 256U, 257U, 1024U}) {
        // The block ends where its memory ends, so that AddressSanitizer finds reads past its end.
        // It begins at the second float, so it is unaligned. With several channels, it ends within
        // a frame. Each channel has its own level.
        Floats memory = Draw(palette, frames * channels + (frames > 0 ? channels : 1));
        for (std::size_t i = 0; i < memory.size(); ++i) {
          memory[i] *= static_cast<float>(1 + i % channels);
        }
        const std::span<const float> samples = std::span<const float>(memory).subspan(1);
        Floats expected;
        for (std::size_t i = 0; frames > 0 && i < (frames / 256 + 1) * channels; ++i) {
          float pair[2] = {kLargest, -kLargest};
          for (std::size_t k = 0; k < 256; ++k) {
            const std::size_t frame = std::min(i / channels * 256 + k, frames - 1);
            const float sample = samples[frame * channels + i % channels];
            Extend(pair, sample, sample);
          }
          expected.insert(expected.end(), pair, pair + 2);
        }
        for (const CpuLevel level : kLevels) {
          LimitCpuLevel(level);
          Floats peaks = {1.0F};  // BuildPeaks must replace this
          BuildPeaks(samples, static_cast<int>(channels), peaks);
          ASSERT_EQ(Bits(peaks), Bits(expected)) << channels << " channels, " << frames;
        }
      }
    }
  }
}

TEST_F(Peaks, DrawingTheSameOverviewAgainReadsNoPeaks) {
  const Floats peaks = Draw(Noise(), 4 * 9'960);
  PeakGroups groups(2);
  groups.Settle(9'960);  // in the middle of a group
  // Draws one column for each range between boundaries. Returns the number of peaks read.
  const auto draw = [&](const std::vector<std::int64_t>& boundaries) {
    Floats expected(4 * (boundaries.size() - 1), kNoLowest);
    for (std::size_t i = 1; i < expected.size(); i += 2) expected[i] = kNoHighest;
    Floats pairs = expected;
    for (std::size_t column = 0; column + 1 < boundaries.size(); ++column) {
      for (std::int64_t i = 4 * boundaries[column]; i < 4 * boundaries[column + 1]; i += 2) {
        const float* const peak = peaks.data() + i;
        Extend(&expected[4 * column + static_cast<std::size_t>(i % 4)], peak[0], peak[1]);
      }
    }
    std::size_t read = 0;
    EXPECT_TRUE(groups.Extend(boundaries[0], std::span(boundaries).subspan(1), pairs,
                              [&](std::int64_t at, std::span<float> block) {
                                std::copy_n(peaks.data() + 4 * at, block.size(), block.begin());
                                read += block.size() / 4;
                                return true;
                              }));
    EXPECT_EQ(Bits(pairs), Bits(expected));
    return read;
  };
  std::vector<std::int64_t> ends;
  for (std::int64_t column = 0; column <= 50; ++column) ends.push_back(5 + column * 198);
  EXPECT_LE(draw(ends), 10'064U);
  EXPECT_EQ(draw(ends), 0U);
  // With other boundaries, each column reads at most one group.
  for (std::int64_t& end : ends) end += 36;
  EXPECT_LE(draw(ends), 52U * 64U);
}

}  // namespace
}  // namespace marlinda
