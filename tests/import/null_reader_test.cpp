#include <gtest/gtest.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

ComPtr<INullReader> StereoSilence(__int64 frames) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  EXPECT_EQ(silence->Create(frames, 48000, 2), S_OK);
  return silence;
}

TEST(NullReader, ReportsTheFormatItWasGivenAndZerosBefore) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  auto reader = As<IAudioReader>(silence);
  LONG rate = -1;
  SHORT channels = -1;
  __int64 count = -1;
  EXPECT_EQ(reader->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(reader->GetSampleCount(&count), S_OK);
  EXPECT_EQ(rate, 0);
  EXPECT_EQ(channels, 0);
  EXPECT_EQ(count, 0);

  // Nothing is validated, and a second Create replaces the first.
  EXPECT_EQ(silence->Create(1000, 48000, 2), S_OK);
  EXPECT_EQ(silence->Create(-5, -1, -2), S_OK);
  EXPECT_EQ(reader->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(reader->GetSampleCount(&count), S_OK);
  EXPECT_EQ(rate, -1);
  EXPECT_EQ(channels, -2);
  EXPECT_EQ(count, -5);
}

TEST(NullReader, FillsEveryReadWithSilenceWhereverItIs) {
  auto silence = StereoSilence(100);
  auto reader = As<IAudioReader>(silence);
  auto peaks = As<IPeakReader>(silence);
  for (const __int64 position : {0LL, 50LL, 100LL, 1LL << 40, -7LL}) {
    Floats block(8, 0.5F, 5);
    EXPECT_EQ(reader->ReadAudio(position, block), S_OK);
    EXPECT_EQ(block.ToVector(), std::vector<float>(8, 0.0F));
    Floats peak_block(8, 0.5F);
    EXPECT_EQ(peaks->ReadPeaks(position, peak_block), S_OK);
    EXPECT_EQ(peak_block.ToVector(), std::vector<float>(8, 0.0F));
  }
  Floats empty(0);
  EXPECT_EQ(reader->ReadAudio(0, empty), S_OK);
  LONG frames_per_peak = 0;
  EXPECT_EQ(peaks->GetSamplesPerPeak(&frames_per_peak), S_OK);
  EXPECT_EQ(frames_per_peak, 256);
}

}  // namespace
}  // namespace marlinda::testing
