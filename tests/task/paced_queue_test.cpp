#include "task/paced_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/sample_count.h"

namespace marlinda {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kMost = PacedQueue::kMostQueued;
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

bool NeverAsked() { throw std::logic_error("asked although nobody waits in vain"); }

TEST(SampleCount, IsTheProductDividedAndTruncatedAndNeverOverflows) {
  static_assert(ConvertSampleCount(44100, 44100, 22050) == 22050);
  EXPECT_EQ(ConvertSampleCount(44101, 44100, 22050), 22050);
  EXPECT_EQ(ConvertSampleCount(-44101, 44100, 22050), -22050);
  EXPECT_EQ(ConvertSampleCount(132300, 44100, 48000), 144000);
  for (const std::int64_t count : {0, 1, 2, 146, 147, 99999, 2147483647}) {
    EXPECT_EQ(ConvertSampleCount(count, 44100, 48000), count * 48000 / 44100) << count;
  }
  EXPECT_EQ(ConvertSampleCount(kMax, 44100, 44100), kMax);
  EXPECT_EQ(ConvertSampleCount(kMax, 96000, 48000), kMax / 2);
  EXPECT_EQ(ConvertSampleCount(kMax - 1, 1, 2147483647), kMax);
  EXPECT_EQ(ConvertSampleCount(-kMax, 1, 2147483647), -kMax - 1);
  EXPECT_EQ(ConvertSampleCount(77, 0, 48000), 77);
  EXPECT_EQ(ConvertSampleCount(77, 44100, -1), 77);
}

TEST(PacedQueue, LetsTheWriterGoOnUntilItHoldsMoreThanTheLimit) {
  PacedQueue queue({milliseconds(10), 10});
  queue.Put(std::vector<float>(kMost - 1));
  EXPECT_TRUE(queue.HasRoom());
  queue.Put(std::vector<float>(1));
  EXPECT_FALSE(queue.HasRoom());
  EXPECT_TRUE(queue.AwaitRoom(NeverAsked));
  queue.Put(std::vector<float>(1));

  int rounds = 0;
  std::vector<float> one(1);
  EXPECT_TRUE(queue.AwaitRoom([&] {
    if (++rounds == 15) queue.Take(one);
    return true;
  }));
  EXPECT_EQ(rounds, 15);
}

TEST(PacedQueue, ReaderWaitsAsManyRoundsAsItIsAllowedOverAllItsWaits) {
  PacedQueue queue({milliseconds(5), 10});
  queue.Put(std::vector<float>{1, 2, 3});
  int timeouts = 0;
  EXPECT_TRUE(queue.AwaitSamples(3, timeouts));
  while (queue.AwaitSamples(4, timeouts)) {
  }
  EXPECT_EQ(timeouts, 10);
  std::vector<float> four(4, 9.0F);
  queue.Take(four);
  EXPECT_EQ(four, (std::vector<float>{1, 2, 3, 0}));

  timeouts = 0;
  queue.Hurry();
  while (queue.AwaitSamples(4, timeouts)) {
  }
  EXPECT_EQ(timeouts, 1);
}

TEST(PacedQueue, ClosingLetsBothSidesOutAtOnceAndForGood) {
  PacedQueue queue({std::chrono::hours(1), 10});
  queue.Put(std::vector<float>(kMost + 1));
  std::thread writer([&] { EXPECT_FALSE(queue.AwaitRoom(NeverAsked)); });
  std::thread reader([&] {
    int timeouts = 0;
    while (queue.AwaitSamples(kMost + 2, timeouts)) {
    }
    EXPECT_EQ(timeouts, 0);
  });
  queue.Close();
  writer.join();
  reader.join();
  EXPECT_FALSE(queue.AwaitRoom(NeverAsked));

  PacedQueue abandoned({milliseconds(1), 10});
  abandoned.Put(std::vector<float>(kMost + 1));
  EXPECT_FALSE(abandoned.AwaitRoom([] { return false; }));
  EXPECT_FALSE(abandoned.AwaitRoom(NeverAsked));
}

TEST(PacedQueue, CarriesAStreamLongerThanItselfWhicheverSideIsFaster) {
  PacedQueue queue;
  constexpr std::size_t kTotal = kMost + kMost / 2;
  constexpr std::size_t kBlock = 16384;
  std::atomic<std::size_t> most = 0;
  std::thread writer([&] {
    std::vector<float> block(kBlock);
    for (std::size_t at = 0; at < kTotal; at += kBlock) {
      ASSERT_TRUE(queue.AwaitRoom([] { return true; }));
      std::iota(block.begin(), block.end(), static_cast<float>(at));
      queue.Put(block);
      most = std::max<std::size_t>(most, queue.Count());
    }
  });
  std::vector<float> got(10000);
  for (std::size_t at = 0; at < kTotal;) {
    const std::size_t count = std::min(got.size(), kTotal - at);
    int timeouts = 0;
    while (queue.Count() < count) ASSERT_TRUE(queue.AwaitSamples(count, timeouts));
    queue.Take(std::span(got).first(count));
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(got[i], static_cast<float>(at + i));
    at += count;
  }
  writer.join();
  EXPECT_LE(most, kMost + kBlock);
}

}  // namespace
}  // namespace marlinda
