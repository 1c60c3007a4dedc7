// Counts the machine instructions of a look-up by stepping a child process, so that the result does
// not depend on the speed of the machine.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "edit/segment_list.h"

namespace marlinda {
namespace {

constexpr int kEnd = SIGUSR1;
constexpr long kMaxSteps = 1'000'000;

template <class Work>
long InstructionsOf(Work&& work) {
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    work();
    raise(kEnd);
    _exit(0);
  }
  int status = 0;
  long steps = 0;
  waitpid(child, &status, 0);
  while (steps < kMaxSteps && ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) == 0 &&
         waitpid(child, &status, 0) == child && WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP) {
    ++steps;
  }
  EXPECT_TRUE(steps == kMaxSteps || (WIFSTOPPED(status) && WSTOPSIG(status) == kEnd));
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return steps;
}

// Instructions of a read, an insertion and a deletion near the end.
std::array<long, 3> CostsAt(std::int64_t segments) {
  constexpr std::int64_t kFrames = 100;
  SegmentList<int> list;
  for (std::int64_t i = 0; i < segments; ++i) list.Append({1, 0, kFrames});
  const std::int64_t near_end = (segments - 2) * kFrames + 7;
  int divided = 1;
  std::vector<SegmentList<int>::Segment> added = {{2, 0, 1}};
  return {InstructionsOf([&] {
            std::int64_t frames = 0;
            list.ForEachPiece({near_end, near_end + 50},
                              [&](int, const CSection& piece) { frames += piece.Length(); });
            if (frames != 50) _exit(1);
          }),
          InstructionsOf([&] { list.Insert(near_end, added, divided); }), InstructionsOf([&] {
            list.Remove({near_end, near_end + 5}, divided);
          })};
}

TEST(SegmentList, ReadsAndEditsCostHardlyMoreInAHundredTimesAsManySegments) {
  const auto few = CostsAt(1'000);
  const auto many = CostsAt(100'000);
  EXPECT_GT(few[0], 50);
  for (int i = 0; i < 3; ++i) EXPECT_LT(many[i], (i == 0 ? 2 : 4) * few[i]) << i;
}

}  // namespace
}  // namespace marlinda
