#include <gtest/gtest.h>

#include "device/scrub_pacer.h"

namespace marlinda {
namespace {

using std::chrono::milliseconds;

TEST(ScrubPacer, PassesAreDueShortlyBeforeTheDeviceRunsDryAndAtOnceAfterManyInterruptions) {
  ScrubPacer pacer(milliseconds(50));
  const ScrubPacer::Clock::time_point start(milliseconds(1'000));
  pacer.Written({});
  EXPECT_LT(pacer.Due(), start);
  pacer.RanDry(start);
  pacer.Written({});
  EXPECT_EQ(pacer.Due(), start + milliseconds(20));
  // A wait of more than 20 ms shows that the device plays more slowly than estimated.
  pacer.Written(milliseconds(21));
  EXPECT_EQ(pacer.Due(), start + milliseconds(90));

  for (const int reserve : {50, 70, 90}) {
    pacer.RanDry(start);
    pacer.Written({});
    EXPECT_EQ(pacer.Due(), start + milliseconds(50 - reserve));
  }
  pacer.RanDry(start);
  pacer.Written({});
  EXPECT_EQ(pacer.Due(), ScrubPacer::Clock::time_point::min());
}

}  // namespace
}  // namespace marlinda
