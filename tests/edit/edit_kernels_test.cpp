// The kernels of edits, of playing a section and of the overview.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <iterator>
#include <limits>
#include <random>

#include "edit/play_section.h"
#include "edit/segment_list.h"
#include "edit/waveplot.h"
#include "tests/edit/plain_overview.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace marlinda {
namespace {

using ::testing::ElementsAre;
using testing::PlainOverview;

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// The fuzzer aborts where the kernels and the plain lists differ.
TEST(Edits, GiveWhatWalksOverPlainListsGive) {
  std::mt19937 random(5);
  for (int round = 0; round < 500; ++round) {
    // Every other round has neither extreme positions, where offsets overflow, nor backward
    // segments: only then are ranges removed in place.
    const bool tame = round % 2 != 0;
    std::uniform_int_distribution<unsigned> byte(tame ? 3 : 0, tame ? 127 : 255);
    std::vector<std::uint8_t> bytes(random() % 2000);
    for (std::uint8_t& value : bytes) value = static_cast<std::uint8_t>(byte(random));
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
}

TEST(Edits, LeaveTheIterationOnItsSegment) {
  SegmentList<char> list;
  const auto insert = [&](std::int64_t position, std::size_t count) {
    std::vector<SegmentList<char>::Segment> added(count, {'B', 0, 1});
    char divided = 'A';
    list.Insert(position, added, divided);
  };
  for (int i = 0; i < 600; ++i) list.Append({'A', i, i + 1});
  list.First();
  for (int i = 1; i <= 300; ++i) ASSERT_EQ(list.Next()->begin, i);
  insert(10, 700);
  EXPECT_EQ(list.Next()->begin, 301);
  // Directly before the segment, and directly behind it.
  insert(700 + 301, 1);
  EXPECT_EQ(list.Next()->begin, 302);
  insert(700 + 1 + 303, 1);
  EXPECT_EQ(list.Next()->source, 'B');
  for (int i = 303; i < 600; ++i) ASSERT_EQ(list.Next()->begin, i);
  EXPECT_EQ(list.Next(), nullptr);
}

// The first blocks of a walk as pairs of position and samples.
std::vector<std::int64_t> Walk(const CSection& section, bool looped, std::int64_t block_bytes,
                               std::int64_t channels, std::size_t max_blocks = 9) {
  std::vector<std::int64_t> blocks;
  for (PlayCursor cursor(section, looped, block_bytes, channels);
       !cursor.AtEnd() && blocks.size() < 2 * max_blocks; cursor.Advance()) {
    blocks.push_back(cursor.Position());
    blocks.push_back(static_cast<std::int64_t>(cursor.Samples()));
  }
  return blocks;
}

TEST(PlaySection, WalksInBlocksOfFortyMillisecondsShortensTheLastOneAndLoops) {
  EXPECT_EQ(PlayBlockBytes(44100, 2), 1764 * 8);
  EXPECT_EQ(PlayBlockBytes(2147483647, 32767), std::int64_t{2147483647} * 32767 * 4 / 25);
  EXPECT_THAT(Walk({100, 125}, false, 80, 2), ElementsAre(100, 20, 110, 20, 120, 10));
  EXPECT_THAT(Walk({0, 20}, false, 80, 2), ElementsAre(0, 20, 10, 20));
  EXPECT_THAT(Walk({100, 115}, true, 80, 2, 3), ElementsAre(100, 20, 110, 10, 100, 20));
  EXPECT_THAT(Walk({7, 10}, true, 80, 2, 2), ElementsAre(7, 6, 7, 6));
  // 35 bytes are 8 samples: two frames of three channels and two samples, which do not count.
  EXPECT_THAT(Walk({0, 5}, false, 35, 3), ElementsAre(0, 8, 2, 8, 4, 3));
  EXPECT_THAT(Walk({0, 4}, false, 35, 3), ElementsAre(0, 8, 2, 6));
  // Less than a frame in 40 milliseconds.
  EXPECT_THAT(Walk({0, 2}, false, PlayBlockBytes(-44100, 2), 2), ElementsAre(0, 2, 1, 2));
  for (const std::int64_t channels : {0, -2}) {
    EXPECT_THAT(Walk({0, 10}, true, 80, channels), ElementsAre());
  }
  EXPECT_THAT(Walk({10, 3}, true, 80, 2), ElementsAre());
  EXPECT_THAT(Walk({kMax - 15, kMax}, false, 80, 2), ElementsAre(kMax - 15, 20, kMax - 5, 10));
  EXPECT_THAT(Walk({kMin, kMax}, true, 80, 2, 2), ElementsAre(kMin, 20, kMin + 10, 20));
  // Positions stay inside the section and the document.
  EXPECT_EQ(PositionInSection({100, 110}, 9), 109);
  EXPECT_EQ(PositionInSection({100, 110}, std::int64_t{10} << 32), 100);
  EXPECT_EQ(PositionInSection({kMin, kMax}, 5), kMin + 5);
  EXPECT_EQ(ScrubBlockBegin(10'000, 4410), 10'000 - 2205);
  EXPECT_EQ(ScrubBlockBegin(kMin, 4410), 0);
  EXPECT_EQ(ScrubBlockBegin(kMax, -4410), kMax);
}

TEST(PlaySection, MaskSilencesTheChannelsWhoseBitsAreClear) {
  const auto masked = [](std::size_t channels, std::uint32_t mask) {
    std::vector<float> block = {1, 2, 3, 4, 5, 6};
    ApplyChannelMask(block, channels, mask);
    return block;
  };
  EXPECT_THAT(masked(2, 1), ElementsAre(1, 0, 3, 0, 5, 0));
  EXPECT_THAT(masked(3, 6), ElementsAre(0, 2, 3, 0, 5, 6));
  EXPECT_THAT(masked(2, 3), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(masked(0, 0), ElementsAre(1, 2, 3, 4, 5, 6));
  std::vector<float> frame(34, 1.0F);
  ApplyChannelMask(frame, 34, 0xFFFFFFFF);
  EXPECT_EQ(frame, std::vector<float>(34, 1.0F));
  ApplyChannelMask(frame, 34, 0x80000001);
  std::vector<float> only(34);
  only[0] = only[31] = 1.0F;
  EXPECT_EQ(frame, only);
}

class Overview : public ::testing::Test {
 protected:
  std::int64_t Draw(std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random_);
  }
  // Noise with values that comparisons treat in a way of their own: NaN, both zeros, infinities.
  std::vector<float> Noise(std::int64_t count) {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    const float special[] = {kNaN, -kNaN, 0.0F, -0.0F, kInfinity, -kInfinity, 1.0F};
    std::uniform_real_distribution<float> noise(-2.0F, 2.0F);
    std::vector<float> samples(static_cast<std::size_t>(count));
    const bool silent = Draw(0, 3) == 0;
    for (float& sample : samples) {
      const auto draw = static_cast<std::size_t>(Draw(0, silent ? 3 : 60));
      sample = draw < std::size(special) ? special[draw] : noise(random_);
    }
    return samples;
  }

  // Draws a piece of `unit` * channels floats a record, in blocks of random sizes.
  template <class Kernel, class Reference>
  void Compare(Kernel kernel, Reference reference, std::int64_t unit, std::int64_t fewest) {
    for (int round = 0; round < 2000; ++round) {
      const std::int64_t channels = Draw(1, 5);
      const std::int64_t n = Draw(1, 60);
      const std::int64_t count = Draw(fewest, round % 2 == 0 ? 60 : 400);
      const std::vector<float> data = Noise(count * channels * unit);
      std::vector<float> expected = Noise(n * channels * 2);
      // The array may end before the piece does.
      const std::int64_t visible = Draw(0, 3) == 0 ? Draw(0, n) : n;
      std::vector<float> pairs(expected.begin(), expected.begin() + visible * channels * 2);
      (PlainOverview(expected, channels).*reference)(0, n, data.data(), count);
      for (std::int64_t first = 0, block = 0; first == 0 || first < count; first += block) {
        block = std::min(count - first, round % 3 == 0 ? count : Draw(1, 50));
        kernel(pairs, static_cast<std::size_t>(channels), n, count, first,
               std::span(data).subspan(static_cast<std::size_t>(first * channels * unit),
                                       static_cast<std::size_t>(block * channels * unit)));
        if (count == 0) break;
      }
      // Bits, so that a NaN equals itself and the zeros differ.
      constexpr auto kBits = std::bit_cast<std::uint32_t, float>;
      ASSERT_TRUE(
          std::ranges::equal(pairs, std::span(expected).first(pairs.size()), {}, kBits, kBits))
          << n << " columns, " << count << " records, " << channels << " channels";
    }
  }

  std::mt19937 random_{3};
};

TEST_F(Overview, DrawsWhatPlainLoopsDrawWhateverTheBlocks) {
  Compare(DrawSamples, &PlainOverview::Samples, 1, 1);
  Compare(DrawPeaks, &PlainOverview::Peaks, 2, 0);
}

TEST_F(Overview, ScalesWithoutOverflow) {
  EXPECT_EQ(Scale(999, 1920, 1000), 1918);
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
