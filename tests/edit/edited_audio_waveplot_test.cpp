#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "tests/edit/document.h"
#include "tests/edit/plain_overview.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

constexpr __int64 kFramesPerPeak = 256;

// A take of noise with its peaks, as a pool reader offers it, but without summaries.
class Take final : public RampSource, public IPeakReader {
 public:
  Take(char name, SHORT channels, CallLog* log) : RampSource(name, channels, log, 44100) {}

  bool has_peaks = true;
  LONG frames_per_peak = kFramesPerPeak;
  HRESULT peaks_result = S_OK;
  ComPtr<IPeakReader> peaks_of;  // another reader, instead of the noise

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!has_peaks || !IsEqualIID(iid, IID_IPeakReader)) {
      return RampSource::QueryInterface(iid, object);
    }
    *object = static_cast<IPeakReader*>(this);
    return AddRef(), S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return RampSource::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return RampSource::Release(); }
  STDMETHODIMP GetSamplesPerPeak(LONG* count) override { return *count = frames_per_peak, S_OK; }
  STDMETHODIMP ReadPeaks(__int64 position, SAFEARRAY* array) override {
    const ULONG count = array->rgsabound[0].cElements;
    Note("ReadPeaks(" + std::to_string(position) + ", " + std::to_string(count) + ")");
    if (peaks_of) return peaks_of->ReadPeaks(position, array);
    if (SUCCEEDED(peaks_result)) {
      std::ranges::copy(Peaks(position, count / (2 * channels())),
                        static_cast<float*>(array->pvData));
    }
    return peaks_result;
  }

  std::vector<float> Samples(__int64 first, __int64 frames) const {
    std::vector<float> samples;
    for (__int64 i = 0; i < frames * channels(); ++i) {
      samples.push_back(At(first + i / channels(), static_cast<int>(i % channels())));
    }
    return samples;
  }
  // As an overview of one column a peak.
  std::vector<float> Peaks(__int64 first, __int64 count) const {
    std::vector<float> peaks(static_cast<std::size_t>(2 * count * channels()));
    const __int64 frames = count * kFramesPerPeak;
    PlainOverview(peaks, channels())
        .Samples(0, count, Samples(first * kFramesPerPeak, frames).data(), frames);
    return peaks;
  }

 private:
  float At(__int64 frame, int channel) const override {
    auto bits = static_cast<std::uint32_t>(frame * 101 + channel * 7 + name()) * 0x9E3779B1u;
    bits = (bits ^ bits >> 15) * 0x85EBCA6Bu;
    return static_cast<float>(static_cast<std::int32_t>(bits ^ bits >> 13)) * 0x1p-31F;
  }
};

class EditedAudioWaveplot : public ::testing::Test {
 protected:
  // A new take at the end of the document, and of the plain lists.
  ComPtr<Take> Append(char name, SHORT channels, __int64 begin, __int64 end) {
    ComPtr<Take>& take = takes_[name];
    if (!take && name != '-') take = MakeObject<Take>(name, channels, &log_);
    EXPECT_EQ(document_->AppendSegment(static_cast<RampSource*>(take.Get()), begin, end), S_OK);
    plain_.segments.emplace_back(name, begin, end);
    log_.clear();
    return take;
  }
  // The pairs of a range, on top of those of the host.
  std::vector<float> Plot(__int64 begin, __int64 end, std::size_t columns, std::size_t channels) {
    const Floats block(columns * 2 * channels, kHost);
    EXPECT_EQ(document_->ReadWaveplot(begin, end, block), S_OK);
    return block.ToVector();
  }
  std::vector<float> Expected(__int64 begin, __int64 end, __int64 columns, __int64 channels) {
    std::vector<float> pairs(static_cast<std::size_t>(columns * 2 * channels), kHost);
    PlainOverview overview(pairs, channels);
    __int64 offset = 0;
    for (const PlainDocument::Segment& piece : plain_.Part(begin, end).segments) {
      const __int64 length = piece.Length();
      const __int64 first = columns * offset / (end - begin);
      offset += length;
      const __int64 n = columns * offset / (end - begin) - first;
      if (n == 0) continue;
      if (piece.source == '-') {
        overview.Silence(first, n);
      } else if (length < n * kFramesPerPeak) {
        overview.Samples(first, n, takes_[piece.source]->Samples(piece.begin, length).data(),
                         length);
      } else {
        const __int64 count = length / kFramesPerPeak;
        overview.Peaks(first, n,
                       takes_[piece.source]->Peaks(piece.begin / kFramesPerPeak, count).data(),
                       count);
      }
    }
    return pairs;
  }

  __int64 Draw(__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random_);
  }

  static constexpr float kHost = 0.125F;
  std::mt19937 random_{11};
  CallLog log_;
  std::map<char, ComPtr<Take>> takes_;
  Document document_;
  PlainDocument plain_;
};

TEST_F(EditedAudioWaveplot, AgreesWithPlainLoopsAtEveryZoomAndWidth) {
  Append('A', 2, 1000, 60'000);
  Append('-', 2, 0, 9000);
  Append('B', 2, 77, 90'000);
  Append('A', 2, 130'000, 130'300);
  Append('B', 2, 0, 40'000);
  const __int64 length = document_.Length();
  for (int round = 0; round < 60; ++round) {
    const __int64 begin = Draw(0, length - 2);
    const __int64 end = Draw(begin + 1, round % 2 == 0 ? length : std::min(length, begin + 3000));
    const __int64 columns = Draw(1, round % 3 == 0 ? 2000 : 100);
    ASSERT_EQ(Plot(begin, end, static_cast<std::size_t>(columns), 2),
              Expected(begin, end, columns, 2))
        << begin << " to " << end << " in " << columns << " columns";
  }
}

TEST_F(EditedAudioWaveplot, ReadsSamplesCloseUpAndPeaksFromAfarEnormousStretchesInBlocks) {
  Append('A', 1, 512, 100'512);
  Plot(1000, 100'000, 99, 1);
  // The border: 255 and 256 frames a column.
  Plot(0, 2550, 10, 1);
  Plot(0, 2560, 10, 1);
  EXPECT_THAT(log_, ElementsAre("A.ReadPeaks(5, 772)", "A.OpenDevice", "A.ReadAudio(512, 2550)",
                                "A.CloseDevice", "A.ReadPeaks(2, 20)"));
  document_->Clear();
  plain_ = {};
  document_->SetFormat(0, 0, 16);
  const auto b = Append('B', 100, 0, 200'000);
  Plot(0, 160'000, 1000, 100);
  EXPECT_EQ(Plot(0, 200'000, 1000, 100), Expected(0, 200'000, 1000, 100));
  EXPECT_THAT(log_, ElementsAre("B.OpenDevice", "B.ReadAudio(0, 16000000)", "B.CloseDevice",
                                "B.OpenDevice", "B.ReadAudio(0, 16777200)",
                                "B.ReadAudio(167772, 3222800)", "B.CloseDevice"));
  // A later block that fails leaves nothing of the earlier one.
  int left = 1;
  b->on_read = [&](SAFEARRAY*) { b->read_result = left-- > 0 ? S_OK : E_ACCESSDENIED; };
  EXPECT_THAT(Plot(0, 200'000, 1000, 100), Each(kHost));
  EXPECT_EQ(log_.back(), "B.CloseDevice");
}

TEST_F(EditedAudioWaveplot, LeavesColumnsAloneThatItCannotDraw) {
  const auto closed = Append('A', 1, 0, 1000);
  const auto unreadable = Append('B', 1, 0, 1000);
  Append('-', 1, 0, 1000);
  const auto peakless = Append('C', 1, 0, 1000);
  closed->open_result = unreadable->read_result = unreadable->peaks_result = E_ACCESSDENIED;
  closed->frames_per_peak = 0;
  peakless->has_peaks = false;
  std::vector<float> expected = Expected(0, 4000, 40, 1);
  std::fill_n(expected.begin(), 40, kHost);
  EXPECT_EQ(Plot(0, 4000, 40, 1), expected);
  EXPECT_THAT(log_,
              ElementsAre("A.OpenDevice", "B.OpenDevice", "B.ReadAudio(0, 1000)", "B.CloseDevice",
                          "C.OpenDevice", "C.ReadAudio(0, 1000)", "C.CloseDevice"));
  // One column a piece needs peaks.
  EXPECT_THAT(Plot(0, 4000, 4, 1), ElementsAre(kHost, kHost, kHost, kHost, 0, 0, kHost, kHost));
}

TEST_F(EditedAudioWaveplot, DrawsNothingForOddRangesArraysAndFormatsNorPastTheArray) {
  EXPECT_THAT(Plot(0, 100, 4, 1), Each(kHost));
  Append('A', 1, 0, 1000);
  constexpr __int64 kMax = 0x7FFFFFFFFFFFFFFF;
  const std::pair<__int64, __int64> ranges[] = {
      {500, 500}, {500, 100}, {1000, 2000}, {-kMax, kMax}};
  for (const auto& [begin, end] : ranges) EXPECT_THAT(Plot(begin, end, 10, 1), Each(kHost));
  for (int i = 0; i < 3; ++i) {
    Append('A', 1, 900, 0);
    Append('A', 1, 0, 1000);
  }
  // Whole pieces of 1000 frames in a range of 1000: the first fills the array.
  const std::vector<float> pairs = Plot(0, 1000, 10, 1);
  plain_.segments.resize(1, plain_.segments.front());
  EXPECT_EQ(pairs, Expected(0, 1000, 10, 1));
  document_->SetFormat(44100, 2, 16);
  const Floats few(3, kHost);  // no column of two channels
  EXPECT_EQ(document_->ReadWaveplot(0, 1000, few), S_OK);
  EXPECT_THAT(few.ToVector(), Each(kHost));
  document_->SetFormat(44100, -2, 16);
  EXPECT_THAT(Plot(0, 1000, 10, 2), Each(kHost));
}

// The summaries of a pool reader agree with its peaks, also after the pool has written on or, with
// another bit depth in the middle of a take, has overwritten peaks.
TEST_F(EditedAudioWaveplot, AgreesWithThePeaksOfAPoolAtEveryMomentOfATake) {
  constexpr __int64 kBlockFrames = kFramesPerPeak * 100;
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto writer = As<IAudioWriter>(pool);
  ASSERT_EQ(pool->SetBitDepth(8, 0), S_OK);
  ASSERT_EQ(writer->SetFormat(44100, 2), S_OK);
  ASSERT_EQ(writer->OpenDevice(), S_OK);
  const auto reader = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  ASSERT_EQ(reader->Create(pool.Get(), 0, 0, 0, 8), S_OK);
  const Document direct;
  direct->AppendSegment(As<IAudioReader>(reader).Get(), 0, 40 * kBlockFrames);
  const auto take = Append('A', 2, 0, 40 * kBlockFrames);
  take->peaks_of = As<IPeakReader>(reader);

  std::set<std::vector<float>> pictures;
  random_.seed(9);
  for (__int64 block = 1; block <= 40; ++block) {
    // The position in the peak file falls back to a quarter of what it was.
    if (block == 25) pool->SetBitDepth(32, 0);
    ASSERT_EQ(writer->WriteAudio(Floats(take->Samples(block * kBlockFrames, kBlockFrames))), S_OK);
    // Twice the same picture, and two others, also beyond what is written.
    __int64 begin = 0;
    __int64 end = block * kBlockFrames;
    for (int picture = 0; picture < 4; ++picture) {
      if (picture > 1) begin = Draw(0, end);
      if (picture > 2) end = Draw(begin, 40 * kBlockFrames);
      const std::size_t columns = picture < 2 ? 5 : static_cast<std::size_t>(Draw(1, 8));
      // Too near, and samples would be drawn.
      if (end - begin < kFramesPerPeak * 8) continue;
      const Floats ours(columns * 4, kHost);
      ASSERT_EQ(direct->ReadWaveplot(begin, end, ours), S_OK);
      ASSERT_EQ(ours.ToVector(), Plot(begin, end, columns, 2)) << block << ": " << begin;
      pictures.insert(ours.ToVector());
    }
  }
  EXPECT_GT(pictures.size(), 50u);
}

}  // namespace
}  // namespace marlinda::testing
