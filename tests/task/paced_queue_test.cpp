#include "task/paced_queue.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>
#include <vector>

#include "core/sample_count.h"

namespace marlinda {
namespace {

constexpr std::size_t kMax = PacedQueue::kMaxQueued;
// With this timeout of an hour, the test hangs if a wake-up is lost.
constexpr PacedQueue::Pace kPatient = {std::chrono::hours(1), 10};

TEST(SampleCount, ConversionTruncatesAndSaturates) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(ConvertSampleCount(-44101, 44100, 22050), -22050);
  EXPECT_EQ(ConvertSampleCount(2147483647, 44100, 48000), 2147483647LL * 48000 / 44100);
  EXPECT_EQ(ConvertSampleCount(kMost - 1, 1, 2147483647), kMost);
  EXPECT_EQ(ConvertSampleCount(77, 0, 48000), 77);
}

TEST(PacedQueue, WakesReaderAndWriterAsSoonAsTheyCanContinue) {
  constexpr int kRounds = 2000;
  PacedQueue samples(kPatient);
  PacedQueue room(kPatient);
  room.Put(std::vector<float>(kMax));
  EXPECT_FALSE(room.HasRoom());
  EXPECT_TRUE(room.AwaitRoom());  // at the limit; AwaitRoom waits only above it
  std::atomic<int> round = 0;
  const std::jthread other([&] {
    const float one[1] = {};
    for (int i = 0; i < kRounds; ++i) {
      samples.Put(one);
      samples.Put(one);  // now it holds as many as the reader waits for
      room.Put(one);     // now it holds one more than the limit
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

TEST(PacedQueue, ReadEndsAfterTooManyTimeoutsOrAnInterrupt) {
  PacedQueue queue({std::chrono::milliseconds(5), 10});
  for (const int limit : {10, 1}) {
    int timeouts = 0;
    if (limit == 1) queue.LimitTimeouts(limit);
    EXPECT_FALSE(queue.AwaitSamples(1, timeouts));
    EXPECT_EQ(timeouts, limit);
  }
  PacedQueue patient(kPatient);
  const std::jthread other([&] {
    // After these yields, the main thread usually waits in AwaitSamples.
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    patient.Interrupt();
  });
  int timeouts = 0;
  EXPECT_FALSE(patient.AwaitSamples(1, timeouts));
}

}  // namespace
}  // namespace marlinda
