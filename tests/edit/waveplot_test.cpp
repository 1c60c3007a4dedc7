#include "edit/waveplot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

namespace marlinda {
namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// The rules as plain loops over whole arrays.
void DrawSamples(std::vector<float>& pairs, std::int64_t nc, std::int64_t n,
                 const std::vector<float>& samples) {
  const auto at = [](std::int64_t i) { return static_cast<std::size_t>(i); };
  const std::int64_t length = static_cast<std::int64_t>(samples.size()) / nc;
  if (length < n) {
    for (std::int64_t col = 0; col < n; ++col) {
      for (std::int64_t ch = 0; ch < nc; ++ch) {
        const float sample = samples[at((col * length / n) * nc + ch)];
        pairs[at(2 * (col * nc + ch))] = sample;
        pairs[at(2 * (col * nc + ch) + 1)] = sample;
      }
    }
    return;
  }
  for (std::int64_t i = 0; i < n * nc; ++i) {
    pairs[at(2 * i)] = 1.0F;
    pairs[at(2 * i + 1)] = -1.0F;
  }
  for (std::int64_t s = 0; s < length; ++s) {
    const std::int64_t col = s * n / length;
    for (std::int64_t ch = 0; ch < nc; ++ch) {
      const float sample = samples[at(s * nc + ch)];
      float& min = pairs[at(2 * (col * nc + ch))];
      float& max = pairs[at(2 * (col * nc + ch) + 1)];
      if (sample < min) min = sample;
      if (sample > max) max = sample;
    }
  }
}

void DrawPeaks(std::vector<float>& pairs, std::int64_t nc, std::int64_t n,
               const std::vector<float>& peaks) {
  const auto at = [](std::int64_t i) { return static_cast<std::size_t>(i); };
  const std::int64_t count = static_cast<std::int64_t>(peaks.size()) / (2 * nc);
  for (std::int64_t ch = 0; ch < nc; ++ch) {
    pairs[at(2 * ch)] = 3.4028235e38F;
    pairs[at(2 * ch + 1)] = -3.4028235e38F;
  }
  for (std::int64_t i = 0; i < count; ++i) {
    const std::int64_t col = i * n / count;
    const std::int64_t col_prev = std::max<std::int64_t>(0, (i - 1) * n / count);
    for (std::int64_t ch = 0; ch < nc; ++ch) {
      float& min = pairs[at(2 * (col * nc + ch))];
      float& max = pairs[at(2 * (col * nc + ch) + 1)];
      if (col > col_prev) {
        max = pairs[at(2 * ((col - 1) * nc + ch))];
        min = pairs[at(2 * ((col - 1) * nc + ch) + 1)];
      }
      min = std::min(min, peaks[at(2 * (i * nc + ch))]);
      max = std::max(max, peaks[at(2 * (i * nc + ch) + 1)]);
    }
  }
}

// Equal bits: also those of a NaN and of a zero.
std::vector<std::uint32_t> Bits(const std::vector<float>& values) {
  std::vector<std::uint32_t> bits;
  for (const float value : values) bits.push_back(std::bit_cast<std::uint32_t>(value));
  return bits;
}

class WaveplotKernel : public ::testing::Test {
 protected:
  std::int64_t Draw(std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random_);
  }
  std::vector<float> Noise(std::int64_t count) {
    std::uniform_real_distribution<float> noise(-2.0F, 2.0F);
    std::vector<float> samples(static_cast<std::size_t>(count));
    for (float& sample : samples) sample = noise(random_);
    return samples;
  }
  // Noise with what comparisons treat in a way of its own: NaN, both zeros, infinities.
  std::vector<float> OddNoise(std::int64_t count) {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    const float odd[] = {kNaN, -kNaN, 0.0F, -0.0F, kInfinity, -kInfinity, kNaN, 1.0F};
    std::vector<float> samples = Noise(count);
    const bool silent = Draw(0, 3) == 0;
    for (float& sample : samples) {
      const auto draw = static_cast<std::size_t>(Draw(0, silent ? 3 : 60));
      if (draw < std::size(odd)) sample = odd[draw];
    }
    return samples;
  }

  // Feeds whole units of `unit` floats in blocks of random sizes.
  template <class Columns>
  void Feed(Columns& columns, const std::vector<float>& data, std::int64_t unit) {
    std::span<const float> left(data);
    while (!left.empty()) {
      const auto most = static_cast<std::int64_t>(left.size()) / unit;
      const auto block = static_cast<std::size_t>(Draw(0, std::min<std::int64_t>(most, 50)) * unit);
      columns.Add(left.first(block));
      left = left.subspan(block);
    }
  }

  std::mt19937 random_{3};
};

TEST_F(WaveplotKernel, DrawsSamplesAsPlainLoopsDoWhateverTheBlocks) {
  for (int round = 0; round < 2000; ++round) {
    const std::int64_t nc = Draw(1, 5);
    const std::int64_t n = Draw(1, 60);
    const std::int64_t length = Draw(1, round % 2 == 0 ? 60 : 400);
    const std::vector<float> samples = OddNoise(length * nc);
    std::vector<float> expected = Noise(n * nc * 2);
    std::vector<float> pairs = expected;
    DrawSamples(expected, nc, n, samples);
    SampleColumns columns(pairs, static_cast<std::size_t>(nc), n, length);
    Feed(columns, samples, nc);
    ASSERT_EQ(Bits(pairs), Bits(expected))
        << n << " columns, " << length << " frames, " << nc << " channels";
  }
}

TEST_F(WaveplotKernel, DrawsPeaksAsPlainLoopsDoWhateverTheBlocks) {
  for (int round = 0; round < 2000; ++round) {
    const std::int64_t nc = Draw(1, 5);
    const std::int64_t n = Draw(1, 60);
    const std::int64_t count = Draw(0, round % 2 == 0 ? 60 : 400);
    const std::vector<float> peaks = OddNoise(count * nc * 2);
    std::vector<float> expected = Noise(n * nc * 2);
    std::vector<float> pairs = expected;
    DrawPeaks(expected, nc, n, peaks);
    PeakColumns columns(pairs, static_cast<std::size_t>(nc), n, count);
    Feed(columns, peaks, 2 * nc);
    ASSERT_EQ(Bits(pairs), Bits(expected))
        << n << " columns, " << count << " peaks, " << nc << " channels";
  }
}

TEST_F(WaveplotKernel, DropsColumnsPastTheEndOfTheArray) {
  const std::vector<float> data = Noise(4000);
  std::vector<float> whole(200);
  DrawSamples(whole, 2, 50, data);
  std::vector<float> part(80);
  SampleColumns samples(part, 2, 50, 2000);
  samples.Add(data);
  EXPECT_TRUE(std::equal(part.begin(), part.end(), whole.begin()));
  DrawPeaks(whole, 2, 50, data);
  PeakColumns peaks(part, 2, 50, 1000);
  peaks.Add(data);
  EXPECT_TRUE(std::equal(part.begin(), part.end(), whole.begin()));
  SampleColumns({}, 2, 50, 2000).Add(data);
  PeakColumns({}, 2, 50, 1000).Add(data);
}

TEST_F(WaveplotKernel, LinksNeighboursAndKeepsItsStartValues) {
  std::vector<float> pairs(4);
  PeakColumns peaks(pairs, 1, 2, 2);
  peaks.Add(std::vector<float>{0.1F, 0.2F, 0.5F, 0.6F});
  EXPECT_EQ(pairs, (std::vector<float>{0.1F, 0.2F, 0.2F, 0.6F}));
  SampleColumns samples(pairs, 1, 2, 4);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  samples.Add(std::vector<float>{1.5F, 1.25F, nan, -0.5F});
  EXPECT_EQ(pairs, (std::vector<float>{1.0F, 1.5F, -0.5F, -0.5F}));
}

TEST_F(WaveplotKernel, ScalesWithoutOverflow) {
  EXPECT_EQ(Scale(0, 1920, 7), 0);
  EXPECT_EQ(Scale(999, 1920, 1000), 1918);
  EXPECT_EQ(Scale(5, 0, 3), 0);
  EXPECT_EQ(Scale(kMax, 1920, kMax), 1920);
  EXPECT_EQ(Scale(kMax - 1, 1920, kMax), 1919);
  EXPECT_EQ(Scale(kMax / 2, 1 << 30, kMax), (1 << 29) - 1);
  EXPECT_EQ(Scale(kMax, kMax, kMax), kMax);
  EXPECT_EQ(Scale(kMax - 1, kMax - 1, kMax), kMax - 2);
  EXPECT_EQ(Scale(kMax, 2, 1), kMax);
  EXPECT_EQ(Scale(std::int64_t{1} << 40, std::int64_t{1} << 40, std::int64_t{1} << 50),
            std::int64_t{1} << 30);
  // Against a division whose quotient is known: (q * d + r) * m / (d * m) with r < d.
  for (int round = 0; round < 2000; ++round) {
    const std::int64_t q = Draw(0, 1 << 20);
    const std::int64_t d = Draw(1, std::int64_t{1} << 42);
    const std::int64_t m = Draw(1, 1 << 20);
    ASSERT_EQ(Scale(q * d + Draw(0, d - 1), m, d * m), q);
  }
}

}  // namespace
}  // namespace marlinda
