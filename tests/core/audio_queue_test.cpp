#include "core/samples/audio_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

namespace marlinda {
namespace {

std::vector<float> Ramp(std::size_t count, std::size_t first = 0) {
  std::vector<float> ramp(count);
  std::iota(ramp.begin(), ramp.end(), static_cast<float>(first));
  return ramp;
}

TEST(AudioQueue, GrowsBeforeItIsFullAndFreesMemoryWhenCleared) {
  CAudioQueue queue;
  queue.Append(Ramp(1500));
  std::vector<float> seen(1000);
  queue.Read(seen);
  queue.Append(Ramp(1547, 1500));  // wraps around the ring's end
  EXPECT_EQ(queue.Capacity(), 2048U);
  queue.Append(Ramp(1, 3047));
  EXPECT_EQ(queue.Capacity(), 4096U) << "at least 2048 more";
  queue.Append(Ramp(10000, 3048));
  EXPECT_EQ(queue.Capacity(), 14096U);
  for (const std::size_t reserved : {20000U, 5000U}) {
    queue.Reserve(reserved);
    EXPECT_EQ(queue.Capacity(), 20000U);
  }
  seen.assign(12050, 9.0F);
  queue.Read(seen, 5);
  auto expected = Ramp(12048, 1000);
  expected.resize(12050);
  EXPECT_EQ(seen, expected) << "silence where nothing is left";
  EXPECT_EQ(queue.Count(), 12043U);
  queue.Clear();
  EXPECT_EQ(queue.Count(), 0U);
  EXPECT_EQ(queue.Capacity(), 2048U);
}

TEST(AudioQueue, CarriesAStreamOfAnyBlocksBetweenTwoThreads) {
  CAudioQueue queue;
  // As far as floats count.
  constexpr std::size_t kSamples = 500'000;
  std::jthread producer([&] {
    std::mt19937 random(7);
    for (std::size_t written = 0; written < kSamples;) {
      const auto block = Ramp(std::min<std::size_t>(random() % 900, kSamples - written), written);
      queue.Append(block);
      written += block.size();
    }
  });
  std::mt19937 random(8);
  for (std::size_t read = 0; read < kSamples;) {
    std::vector<float> block(std::min<std::size_t>(random() % 900, queue.Count()));
    queue.Read(block);
    ASSERT_EQ(block, Ramp(block.size(), read));
    read += block.size();
  }
}

}  // namespace
}  // namespace marlinda
