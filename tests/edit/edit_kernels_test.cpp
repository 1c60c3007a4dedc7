// The kernels of edits and of playing a section.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#ifndef _WIN32
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <array>
#include <limits>
#include <random>

#include "edit/play_section.h"
#include "edit/segment_list.h"
#include "edit/waveplot.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace marlinda {
namespace {

using ::testing::ElementsAre;

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// The fuzzer aborts if the kernels and the plain lists differ.
TEST(Edits, EqualWalksOverPlainLists) {
  std::mt19937 random(5);
  for (int round = 0; round < 500; ++round) {
    // Every other round avoids extreme positions, which overflow offsets, and backward segments:
    // ranges are then removed in place.
    const bool tame = round % 2 != 0;
    std::uniform_int_distribution<unsigned> byte(tame ? 3 : 0, tame ? 127 : 255);
    std::vector<std::uint8_t> bytes(random() % 2000);
    for (std::uint8_t& value : bytes) value = static_cast<std::uint8_t>(byte(random));
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
}

TEST(Edits, LeaveTheIterationOnItsSegment) {
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
  // Directly before and directly after the segment.
  EXPECT_EQ(next_after(700 + 301, 1)->begin, 302);
  EXPECT_EQ(next_after(700 + 1 + 303, 1)->source, 'B');
  EXPECT_EQ(list.Next()->begin, 303);
}

#ifndef _WIN32
// Counts machine instructions by single-stepping a child process, so that the result does not
// depend on the machine's speed.
template <class Work>
long InstructionsOf(Work&& work) {
  constexpr long kMaxSteps = 1'000'000;
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    work();
    raise(SIGUSR1);
  }
  int status = 0;
  long steps = 0;
  do {
    waitpid(child, &status, 0);
  } while (WIFSTOPPED(status) && WSTOPSIG(status) != SIGUSR1 && ++steps < kMaxSteps &&
           ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) == 0);
  EXPECT_TRUE(WIFSTOPPED(status));
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return steps;
}

// The costs of a read, an insertion and a deletion near the end.
std::array<long, 3> CostsAt(std::int64_t segments) {
  SegmentList<int> list;
  for (std::int64_t i = 0; i < segments; ++i) list.Append({1, 0, 100});
  const std::int64_t near_end = (segments - 2) * 100 + 7;
  std::int64_t frames = 0;
  int divided = 1;
  std::vector<SegmentList<int>::Segment> added = {{2, 0, 1}};
  const auto count = [&](int, const CSection& piece) { frames += piece.Length(); };
  return {InstructionsOf([&] {
            list.ForEachPiece({near_end, near_end + 50}, count);
          }),
          InstructionsOf([&] { list.Insert(near_end, added, divided); }), InstructionsOf([&] {
            list.Remove({near_end, near_end + 5}, divided);
          })};
}

TEST(Edits, CostHardlyMoreWithAHundredTimesTheSegments) {
  const auto few = CostsAt(1'000);
  const auto many = CostsAt(100'000);
  EXPECT_GT(few[0], 50);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_LT(many[i], (i == 0 ? 2 : 4) * few[i]) << i;
}
#endif

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
  EXPECT_THAT(Walk({100, 125}, false, 80, 2), ElementsAre(100, 20, 110, 20, 120, 10));
  EXPECT_THAT(Walk({100, 115}, true, 80, 2, 3), ElementsAre(100, 20, 110, 10, 100, 20));
  // 35 bytes are 8 samples: two frames of three channels and two samples, which do not count.
  EXPECT_THAT(Walk({0, 5}, false, 35, 3), ElementsAre(0, 8, 2, 8, 4, 3));
  EXPECT_THAT(Walk({0, 4}, false, 35, 3), ElementsAre(0, 8, 2, 6));
  // Less than a frame in 40 milliseconds.
  EXPECT_THAT(Walk({0, 2}, false, PlayBlockBytes(-44100, 2), 2), ElementsAre(0, 2, 1, 2));
  EXPECT_THAT(Walk({0, 10}, true, 80, -2), ElementsAre());
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
  std::vector<float> block(68, 1.0F);
  ApplyChannelMask(block, 34, 0xFFFFFFFF);
  EXPECT_THAT(block, ::testing::Each(1.0F));
  ApplyChannelMask(block, 34, 0x80000001);
  for (std::size_t i = 0; i < 68; ++i) EXPECT_EQ(block[i], i % 34 == 0 || i % 34 == 31) << i;
}

TEST(Overview, ScalesWithoutOverflow) {
  EXPECT_EQ(Scale(kMax / 2, 1 << 30, kMax), (1 << 29) - 1);
  EXPECT_EQ(Scale(kMax - 1, kMax - 1, kMax), kMax - 2);
  EXPECT_EQ(Scale(kMax, 2, 1), kMax);
}

}  // namespace
}  // namespace marlinda
