// Compares the overview of documents with plain loops over the samples and peaks of a pool's
// reader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using Samples = std::vector<float>;

constexpr __int64 kFramesPerPeak = 256;
constexpr float kHost = 0.125F;

// Computes the expected overview. Draws each piece of audio into `n` columns, starting at column
// `first`.
struct PlainOverview {
  Samples pairs;
  __int64 channels;

  void DrawSamples(__int64 first, __int64 n, const Samples& samples) {
    const __int64 frames = std::ssize(samples) / channels;
    for (__int64 i = 0; i < n * channels; ++i) {
      const float shown = samples.data()[i / channels * frames / n * channels + i % channels];
      Set(first * channels + i, frames < n ? shown : 1.0F, frames < n ? shown : -1.0F);
    }
    for (__int64 i = 0; i < frames * channels && frames >= n; ++i) {
      const float* const sample = samples.data() + i;
      Extend((first + i / channels * n / frames) * channels + i % channels, *sample, *sample);
    }
  }
  void DrawPeaks(__int64 first, __int64 n, const Samples& peaks) {
    const __int64 count = std::ssize(peaks) / (2 * channels);
    for (__int64 i = 0; i < channels; ++i) Set(first * channels + i, 3.4028235e38F, -3.4028235e38F);
    for (__int64 i = 0; i < count * channels; ++i) {
      const __int64 column = i / channels * n / count;
      const __int64 at = (first + column) * channels + i % channels;
      if (column > std::max<__int64>(0, (i / channels - 1) * n / count)) {
        const float* const left = pairs.data() + 2 * (at - channels);
        Set(at, left[1], left[0]);
      }
      Extend(at, peaks.data()[2 * i], peaks.data()[2 * i + 1]);
    }
  }
  void Set(__int64 at, float minimum, float maximum) {
    pairs.data()[2 * at] = minimum;
    pairs.data()[2 * at + 1] = maximum;
  }
  void Extend(__int64 at, float low, float high) {
    float* const pair = pairs.data() + 2 * at;
    if (low < pair[0]) pair[0] = low;
    if (high > pair[1]) pair[1] = high;
  }
};

class EditedAudioWaveplot : public ::testing::Test {
 protected:
  // Draws a range into an array that holds kHost. Returns the array.
  Samples Plot(__int64 begin, __int64 end, std::size_t columns, std::size_t channels) {
    const Floats block(columns * 2 * channels, kHost);
    EXPECT_EQ(document_->ReadWaveplot(begin, end, block), S_OK);
    return block.ToVector();
  }
  // Returns two random numbers of the range, in ascending order.
  std::pair<__int64, __int64> Draw(__int64 low, __int64 high) {
    std::uniform_int_distribution<__int64> numbers(low, high);
    return std::minmax({numbers(random_), numbers(random_)});
  }

  std::mt19937 random_{11};
  CallLog log_;
  Document document_;
};

// Compares waveplots while a take grows. A new bit depth then makes the pool overwrite peaks.
TEST_F(EditedAudioWaveplot, AgreesWithPlainLoopsAtEveryZoomAndWidth) {
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto writer = As<IAudioWriter>(pool);
  const auto region = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  const auto audio = As<IAudioReader>(region);
  const auto peaks = As<IPeakReader>(region);
  ASSERT_EQ(pool->SetBitDepth(8, 0), S_OK);
  ASSERT_EQ(writer->SetFormat(44100, 2), S_OK);
  ASSERT_EQ(writer->OpenDevice(), S_OK);
  ASSERT_EQ(region->Create(pool.Get(), 0, 0, 0, 8), S_OK);
  PlainDocument plain;
  for (const auto& [source, begin, end] : {std::tuple{'A', 1000, 600'000},
                                           {'-', 0, 9000},
                                           {'A', 77, 200'000},
                                           {'A', 130'000, 130'300},
                                           {'A', 0, 400'000}}) {
    document_->AppendSegment(source == 'A' ? audio.Get() : nullptr, begin, end);
    plain.segments.emplace_back(source, begin, end);
  }
  std::pair<__int64, __int64> range;
  int drawn = 0;
  for (int round = 0; round < 300; ++round) {
    // The pool divides the take's bytes by the frame size to get the write position in the peak
    // file. With 32 instead of 8 bits, frames are four times as large, so the position falls to a
    // quarter.
    if (round == 200) pool->SetBitDepth(32, 0);
    if (round % 10 == 0) {
      Samples noise(2 * 100 * kFramesPerPeak);
      // Each peak has its own level.
      float level = 0;
      for (std::size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<float>(random_()) * 0x1p-31F - 1.0F;
        if (i % (2 * kFramesPerPeak) == 0) level = noise[i];
        noise[i] = 0.9F * level + 0.1F * noise[i];
      }
      ASSERT_EQ(writer->WriteAudio(Floats(noise)), S_OK);
    }
    // Every third round draws the range of the previous round again.
    if (round % 3 != 0) range = Draw(0, plain.Length());
    if (round % 3 == 2) range.second = std::min(range.second, range.first + (1 << round % 13));
    const auto& [begin, end] = range;
    if (begin == end) continue;
    const __int64 columns = 1 + Draw(0, round % 2 == 0 ? 2000 : 8).first;
    PlainOverview overview = {Samples(static_cast<std::size_t>(4 * columns), kHost), 2};
    __int64 offset = 0;
    for (const auto& piece : plain.Part(begin, end).segments) {
      const __int64 first = columns * offset / (end - begin);
      offset += piece.Length();
      const __int64 n = columns * offset / (end - begin) - first;
      const bool close_up = piece.Length() < n * kFramesPerPeak;
      const __int64 count = close_up ? piece.Length() * 2 : piece.Length() / kFramesPerPeak * 4;
      const Floats read(static_cast<std::size_t>(count));
      if (n == 0) continue;
      if (piece.source == '-') {
        for (__int64 i = 0; i < 2 * n; ++i) overview.Set(2 * first + i, 0, 0);
      } else if (FAILED(close_up ? audio->ReadAudio(piece.begin, read)
                                 : peaks->ReadPeaks(piece.begin / kFramesPerPeak, read))) {
        continue;  // the pool does not hold this audio yet
      } else {
        close_up ? overview.DrawSamples(first, n, read.ToVector())
                 : overview.DrawPeaks(first, n, read.ToVector());
        ++drawn;
      }
    }
    ASSERT_EQ(Plot(begin, end, static_cast<std::size_t>(columns), 2), overview.pairs)
        << begin << " to " << end << " in " << columns << " columns";
  }
  EXPECT_GT(drawn, 200);
}

TEST_F(EditedAudioWaveplot, ReadsSamplesForColumnsShorterThanAPeakAndWritesNothingIfAReadFails) {
  const auto a = RampSource::Make('A', 100, &log_);
  document_.Append(a, 0, 200'000);
  log_.clear();
  EXPECT_THAT(Plot(0, 2560, 10, 100), Each(kHost));  // the source has no peaks
  EXPECT_EQ(Plot(0, 2550, 10, 100)[1], RampSource::Sample('A', 254, 0));
  const Samples pairs = Plot(0, 200'000, 1000, 100);
  for (std::size_t column = 0; column < 1000; ++column) {
    const auto last = static_cast<__int64>(column) * 200 + 199;
    ASSERT_EQ(pairs[200 * column + 199], RampSource::Sample('A', last, 99));
  }
  // If a later block fails, the method also discards the earlier blocks.
  int left = 1;
  a->on_read = [&](SAFEARRAY*) { a->read_result = left-- > 0 ? S_OK : E_ACCESSDENIED; };
  EXPECT_THAT(Plot(0, 200'000, 1000, 100), Each(kHost));
  EXPECT_THAT(
      log_, ElementsAre("A.OpenDevice", "A.ReadAudio(0, 255000)", "A.CloseDevice", "A.OpenDevice",
                        "A.ReadAudio(0, 16777200)", "A.ReadAudio(167772, 3222800)", "A.CloseDevice",
                        "A.OpenDevice", "A.ReadAudio(0, 16777200)", "A.ReadAudio(167772, 3222800)",
                        "A.CloseDevice"));
}

TEST_F(EditedAudioWaveplot, LeavesTheArrayUnchangedForEmptyRangesAndNeverWritesPastIt) {
  const auto a = RampSource::Make('A', 1);
  document_.Append(a, 0, 1000);
  for (const auto& [begin, end] : {std::pair{500LL, 500LL}, {500, 100}, {1000, 2000}}) {
    EXPECT_THAT(Plot(begin, end, 10, 1), Each(kHost));
  }
  const Samples pairs = Plot(0, 1000, 10, 1);
  document_.Append(a, 900, 0);
  document_.Append(a, 0, 1000);
  // The backward segment ends at frame 100, so the last segment begins there. But the first segment
  // already fills the array.
  EXPECT_EQ(Plot(0, 1000, 10, 1), pairs);
  document_->Clear();
  document_.Append(nullptr, 0, 1LL << 62);
  EXPECT_THAT(Plot(0, 1LL << 62, 10, 1), Each(0.0F));
}

}  // namespace
}  // namespace marlinda::testing
