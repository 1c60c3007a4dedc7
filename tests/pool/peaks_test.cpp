// How samples and peaks are stored; peaks bit by bit against a comparison of one value after the
// other.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "core/samples/cpu_level.h"
#include "core/samples/extremes.h"
#include "pool/peak_builder.h"
#include "pool/peak_groups.h"
#include "pool/stored_samples.h"

namespace marlinda {
namespace {

using Floats = std::vector<float>;

constexpr float kLargest = std::numeric_limits<float>::max();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

std::vector<std::uint32_t> Bits(const Floats& values) {
  std::vector<std::uint32_t> bits;
  for (const float value : values) bits.push_back(std::bit_cast<std::uint32_t>(value));
  return bits;
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

// Values of few kinds, so that zeros of both signs, NaN and infinities meet often; of one sign,
// whose peak is a zero; and noise.
const Floats kPalettes[] = {
    {0.0F, -0.0F, kNan, kInfinity, -kInfinity, kLargest, -kLargest, 0.5F, -0.5F, 1e-45F},
    {0.0F, -0.0F, 0.25F, kNan},
    {0.0F, -0.0F, -0.25F},
    {kNan},
    Noise()};

class Peaks : public ::testing::Test {
 protected:
  ~Peaks() override { LimitCpuLevel(HighestCpuLevel()); }
  std::size_t Below(std::size_t limit) { return random_() % limit; }
  Floats Draw(const Floats& palette, std::size_t count) {
    Floats values(count);
    for (float& value : values) value = palette[Below(palette.size())];
    return values;
  }

  std::mt19937 random_{11};
};

TEST_F(Peaks, OfABlockAreOneGroupMoreThanThereAreWholeOnes) {
  for (const Floats& palette : kPalettes) {
    for (const std::size_t channels : {1U, 2U, 3U, 8U, 9U}) {
      for (const std::size_t frames : {0U, 1U, 255U, 256U, 257U, 1024U}) {
        // The block ends where its memory does, begins at an odd place and, with more channels than
        // one, ends within a frame. Each channel has a level of its own.
        Floats memory = Draw(palette, frames * channels + (frames > 0 ? channels : 1));
        for (std::size_t i = 0; i < memory.size(); ++i) {
          memory[i] *= static_cast<float>(1 + i % channels);
        }
        const std::span<const float> samples = std::span<const float>(memory).subspan(1);
        Floats expected;
        for (std::size_t group = 0; frames > 0 && group <= frames / 256; ++group) {
          for (std::size_t channel = 0; channel < channels; ++channel) {
            float pair[2] = {kLargest, -kLargest};
            for (std::size_t k = 0; k < 256; ++k) {
              const std::size_t frame = std::min(group * 256 + k, frames - 1);
              const float sample = samples[frame * channels + channel];
              Extend(pair, sample, sample);
            }
            expected.insert(expected.end(), pair, pair + 2);
          }
        }
        for (const CpuLevel level : {CpuLevel::kScalar, CpuLevel::kAvx2}) {
          LimitCpuLevel(level);
          Floats peaks = {1.0F};  // to be replaced
          BuildPeaks(samples, static_cast<int>(channels), peaks);
          ASSERT_EQ(Bits(peaks), Bits(expected)) << channels << " channels, " << frames;
        }
      }
    }
  }
}

class PeakGroupsTest : public Peaks {
 protected:
  std::size_t Count() const { return peaks_.size() / width_; }

  std::vector<std::uint32_t> Extended(PeakGroups& groups, std::int64_t first,
                                      const std::vector<std::int64_t>& ends) {
    read_ = 0;
    Floats pairs = Neutral(ends.size());
    EXPECT_TRUE(groups.Extend(first, ends, pairs, [&](std::int64_t at, std::span<float> block) {
      const auto begin = static_cast<std::size_t>(at) * width_;
      // Nothing is asked for that has not settled.
      if (begin + block.size() > peaks_.size()) return false;
      std::copy_n(peaks_.begin() + static_cast<std::ptrdiff_t>(begin), block.size(), block.begin());
      read_ += block.size() / width_;
      return true;
    }));
    return Bits(pairs);
  }
  std::vector<std::uint32_t> Walked(std::int64_t first, const std::vector<std::int64_t>& ends) {
    Floats pairs = Neutral(ends.size());
    for (std::size_t range = 0; range < ends.size(); first = ends[range++]) {
      for (std::int64_t peak = first; peak < ends[range]; ++peak) {
        for (std::size_t i = 0; i < width_; i += 2) {
          const float* const at = &peaks_[static_cast<std::size_t>(peak) * width_ + i];
          Extend(&pairs[range * width_ + i], at[0], at[1]);
        }
      }
    }
    return Bits(pairs);
  }
  Floats Neutral(std::size_t ranges) const {
    Floats pairs(ranges * width_, kNoLowest);
    for (std::size_t i = 1; i < pairs.size(); i += 2) pairs[i] = kNoHighest;
    return pairs;
  }

  Floats peaks_;
  std::size_t width_ = 4;
  std::size_t read_ = 0;  // peaks that the last call read
};

TEST_F(PeakGroupsTest, GiveTheExtremesOfEachRangeWhileTheTakeGrows) {
  for (const std::size_t channels : {1U, 2U, 3U, 5U}) {
    for (const Floats& palette : kPalettes) {
      width_ = 2 * channels;
      peaks_.clear();
      PeakGroups groups(channels);
      for (int round = 0; round < 40; ++round) {
        const Floats more = Draw(palette, Below(300) * width_);
        peaks_.insert(peaks_.end(), more.begin(), more.end());
        groups.Settle(static_cast<std::int64_t>(Count()));
        const std::size_t first = Below(Count() + 1);
        std::vector<std::int64_t> ends(1 + Below(40));
        for (auto& end : ends) end = static_cast<std::int64_t>(first + Below(Count() - first + 1));
        std::ranges::sort(ends);
        const auto begin = static_cast<std::int64_t>(first);
        ASSERT_EQ(Extended(groups, begin, ends), Walked(begin, ends)) << channels;
      }
    }
  }
}

TEST_F(PeakGroupsTest, ReadEachPeakOnceForTheSamePicture) {
  peaks_ = Draw(kPalettes[0], 10'000 * width_);
  PeakGroups groups(2);
  groups.Settle(10'000);
  std::vector<std::int64_t> ends;
  for (std::int64_t column = 1; column <= 50; ++column) ends.push_back(5 + column * 198);
  const auto picture = Extended(groups, 5, ends);
  EXPECT_LT(read_, 10'000U + 64U);
  EXPECT_EQ(Extended(groups, 5, ends), picture);
  EXPECT_EQ(read_, 0U);
  // Another one takes no more than a group for each column.
  for (std::int64_t& end : ends) end += 64;
  EXPECT_EQ(Extended(groups, 70, ends), Walked(70, ends));
  EXPECT_LE(read_, 52U * 64U);
}

TEST(ByteOffset, IsExactWhereItFitsAndBeyondEveryFileWhereItDoesNot) {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  const std::int64_t rows[][4] = {{100, 6, -7, 58},
                                  {100, 0, kHighest, 100},
                                  {100, -4, 3, 100},
                                  {1, 1, kHighest, kHighest},
                                  {0, 3, kHighest / 3 + 1, kHighest},
                                  {kLowest, 131068, kLowest, kLowest},
                                  {kHighest, 1, kLowest, -1}};
  for (const auto& [base, unit, count, expected] : rows) {
    EXPECT_EQ(ByteOffset(base, unit, count), expected) << base << " " << unit << " " << count;
  }
}

TEST(StoredSamples, StoresBitsOverEightBytesAndReadsTheCommonWidthsBack) {
  const float samples[] = {1.0F, -0.5F, 0.25F, -1.0F};
  StoredSamples stored;
  for (int bits = 8; bits <= 40; ++bits) {
    // A larger block before leaves its bytes in the buffer.
    stored.Encode(Floats(16, 0.7F), bits);
    const auto bytes = stored.Encode(samples, bits);
    ASSERT_EQ(bytes.size(), 4U * (static_cast<unsigned>(bits) / 8)) << bits;
    EXPECT_TRUE(bits != 40 || bytes.back() == std::byte{});
    if (bits != 8 && bits != 16 && bits != 24 && (bits < 33 || bits > 39)) continue;
    const std::vector<std::byte> file(bytes.begin(), bytes.end());
    std::ranges::copy(file, stored.Prepare(4, bits).begin());
    float read[4] = {};
    stored.Decode(file.size(), read, bits);
    for (int i = 1; i < 4; ++i) EXPECT_NEAR(read[i], samples[i], 0.02F) << bits;
    stored.Decode(file.size() - 1, read, bits);  // the file ends too early
    EXPECT_EQ(read[3], 0.0F) << bits;
  }
}

}  // namespace
}  // namespace marlinda
