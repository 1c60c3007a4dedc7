#include "core/samples/audio_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

namespace marlinda {
namespace {

std::vector<float> Ramp(std::size_t count, float first = 0.0F) {
  std::vector<float> ramp(count);
  std::iota(ramp.begin(), ramp.end(), first);
  return ramp;
}

TEST(AudioQueue, GrowsByAtLeast2048SamplesBeforeItIsFull) {
  CAudioQueue queue;
  EXPECT_EQ(queue.Capacity(), 2048U);
  queue.Append(Ramp(2000));
  EXPECT_EQ(queue.Capacity(), 2048U);
  queue.Append(Ramp(48));
  EXPECT_EQ(queue.Capacity(), 4096U);
  queue.Append(Ramp(10000));
  EXPECT_EQ(queue.Capacity(), 14096U);
  EXPECT_EQ(queue.Count(), 12048U);
}

TEST(AudioQueue, ConsumesAsManySamplesAsAsked) {
  CAudioQueue queue;
  queue.Append(Ramp(10));
  std::vector<float> seen(4);
  queue.Read(seen, 0);
  EXPECT_EQ(seen, Ramp(4));
  EXPECT_EQ(queue.Count(), 10U);
  queue.Read(seen, 2);
  EXPECT_EQ(queue.Count(), 8U);
  queue.Read(seen);
  EXPECT_EQ(seen, Ramp(4, 2));
  EXPECT_EQ(queue.Count(), 4U);
  // More than there is: what is there, then silence, never an old sample again.
  std::vector<float> beyond(6, 9.0F);
  queue.Read(beyond);
  EXPECT_EQ(beyond, (std::vector<float>{6, 7, 8, 9, 0, 0}));
  EXPECT_EQ(queue.Count(), 0U);
}

TEST(AudioQueue, KeepsEverySampleInOrderForAllBlockSizes) {
  CAudioQueue queue;
  std::mt19937 random(7);
  // Counts up, as far as floats count.
  std::size_t written = 0;
  std::size_t read = 0;
  while (written < 500'000) {
    if (random() % 2 == 0) {
      const auto block = Ramp(random() % 900, static_cast<float>(written));
      written += block.size();
      queue.Append(block);
    } else {
      std::vector<float> block(std::min<std::size_t>(random() % 900, written - read));
      queue.Read(block);
      ASSERT_EQ(block, Ramp(block.size(), static_cast<float>(read)));
      read += block.size();
    }
    ASSERT_EQ(queue.Count(), written - read);
    ASSERT_LT(queue.Count(), queue.Capacity());
  }
}

TEST(AudioQueue, CarriesAStreamBetweenTwoThreads) {
  CAudioQueue queue;
  constexpr int kBlocks = 200;
  std::thread producer([&] {
    for (int block = 0; block < kBlocks; ++block) {
      queue.Append(std::vector<float>(100, static_cast<float>(block)));
    }
  });
  std::vector<float> got(50);
  for (int half = 0; half < 2 * kBlocks; ++half) {
    while (queue.Count() < got.size()) std::this_thread::yield();
    queue.Read(got);
    ASSERT_EQ(got, std::vector<float>(50, static_cast<float>(half / 2)));
  }
  producer.join();
  EXPECT_EQ(queue.Count(), 0U);
}

TEST(AudioQueue, KeepsItsSamplesWhenReservedAndFreesMemoryWhenCleared) {
  CAudioQueue queue;
  queue.Append(Ramp(1500));
  std::vector<float> dropped(1000);
  queue.Read(dropped);
  queue.Append(Ramp(1500, 1500));  // wraps around the ring's end
  queue.Reserve(10000);
  EXPECT_EQ(queue.Capacity(), 10000U);
  queue.Reserve(5000);
  EXPECT_EQ(queue.Capacity(), 10000U);
  std::vector<float> kept(2000);
  queue.Read(kept, 0);
  EXPECT_EQ(kept, Ramp(2000, 1000));
  queue.Clear();
  EXPECT_EQ(queue.Count(), 0U);
  EXPECT_EQ(queue.Capacity(), 2048U);
}

}  // namespace
}  // namespace marlinda
