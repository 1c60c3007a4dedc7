#include "task/paced_queue.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>
#include <vector>

#include "core/sample_count.h"

namespace marlinda {
namespace {

constexpr std::size_t kMax = PacedQueue::kMaxQueued;
// A lost wake-up hangs the test.
constexpr PacedQueue::Pace kPatient = {std::chrono::hours(1), 10};

TEST(SampleCount, IsTheProductDividedAndTruncatedAndNeverOverflows) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(ConvertSampleCount(-44101, 44100, 22050), -22050);
  EXPECT_EQ(ConvertSampleCount(2147483647, 44100, 48000), 2147483647LL * 48000 / 44100);
  EXPECT_EQ(ConvertSampleCount(kMost, 96000, 48000), kMost / 2);
  EXPECT_EQ(ConvertSampleCount(kMost - 1, 1, 2147483647), kMost);
  EXPECT_EQ(ConvertSampleCount(-kMost, 1, 2147483647), -kMost - 1);
  EXPECT_EQ(ConvertSampleCount(77, 0, 48000), 77);
}

TEST(PacedQueue, WakesEitherSideAsSoonAsItsWaitIsOver) {
  constexpr int kRounds = 2000;
  PacedQueue samples(kPatient);
  PacedQueue room(kPatient);
  room.Put(std::vector<float>(kMax));
  EXPECT_FALSE(room.HasRoom());
  EXPECT_TRUE(room.AwaitRoom());  // at the limit, not above it
  std::atomic<int> round = 0;
  const std::jthread other([&] {
    const float one[1] = {};
    for (int i = 0; i < kRounds; ++i) {
      samples.Put(one);
      samples.Put(one);  // now as many as the reader waits for
      room.Put(one);     // one more than the limit
      round = i + 1;
      EXPECT_TRUE(room.AwaitRoom());
    }
  });
  std::vector<float> two(2);
  for (int i = 0; i < kRounds; ++i) {
    int timeouts = 0;
    ASSERT_TRUE(samples.AwaitSamples(2, timeouts));
    samples.Take(two);
    while (round == i) std::this_thread::yield();
    room.Take(std::span(two).first(1));
  }
}

TEST(PacedQueue, EndsAReadAfterItsTimeoutsAndBothWaitsWhenInterrupted) {
  PacedQueue queue({std::chrono::milliseconds(5), 10});
  const auto timeouts_of = [&](std::size_t wanted) {
    int timeouts = 0;
    const bool complete = queue.AwaitSamples(wanted, timeouts);
    EXPECT_EQ(complete, timeouts == 0);
    return timeouts;
  };
  queue.Put(std::vector<float>{1, 2, 3});
  EXPECT_EQ(timeouts_of(3), 0);
  EXPECT_EQ(timeouts_of(4), 10);
  queue.LimitTimeouts(1);
  EXPECT_EQ(timeouts_of(4), 1);
  queue.Reset();
  EXPECT_EQ(timeouts_of(4), 10);

  PacedQueue patient(kPatient);
  for (int round = 0; round < 20; ++round) {
    patient.Put(std::vector<float>(kMax + 1));
    std::atomic<int> begun = 0;
    std::thread writer([&] {
      ++begun;
      EXPECT_FALSE(patient.AwaitRoom());
    });
    std::thread reader([&] {
      int timeouts = 0;
      ++begun;
      EXPECT_FALSE(patient.AwaitSamples(kMax + 2, timeouts));
    });
    // In most rounds both sides wait when the interrupt comes.
    for (int i = 0; i < 100 || begun < 2; ++i) std::this_thread::yield();
    patient.Interrupt();
    writer.join();
    reader.join();
    EXPECT_FALSE(patient.AwaitRoom());
    EXPECT_EQ(patient.Count(), kMax + 1);
    patient.Reset();
    EXPECT_EQ(patient.Count(), 0U);
    EXPECT_TRUE(patient.AwaitRoom());
  }
}

}  // namespace
}  // namespace marlinda
