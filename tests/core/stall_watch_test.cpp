#include "core/stall_watch.h"

#include <gtest/gtest.h>

namespace marlinda {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(StallWatch, CountsTheTimeInWhichTheCounterWasSeenToStandStill) {
  StallWatch watch;
  StallWatch::Clock::time_point now{seconds(1000)};
  // The first look is a change, whatever the counter is.
  EXPECT_EQ(watch.Look(0, now), seconds(0));
  for (int i = 1; i <= 4; ++i)
    EXPECT_EQ(watch.Look(0, now += milliseconds(500)), i * milliseconds(500));
  // Forward and backward are both a change: a loop.
  EXPECT_EQ(watch.Look(7, now += milliseconds(500)), seconds(0));
  EXPECT_EQ(watch.Look(3, now += milliseconds(500)), seconds(0));
  EXPECT_EQ(watch.Look(3, now += milliseconds(500)), milliseconds(500));
  // An hour in which nobody could look, and a clock that was set back.
  EXPECT_EQ(watch.Look(3, now += seconds(3600)), milliseconds(1500));
  EXPECT_EQ(watch.Look(3, now -= seconds(10)), milliseconds(1500));
  watch.Restart();
  EXPECT_EQ(watch.Look(3, now), seconds(0));
}

}  // namespace
}  // namespace marlinda
