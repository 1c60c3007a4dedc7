#include "pool/peak_groups.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <random>

#include "core/samples/extremes.h"

namespace marlinda {
namespace {

// A take of random peaks, NaN and both zeros among them, that grows.
class PeakGroupsTest : public ::testing::Test {
 protected:
  std::int64_t Draw(std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random_);
  }

  void Grow(std::int64_t peaks) {
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    const float odd[] = {0.0F, -0.0F, kNaN, kNaN};
    std::uniform_real_distribution<float> noise(-1.0F, 1.0F);
    for (std::size_t i = 0; i < static_cast<std::size_t>(peaks) * pair_floats_; ++i) {
      const auto draw = static_cast<std::size_t>(Draw(0, flat_ ? 3 : 30));
      peaks_.push_back(draw < std::size(odd) ? odd[draw] : noise(random_));
    }
  }
  std::int64_t Count() const { return static_cast<std::int64_t>(peaks_.size() / pair_floats_); }

  std::vector<std::uint32_t> Extend(PeakGroups& groups, std::int64_t first,
                                    const std::vector<std::int64_t>& ends) {
    std::vector<float> pairs = Neutral(ends.size());
    read_ = 0;
    EXPECT_TRUE(groups.Extend(first, ends, pairs, [&](std::int64_t at, std::span<float> block) {
      const auto begin = static_cast<std::size_t>(at) * pair_floats_;
      // Nothing is asked for that has not settled.
      if (begin + block.size() > peaks_.size()) return false;
      std::copy_n(peaks_.begin() + static_cast<std::ptrdiff_t>(begin), block.size(), block.begin());
      read_ += static_cast<std::int64_t>(block.size() / pair_floats_);
      return true;
    }));
    return Bits(pairs);
  }

  // One peak after the other, as a plain loop.
  std::vector<std::uint32_t> Walk(std::int64_t first, const std::vector<std::int64_t>& ends) {
    std::vector<float> pairs = Neutral(ends.size());
    for (std::size_t stretch = 0; stretch < ends.size(); first = ends[stretch++]) {
      for (std::int64_t peak = first; peak < ends[stretch]; ++peak) {
        for (std::size_t i = 0; i < pair_floats_; ++i) {
          float& kept = pairs[stretch * pair_floats_ + i];
          const float value = peaks_[static_cast<std::size_t>(peak) * pair_floats_ + i];
          if (i % 2 == 0 ? value < kept : value > kept) kept = value;
        }
      }
    }
    return Bits(pairs);
  }

  std::vector<float> Neutral(std::size_t stretches) const {
    std::vector<float> pairs;
    for (std::size_t i = 0; i < stretches * pair_floats_; ++i) {
      pairs.push_back(i % 2 == 0 ? kNoLowest : kNoHighest);
    }
    return pairs;
  }
  static std::vector<std::uint32_t> Bits(const std::vector<float>& pairs) {
    std::vector<std::uint32_t> bits;
    for (const float value : pairs) bits.push_back(std::bit_cast<std::uint32_t>(value));
    return bits;
  }

  std::mt19937 random_{11};
  std::vector<float> peaks_;
  std::size_t pair_floats_ = 4;
  // Mostly equal values.
  bool flat_ = false;
  // Peaks that the last summary read.
  std::int64_t read_ = 0;
};

TEST_F(PeakGroupsTest, GiveWhatAWalkOverThePeaksGivesWhileTheTakeGrows) {
  for (const std::size_t channels : {1u, 2u, 3u}) {
    pair_floats_ = 2 * channels;
    for (const bool flat : {false, true}) {
      SCOPED_TRACE(channels);
      peaks_.clear();
      flat_ = flat;
      PeakGroups groups(channels);
      for (int round = 0; round < 60; ++round) {
        Grow(Draw(0, 300));
        groups.Settle(Count());
        const std::int64_t first = Draw(0, Count());
        std::vector<std::int64_t> ends(static_cast<std::size_t>(Draw(1, 40)));
        for (std::int64_t& end : ends) end = Draw(first, Count());
        std::ranges::sort(ends);
        ASSERT_EQ(Extend(groups, first, ends), Walk(first, ends)) << round;
      }
    }
  }
}

TEST_F(PeakGroupsTest, ReadEachPeakOnceForTheSamePicture) {
  Grow(10'000);
  PeakGroups groups(2);
  groups.Settle(Count());
  std::vector<std::int64_t> ends;
  for (std::int64_t column = 1; column <= 50; ++column) ends.push_back(5 + column * 9'900 / 50);
  const auto picture = Extend(groups, 5, ends);
  EXPECT_LT(read_, 10'000 + 64);
  EXPECT_EQ(Extend(groups, 5, ends), picture);
  EXPECT_EQ(read_, 0);
  // Another one takes no more than a group for each column.
  ends.front() += 1;
  for (std::int64_t& end : ends) end += 64;
  EXPECT_EQ(Extend(groups, 70, ends), Walk(70, ends));
  EXPECT_LE(read_, 52 * 64);
}

}  // namespace
}  // namespace marlinda
