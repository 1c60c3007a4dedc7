#include "edit/waveplot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <limits>
#include <random>

#include "tests/edit/plain_overview.h"

namespace marlinda {
namespace {

using testing::PlainOverview;

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

class WaveplotKernel : public ::testing::Test {
 protected:
  std::int64_t Draw(std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random_);
  }
  // Noise with values that comparisons treat in a way of their own: NaN, both zeros, infinities.
  std::vector<float> Noise(std::int64_t count, bool odd) {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    const float special[] = {kNaN, -kNaN, 0.0F, -0.0F, kInfinity, -kInfinity, 1.0F};
    std::uniform_real_distribution<float> noise(-2.0F, 2.0F);
    std::vector<float> samples(static_cast<std::size_t>(count));
    const bool silent = Draw(0, 3) == 0;
    for (float& sample : samples) {
      const auto draw = static_cast<std::size_t>(Draw(0, silent ? 3 : 60));
      sample = odd && draw < std::size(special) ? special[draw] : noise(random_);
    }
    return samples;
  }

  using Kernel = void(std::span<float>, std::size_t, std::int64_t, std::int64_t, std::int64_t,
                      std::span<const float>) noexcept;
  using Reference = void (PlainOverview::*)(std::int64_t, std::int64_t, const float*, std::int64_t);

  // Draws a piece of `unit` * channels floats a record, in blocks of random sizes.
  void Compare(Kernel* kernel, Reference reference, std::int64_t unit, std::int64_t fewest) {
    for (int round = 0; round < 2000; ++round) {
      const std::int64_t channels = Draw(1, 5);
      const std::int64_t n = Draw(1, 60);
      const std::int64_t count = Draw(fewest, round % 2 == 0 ? 60 : 400);
      const std::vector<float> data = Noise(count * channels * unit, true);
      std::vector<float> expected = Noise(n * channels * 2, false);
      // The array may end before the piece does.
      const auto visible = static_cast<std::size_t>(Draw(0, 3) == 0 ? Draw(0, n) : n);
      std::vector<float> pairs(
          expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(visible * channels * 2));
      (PlainOverview(expected, channels).*reference)(0, n, data.data(), count);
      std::int64_t first = 0;
      do {
        const std::int64_t block = std::min(count - first, round % 3 == 0 ? count : Draw(1, 50));
        kernel(pairs, static_cast<std::size_t>(channels), n, count, first,
               std::span(data).subspan(static_cast<std::size_t>(first * channels * unit),
                                       static_cast<std::size_t>(block * channels * unit)));
        first += block;
      } while (first < count);
      // Bits, so that a NaN equals itself and the zeros differ.
      ASSERT_TRUE(std::ranges::equal(pairs, std::span(expected).first(pairs.size()), {},
                                     std::bit_cast<std::uint32_t, float>,
                                     std::bit_cast<std::uint32_t, float>))
          << n << " columns, " << count << " records, " << channels << " channels";
    }
  }

  std::mt19937 random_{3};
};

TEST_F(WaveplotKernel, DrawsSamplesAsPlainLoopsDoWhateverTheBlocks) {
  Compare(DrawSamples, &PlainOverview::Samples, 1, 1);
}

TEST_F(WaveplotKernel, DrawsPeaksAsPlainLoopsDoWhateverTheBlocks) {
  Compare(DrawPeaks, &PlainOverview::Peaks, 2, 0);
}

TEST_F(WaveplotKernel, LinksNeighboursAndKeepsItsStartValues) {
  std::vector<float> pairs(4);
  DrawPeaks(pairs, 1, 2, 2, 0, std::vector<float>{0.1F, 0.2F, 0.5F, 0.6F});
  EXPECT_EQ(pairs, (std::vector<float>{0.1F, 0.2F, 0.2F, 0.6F}));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  DrawSamples(pairs, 1, 2, 4, 0, std::vector<float>{1.5F, 1.25F, nan, -0.5F});
  EXPECT_EQ(pairs, (std::vector<float>{1.0F, 1.5F, -0.5F, -0.5F}));
}

TEST_F(WaveplotKernel, ScalesWithoutOverflow) {
  EXPECT_EQ(Scale(999, 1920, 1000), 1918);
  EXPECT_EQ(Scale(kMax - 1, 1920, kMax), 1919);
  EXPECT_EQ(Scale(kMax / 2, 1 << 30, kMax), (1 << 29) - 1);
  EXPECT_EQ(Scale(kMax - 1, kMax - 1, kMax), kMax - 2);
  EXPECT_EQ(Scale(kMax, 2, 1), kMax);
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
