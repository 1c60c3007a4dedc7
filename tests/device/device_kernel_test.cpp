#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <random>
#include <thread>

#include "device/audio_queue.h"
#include "device/level_meter.h"
#include "device/overlap_add.h"

namespace marlinda {
namespace {

std::vector<float> Ramp(std::size_t count, float first = 0.0F) {
  std::vector<float> ramp(count);
  std::iota(ramp.begin(), ramp.end(), first);
  return ramp;
}

TEST(AudioQueue, GrowsWhenAnAppendWouldFillItByAtLeast2048Samples) {
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

TEST(AudioQueue, ConsumesWhatItIsToldToAndNothingWhenOnlyLookedAt) {
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

TEST(AudioQueue, GivesBackEverySampleInOrderWhateverTheBlockSizes) {
  CAudioQueue queue;
  std::mt19937 random(7);
  // Counts up, as far as floats count.
  std::size_t written = 0;
  std::size_t read = 0;
  while (written < 2'000'000) {
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

TEST(AudioQueue, CarriesAStreamBetweenTwoThreadsUnchanged) {
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

TEST(OverlapAdd, WindowHasConstantPowerAcrossTheOverlap) {
  for (const std::size_t frames : {2U, 4U, 1024U, 4410U}) {
    const auto window = ScrubWindow(frames);
    ASSERT_EQ(window.size(), frames);
    EXPECT_EQ(window[0], 0.0F);
    EXPECT_NEAR(window[frames / 2], 1.0F, 1e-6);
    for (std::size_t i = 0; i < frames / 2; ++i) {
      ASSERT_NEAR(window[i] * window[i] + window[i + frames / 2] * window[i + frames / 2], 1.0,
                  1e-5);
    }
  }
  EXPECT_NEAR(ScrubWindow(8)[1], std::sin(3.14159265358979 / 8), 1e-6);
}

TEST(OverlapAdd, HeldBlockFadesInOnceAndThenRepeats) {
  OverlapAdd scrub(8, 2);
  std::vector<float> block(16);
  for (std::size_t frame = 0; frame < 8; ++frame) {
    block[2 * frame] = 1.0F;
    block[2 * frame + 1] = static_cast<float>(frame);
  }
  const auto w = ScrubWindow(8);
  std::vector<float> out(scrub.OutputSamples());
  ASSERT_EQ(out.size(), 8U);
  scrub.Pass(block, out);
  for (std::size_t j = 0; j < 4; ++j) {
    EXPECT_FLOAT_EQ(out[2 * j], w[j]);
    EXPECT_FLOAT_EQ(out[2 * j + 1], static_cast<float>(j) * w[j]);
  }
  for (int pass = 0; pass < 2; ++pass) {
    scrub.Pass(block, out);
    for (std::size_t j = 0; j < 4; ++j) {
      EXPECT_FLOAT_EQ(out[2 * j], w[j] + w[j + 4]);
      EXPECT_FLOAT_EQ(out[2 * j + 1],
                      static_cast<float>(j) * w[j] + static_cast<float>(j + 4) * w[j + 4]);
    }
  }
  // A silent block ends the sound within one pass.
  const std::vector<float> silence(16);
  scrub.Pass(silence, out);
  EXPECT_FLOAT_EQ(out[2], w[5]);
  scrub.Pass(silence, out);
  EXPECT_EQ(out, std::vector<float>(8, 0.0F));
}

TEST(LevelMeter, TakesTheLargestSignedSampleOfEachChannelFromZeroUp) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(ChannelPeaks(std::vector<float>{0.1F, -0.9F, 0.5F, -0.2F, 0.3F, -1.0F}, 2),
            (std::vector<float>{0.5F, 0.0F}));
  EXPECT_EQ(ChannelPeaks(std::vector<float>{nan, 0.25F, nan, 2.0F}, 2), (std::vector<float>{0, 2}));
  // The last, incomplete frame is not played and does not count.
  EXPECT_EQ(ChannelPeaks(std::vector<float>{0.1F, 0.2F, 0.9F}, 2),
            (std::vector<float>{0.1F, 0.2F}));
  EXPECT_TRUE(ChannelPeaks(std::vector<float>{1.0F}, 0).empty());
}

}  // namespace
}  // namespace marlinda
