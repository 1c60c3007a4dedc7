#include <gtest/gtest.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

TEST(NullReader, ReportsWhatItWasGivenAndReadsSilenceEverywhere) {
  const auto silence = Create<INullReader>(CLSID_CNullReader);
  const auto reader = As<IAudioReader>(silence);
  const auto expect = [&](__int64 count, LONG rate, SHORT channels) {
    LONG told_rate = -9;
    SHORT told_channels = -9;
    __int64 told_count = -9;
    EXPECT_EQ(reader->GetFormat(&told_rate, &told_channels), S_OK);
    EXPECT_EQ(reader->GetSampleCount(&told_count), S_OK);
    EXPECT_TRUE(told_count == count && told_rate == rate && told_channels == channels);
  };
  expect(0, 0, 0);
  // Nothing is validated, and a second Create replaces the first.
  EXPECT_EQ(silence->Create(-5, -1, -2), S_OK);
  expect(-5, -1, -2);
  EXPECT_EQ(silence->Create(100, 48000, 2), S_OK);
  expect(100, 48000, 2);
  for (const __int64 position : {0LL, 1LL << 40, -7LL}) {
    const Floats block(8, 0.5F, 5);
    const Floats peaks(8, 0.5F);
    EXPECT_EQ(reader->ReadAudio(position, block), S_OK);
    EXPECT_EQ(As<IPeakReader>(silence)->ReadPeaks(position, peaks), S_OK);
    EXPECT_EQ(block.ToVector(), std::vector<float>(8));
    EXPECT_EQ(peaks.ToVector(), std::vector<float>(8));
  }
  LONG frames_per_peak = 0;
  EXPECT_EQ(As<IPeakReader>(silence)->GetSamplesPerPeak(&frames_per_peak), S_OK);
  EXPECT_EQ(frames_per_peak, 256);
}

}  // namespace
}  // namespace marlinda::testing
