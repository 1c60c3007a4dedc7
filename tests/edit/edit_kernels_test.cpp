// Tests the kernels that edit a document and that play a section.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "edit/play_section.h"
#include "edit/segment_list.h"

namespace marlinda {
namespace {

using ::testing::ElementsAre;

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

TEST(Edits, DoNotMoveTheIterationToAnotherSegment) {
  SegmentList<char> list;
  for (int i = 0; i < 600; ++i) list.Append({'A', i, i + 1});
  list.First();
  for (int i = 1; i <= 300; ++i) ASSERT_EQ(list.Next()->begin, i);
  const auto next_after = [&](std::int64_t position, std::size_t count) {
    std::vector<SegmentList<char>::Segment> added(count, {'B', 0, 1});
    char divided = 'A';
    list.Insert(position, added, divided);
    return list.Next();
  };
  EXPECT_EQ(next_after(10, 700)->begin, 301);
  // Inserts directly before, and then directly after, the segment that Next returned last.
  EXPECT_EQ(next_after(700 + 301, 1)->begin, 302);
  EXPECT_EQ(next_after(700 + 1 + 303, 1)->source, 'B');
  EXPECT_EQ(list.Next()->begin, 303);
}

// If each edit or read visited all segments, this test would take so long that CTest would end it.
TEST(Edits, StayFastNearTheEndOfAMillionSegments) {
  constexpr std::int64_t kSegments = 1'000'000;
  constexpr int kEdits = 200'000;
  SegmentList<int> list;
  for (std::int64_t i = 0; i < kSegments; ++i) list.Append({1, 0, 100});
  std::int64_t frames = 0;
  for (int i = 0; i < kEdits; ++i) {
    const std::int64_t near_end = (kSegments - 2) * 100 + 7;
    std::vector<SegmentList<int>::Segment> added = {{2, 0, 1}};
    int divided = 1;
    list.Insert(near_end, added, divided);
    list.ForEachPiece({near_end, near_end + 2},
                      [&](int, const CSection& piece) { frames += piece.Length(); });
    list.Remove({near_end, near_end + 1}, divided);
  }
  EXPECT_EQ(frames, 2 * kEdits);
}

// Returns the first blocks that a cursor visits, each as its position and its number of samples.
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

TEST(PlaySection, PlaysBlocksOf40MillisecondsAndAShorterLastOneAndLoops) {
  EXPECT_EQ(PlayBlockBytes(44100, 2), 1764 * 8);
  EXPECT_THAT(Walk({100, 125}, false, 80, 2), ElementsAre(100, 20, 110, 20, 120, 10));
  EXPECT_THAT(Walk({100, 115}, true, 80, 2, 3), ElementsAre(100, 20, 110, 10, 100, 20));
  // A block of 35 bytes holds 8 samples. They are two frames and two surplus samples.
  EXPECT_THAT(Walk({0, 5}, false, 35, 3), ElementsAre(0, 8, 2, 8, 4, 3));
  EXPECT_THAT(Walk({0, 4}, false, 35, 3), ElementsAre(0, 8, 2, 6));
  // PlayBlockBytes is negative for a negative rate, but each block holds at least one frame.
  EXPECT_THAT(Walk({0, 2}, false, PlayBlockBytes(-44100, 2), 2), ElementsAre(0, 2, 1, 2));
  EXPECT_THAT(Walk({0, 10}, true, 80, -2), ElementsAre());
  EXPECT_THAT(Walk({kMin, kMax}, true, 80, 2, 2), ElementsAre(kMin, 20, kMin + 10, 20));
  // Positions stay inside the section and the document.
  EXPECT_EQ(PositionInSection({100, 110}, 9), 109);
  EXPECT_EQ(PositionInSection({100, 110}, std::int64_t{10} << 32), 100);
  EXPECT_EQ(ScrubBlockBegin(10'000, 4410), 10'000 - 2205);
  EXPECT_EQ(ScrubBlockBegin(kMin, 4410), 0);
  EXPECT_EQ(ScrubBlockBegin(kMax, -4410), kMax);
}

TEST(PlaySection, MaskSilencesTheChannelsWhoseBitsAreClear) {
  std::vector<float> block(68, 1.0F);
  ApplyChannelMask(block, 34, 0xFFFFFFFF);
  EXPECT_THAT(block, ::testing::Each(1.0F));
  ApplyChannelMask(block, 34, 0x80000001);
  for (std::size_t i = 0; i < 68; ++i) EXPECT_EQ(block[i], i % 34 == 0 || i % 34 == 31) << i;
}

}  // namespace
}  // namespace marlinda
