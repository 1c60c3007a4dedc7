#include "edit/play_section.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

namespace marlinda {
namespace {

using ::testing::ElementsAre;

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

struct Block {
  std::int64_t position;
  std::size_t samples;
  bool operator==(const Block&) const = default;
};

// The first blocks of a walk, at most `max_blocks`.
std::vector<Block> Walk(const CSection& section, bool looped, std::int64_t block_bytes,
                        std::int64_t channels, std::size_t max_blocks) {
  std::vector<Block> blocks;
  for (PlayCursor cursor(section, looped, block_bytes, channels);
       !cursor.AtEnd() && blocks.size() < max_blocks; cursor.Advance()) {
    blocks.push_back({cursor.Position(), cursor.Samples()});
  }
  return blocks;
}

TEST(PlaySection, BlocksAreFortyMillisecondsRoundedDownToBytes) {
  EXPECT_EQ(PlayBlockBytes(44100, 2), 1764 * 8);
  EXPECT_EQ(PlayBlockBytes(8000, 1), 320 * 4);
  EXPECT_EQ(PlayBlockBytes(44056, 2), 14097);
  EXPECT_EQ(PlayBlockBytes(std::numeric_limits<std::int32_t>::max(), 32767),
            std::int64_t{2147483647} * 32767 * 4 / 25);
}

TEST(PlaySection, WalksInBlocksShortensTheLastOneAndLoops) {
  EXPECT_THAT(Walk({100, 125}, false, 80, 2, 9),
              ElementsAre(Block{100, 20}, Block{110, 20}, Block{120, 10}));
  EXPECT_THAT(Walk({0, 20}, false, 80, 2, 9), ElementsAre(Block{0, 20}, Block{10, 20}));
  EXPECT_THAT(Walk({100, 115}, true, 80, 2, 3),
              ElementsAre(Block{100, 20}, Block{110, 10}, Block{100, 20}));
  EXPECT_THAT(Walk({7, 10}, true, 80, 2, 2), ElementsAre(Block{7, 6}, Block{7, 6}));
  // 35 bytes are 8 samples: two frames of three channels and two samples, which do not count.
  EXPECT_THAT(Walk({0, 5}, false, 35, 3, 9), ElementsAre(Block{0, 8}, Block{2, 8}, Block{4, 3}));
  EXPECT_THAT(Walk({0, 4}, false, 35, 3, 9), ElementsAre(Block{0, 8}, Block{2, 6}));
}

TEST(PlaySection, OddFormatsAndBoundsEnd) {
  // Less than a frame in 40 milliseconds.
  EXPECT_THAT(Walk({0, 2}, false, PlayBlockBytes(1, 2), 2, 9),
              ElementsAre(Block{0, 2}, Block{1, 2}));
  EXPECT_EQ(Walk({0, 2}, false, PlayBlockBytes(-44100, 2), 2, 9).size(), 2U);
  for (const bool looped : {false, true}) {
    EXPECT_THAT(Walk({0, 10}, looped, 80, 0, 9), ElementsAre());
    EXPECT_THAT(Walk({0, 10}, looped, 80, -2, 9), ElementsAre());
    EXPECT_THAT(Walk({10, 3}, looped, 80, 2, 9), ElementsAre());
  }
  EXPECT_THAT(Walk({kMax - 15, kMax}, false, 80, 2, 9),
              ElementsAre(Block{kMax - 15, 20}, Block{kMax - 5, 10}));
  EXPECT_THAT(Walk({kMin, kMax}, true, 80, 2, 2),
              ElementsAre(Block{kMin, 20}, Block{kMin + 10, 20}));
  EXPECT_THAT(Walk({0, kMax}, false, kMax, 32767, 1),
              ElementsAre(Block{0, static_cast<std::size_t>(std::min<std::uint64_t>(
                                       kMax / 4, std::numeric_limits<std::size_t>::max()))}));
}

std::vector<float> Masked(std::vector<float> block, std::size_t channels, std::uint32_t mask) {
  ApplyChannelMask(block, channels, mask);
  return block;
}

TEST(PlaySection, MaskSilencesTheChannelsWhoseBitsAreClear) {
  const std::vector<float> block = {1, 2, 3, 4, 5, 6};
  EXPECT_THAT(Masked(block, 2, 1), ElementsAre(1, 0, 3, 0, 5, 0));
  EXPECT_THAT(Masked(block, 3, 6), ElementsAre(0, 2, 3, 0, 5, 6));
  EXPECT_EQ(Masked(block, 2, 3), block);
  EXPECT_THAT(Masked(block, 2, 0xFFFFFFFE), ElementsAre(0, 2, 0, 4, 0, 6));
  EXPECT_EQ(Masked(block, 0, 0), block);
  const std::vector<float> frame(34, 1.0F);
  EXPECT_EQ(Masked(frame, 34, 0xFFFFFFFF), frame);
  std::vector<float> only(34, 0.0F);
  only[31] = 1.0F;
  EXPECT_EQ(Masked(frame, 34, 0x80000000), only);
}

TEST(PlaySection, PositionsStayInsideTheSectionAndTheDocument) {
  EXPECT_EQ(PositionInSection({100, 110}, 9), 109);
  EXPECT_EQ(PositionInSection({100, 110}, 10), 100);
  EXPECT_EQ(PositionInSection({100, 110}, std::int64_t{10} << 32), 100);
  // Longer than any count of frames.
  EXPECT_EQ(PositionInSection({kMin, kMax}, 5), kMin + 5);
  EXPECT_EQ(ScrubBlockBegin(10'000, 4410), 10'000 - 2205);
  EXPECT_EQ(ScrubBlockBegin(2204, 4410), 0);
  EXPECT_EQ(ScrubBlockBegin(kMin, 4410), 0);
  EXPECT_EQ(ScrubBlockBegin(kMax, -4410), kMax);
}

}  // namespace
}  // namespace marlinda
