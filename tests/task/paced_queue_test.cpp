#include "task/paced_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <numeric>
#include <thread>
#include <vector>

#include "core/sample_count.h"

namespace marlinda {
namespace {

constexpr std::size_t kMax = PacedQueue::kMaxQueued;
// A wake-up that is lost hangs the test.
constexpr PacedQueue::Pace kPatient = {std::chrono::hours(1), 10};

TEST(SampleCount, IsTheProductDividedAndTruncatedAndNeverOverflows) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  static_assert(ConvertSampleCount(44100, 44100, 22050) == 22050);
  EXPECT_EQ(ConvertSampleCount(-44101, 44100, 22050), -22050);
  for (const std::int64_t count : {0, 1, 2, 146, 147, 99999, 2147483647}) {
    EXPECT_EQ(ConvertSampleCount(count, 44100, 48000), count * 48000 / 44100) << count;
  }
  EXPECT_EQ(ConvertSampleCount(kMost, 44100, 44100), kMost);
  EXPECT_EQ(ConvertSampleCount(kMost, 96000, 48000), kMost / 2);
  EXPECT_EQ(ConvertSampleCount(kMost - 1, 1, 2147483647), kMost);
  EXPECT_EQ(ConvertSampleCount(-kMost, 1, 2147483647), -kMost - 1);
  EXPECT_EQ(ConvertSampleCount(77, 0, 48000), 77);
  EXPECT_EQ(ConvertSampleCount(77, 44100, -1), 77);
}

TEST(PacedQueue, LetsTheWriterGoOnUntilItHoldsMoreThanTheLimit) {
  PacedQueue queue(kPatient);
  queue.Put(std::vector<float>(kMax - 1));
  EXPECT_TRUE(queue.HasRoom());
  queue.Put(std::vector<float>(1));
  EXPECT_FALSE(queue.HasRoom());
  EXPECT_TRUE(queue.AwaitRoom());
  queue.Put(std::vector<float>(2));
  std::thread writer([&] {
    EXPECT_TRUE(queue.AwaitRoom());
    EXPECT_LE(queue.Count(), kMax);
  });
  std::vector<float> one(1);
  queue.Take(one);
  queue.Take(one);
  writer.join();
}

TEST(PacedQueue, WakesEitherSideAsSoonAsItsWaitIsOver) {
  constexpr int kRounds = 2000;
  PacedQueue samples(kPatient);
  PacedQueue room(kPatient);
  room.Put(std::vector<float>(kMax));
  std::atomic<int> round = 0;
  std::thread other([&] {
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
  other.join();
}

TEST(PacedQueue, EndsTheWaitsOfAReadAfterTheAllowedTimeouts) {
  PacedQueue queue({std::chrono::milliseconds(5), 10});
  queue.Put(std::vector<float>{1, 2, 3});
  int timeouts = 0;
  EXPECT_TRUE(queue.AwaitSamples(3, timeouts));
  EXPECT_EQ(timeouts, 0);
  EXPECT_FALSE(queue.AwaitSamples(4, timeouts));
  EXPECT_EQ(timeouts, 10);
  std::vector<float> four(4, 9.0F);
  queue.Take(four);
  EXPECT_EQ(four, (std::vector<float>{1, 2, 3, 0}));

  timeouts = 0;
  queue.LimitTimeouts(1);
  EXPECT_FALSE(queue.AwaitSamples(4, timeouts));
  EXPECT_EQ(timeouts, 1);
  queue.Reset();
  timeouts = 0;
  EXPECT_FALSE(queue.AwaitSamples(4, timeouts));
  EXPECT_EQ(timeouts, 10);
}

TEST(PacedQueue, InterruptEndsTheWaitsOfBothSidesUntilReset) {
  PacedQueue queue(kPatient);
  queue.Put(std::vector<float>(kMax + 1));
  std::thread writer([&] { EXPECT_FALSE(queue.AwaitRoom()); });
  std::thread reader([&] {
    int timeouts = 0;
    EXPECT_FALSE(queue.AwaitSamples(kMax + 2, timeouts));
    EXPECT_EQ(timeouts, 0);
  });
  queue.Interrupt();
  writer.join();
  reader.join();
  EXPECT_FALSE(queue.AwaitRoom());
  EXPECT_EQ(queue.Count(), kMax + 1);
  queue.Reset();
  EXPECT_EQ(queue.Count(), 0U);
  EXPECT_TRUE(queue.AwaitRoom());
}

TEST(PacedQueue, CarriesAStreamLongerThanItselfWhicheverSideIsFaster) {
  PacedQueue queue(kPatient);
  constexpr std::size_t kTotal = kMax + kMax / 2;
  constexpr std::size_t kBlock = 16384;
  std::atomic<std::size_t> most = 0;
  std::thread writer([&] {
    std::vector<float> block(kBlock);
    for (std::size_t at = 0; at < kTotal; at += kBlock) {
      ASSERT_TRUE(queue.AwaitRoom());
      std::iota(block.begin(), block.end(), static_cast<float>(at));
      queue.Put(block);
      most = std::max<std::size_t>(most, queue.Count());
    }
  });
  std::vector<float> got(100'000);
  std::size_t size = 10;  // at first the reader waits often, then seldom
  for (std::size_t at = 0; at < kTotal; size = std::min(2 * size, got.size())) {
    const std::span<float> part = std::span(got).first(std::min(size, kTotal - at));
    int timeouts = 0;
    ASSERT_TRUE(queue.AwaitSamples(part.size(), timeouts));
    queue.Take(part);
    for (const float sample : part) ASSERT_EQ(sample, static_cast<float>(at++));
  }
  writer.join();
  EXPECT_LE(most, kMax + kBlock);
}

}  // namespace
}  // namespace marlinda
