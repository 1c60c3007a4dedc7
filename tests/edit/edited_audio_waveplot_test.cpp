#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "tests/edit/document.h"
#include "tests/edit/plain_overview.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

constexpr __int64 kTakeFrames = 200'000;

// A take of noise with its peaks, as a pool reader offers it.
class Take final : public RampSource, public IPeakReader {
 public:
  static ComPtr<Take> Make(char name, SHORT channels, CallLog* log, bool has_peaks = true) {
    ComPtr<Take> take;
    *take.GetAddressOf() = new Take(name, channels, log, has_peaks);
    return take;
  }

  std::vector<float> samples;
  LONG frames_per_peak = 256;
  HRESULT peaks_result = S_OK;
  // Reads fail from this one on.
  int failing_read = 1'000'000;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!has_peaks_ || !IsEqualIID(iid, IID_IPeakReader)) {
      return RampSource::QueryInterface(iid, object);
    }
    *object = static_cast<IPeakReader*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return RampSource::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return RampSource::Release(); }

  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override {
    const ULONG count = psaAudioData->rgsabound[0].cElements;
    Note("ReadAudio(" + std::to_string(nSamplePos) + ", " + std::to_string(count) + ")");
    if (--failing_read < 0) return E_ACCESSDENIED;
    std::copy_n(samples.begin() + nSamplePos * channels_, count,
                static_cast<float*>(psaAudioData->pvData));
    return S_OK;
  }
  STDMETHODIMP ReadPeaks(__int64 nPeakPosition, SAFEARRAY* psaPeakData) override {
    const ULONG count = psaPeakData->rgsabound[0].cElements;
    Note("ReadPeaks(" + std::to_string(nPeakPosition) + ", " + std::to_string(count) + ")");
    if (FAILED(peaks_result)) return peaks_result;
    const std::vector<float> peaks = Peaks(nPeakPosition, count / (2 * channels_));
    std::ranges::copy(peaks, static_cast<float*>(psaPeakData->pvData));
    return S_OK;
  }
  STDMETHODIMP GetSamplesPerPeak(LONG* pnSamplesPerPeak) override {
    *pnSamplesPerPeak = frames_per_peak;
    return S_OK;
  }

  std::vector<float> Peaks(__int64 first, __int64 count) const {
    std::vector<float> peaks;
    for (__int64 i = first * channels_; i < (first + count) * channels_; ++i) {
      const auto frame = static_cast<std::size_t>(i / channels_ * frames_per_peak);
      float low = 2;
      float high = -2;
      for (std::size_t at = frame; at < frame + static_cast<std::size_t>(frames_per_peak); ++at) {
        const auto index = at * static_cast<std::size_t>(channels_);
        low = std::min(low, samples[index + static_cast<std::size_t>(i % channels_)]);
        high = std::max(high, samples[index + static_cast<std::size_t>(i % channels_)]);
      }
      peaks.insert(peaks.end(), {low, high});
    }
    return peaks;
  }

 private:
  Take(char name, SHORT channels, CallLog* log, bool has_peaks)
      : RampSource(name, channels, log, 44100), channels_(channels), has_peaks_(has_peaks) {
    std::mt19937 random(static_cast<unsigned>(name));
    std::uniform_real_distribution<float> noise(-1.5F, 1.5F);
    samples.resize(static_cast<std::size_t>(kTakeFrames * channels));
    for (float& sample : samples) sample = noise(random);
  }

  const SHORT channels_;
  const bool has_peaks_;
};

struct Piece {
  const Take* take;
  __int64 begin;
  __int64 end;
};

// The overview of pieces side by side, `width` columns for `range` frames.
void DrawPieces(std::vector<float>& out, __int64 width, const std::vector<Piece>& pieces,
                __int64 range, __int64 channels) {
  PlainOverview overview(out, channels);
  __int64 offset = 0;
  for (const Piece& piece : pieces) {
    const __int64 length = piece.end - piece.begin;
    const __int64 first = width * offset / range;
    offset += length;
    const __int64 n = width * offset / range - first;
    if (n == 0) continue;
    if (piece.take == nullptr) {
      overview.Silence(first, n);
    } else if (length < n * 256) {
      overview.Samples(
          first, n, &piece.take->samples[static_cast<std::size_t>(piece.begin * channels)], length);
    } else {
      const std::vector<float> peaks = piece.take->Peaks(piece.begin / 256, length / 256);
      overview.Peaks(first, n, peaks.data(), length / 256);
    }
  }
}

class EditedAudioWaveplot : public ::testing::Test {
 protected:
  void Append(const ComPtr<Take>& take, __int64 begin, __int64 end) {
    IAudioReader* const reader = take ? static_cast<RampSource*>(take.Get()) : nullptr;
    EXPECT_EQ(document_->AppendSegment(reader, begin, end), S_OK);
    pieces_.push_back({take.Get(), begin, end});
  }
  // The pairs of a range, on top of what the host put there.
  std::vector<float> Plot(__int64 begin, __int64 end, std::size_t columns, std::size_t channels) {
    const Floats block(columns * 2 * channels, kHost);
    EXPECT_EQ(document_->ReadWaveplot(begin, end, block), S_OK);
    return block.ToVector();
  }

  static constexpr float kHost = 0.125F;
  CallLog log_;
  Document document_;
  std::vector<Piece> pieces_;
};

TEST_F(EditedAudioWaveplot, AgreesWithPlainLoopsAtEveryZoomAndWidth) {
  const auto a = Take::Make('A', 2, nullptr);
  const auto b = Take::Make('B', 2, nullptr);
  Append(a, 1000, 60'000);
  Append(nullptr, 0, 9000);
  Append(b, 77, 90'000);
  Append(a, 130'000, 130'300);
  Append(b, 0, 40'000);
  const __int64 length = document_.Length();
  std::mt19937 random(11);
  const auto draw = [&](__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random);
  };
  for (int round = 0; round < 60; ++round) {
    const __int64 begin = draw(0, length - 2);
    const __int64 end = draw(begin + 1, round % 2 == 0 ? length : std::min(length, begin + 3000));
    const auto columns = static_cast<std::size_t>(draw(1, round % 3 == 0 ? 2000 : 100));
    std::vector<Piece> cut;
    __int64 offset = 0;
    for (const Piece& piece : pieces_) {
      const __int64 size = piece.end - piece.begin;
      const __int64 from = std::max<__int64>(begin - offset, 0);
      const __int64 to = std::min(end - offset, size);
      if (from < to) cut.push_back({piece.take, piece.begin + from, piece.begin + to});
      offset += size;
    }
    std::vector<float> expected(columns * 4, kHost);
    DrawPieces(expected, static_cast<__int64>(columns), cut, end - begin, 2);
    ASSERT_EQ(Plot(begin, end, columns, 2), expected)
        << begin << " to " << end << " in " << columns << " columns";
  }
}

TEST_F(EditedAudioWaveplot, ReadsSamplesCloseUpAndPeaksFromAfar) {
  const auto a = Take::Make('A', 1, &log_);
  Append(a, 512, 100'512);
  log_.clear();
  Plot(0, 10'000, 100, 1);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "A.ReadAudio(512, 10000)", "A.CloseDevice"));
  log_.clear();
  Plot(1000, 100'000, 99, 1);
  EXPECT_THAT(log_, ElementsAre("A.ReadPeaks(5, 772)"));
  log_.clear();
  // The border: 255 and 256 frames a column.
  Plot(0, 2550, 10, 1);
  Plot(0, 2560, 10, 1);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "A.ReadAudio(512, 2550)", "A.CloseDevice",
                                "A.ReadPeaks(2, 20)"));
}

TEST_F(EditedAudioWaveplot, ReadsSamplesAtOnceAndOnlyEnormousStretchesInBlocks) {
  const auto a = Take::Make('A', 100, &log_);
  Append(a, 0, kTakeFrames);
  log_.clear();
  Plot(0, 160'000, 1000, 100);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "A.ReadAudio(0, 16000000)", "A.CloseDevice"));
  log_.clear();
  std::vector<float> expected(200'000, kHost);
  DrawPieces(expected, 1000, pieces_, kTakeFrames, 100);
  EXPECT_EQ(Plot(0, kTakeFrames, 1000, 100), expected);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "A.ReadAudio(0, 16777200)",
                                "A.ReadAudio(167772, 3222800)", "A.CloseDevice"));
  // A later block that fails leaves nothing of the earlier one.
  a->failing_read = 1;
  EXPECT_THAT(Plot(0, kTakeFrames, 1000, 100), Each(kHost));
  EXPECT_EQ(log_.back(), "A.CloseDevice");
}

TEST_F(EditedAudioWaveplot, LeavesColumnsAloneThatItCannotDraw) {
  const auto closed = Take::Make('A', 1, &log_);
  const auto unreadable = Take::Make('B', 1, &log_);
  const auto peakless = Take::Make('C', 1, &log_, false);
  closed->open_result = E_ACCESSDENIED;
  unreadable->failing_read = 0;
  unreadable->peaks_result = E_FAIL;
  Append(closed, 0, 1000);
  Append(unreadable, 0, 1000);
  Append(nullptr, 0, 1000);
  Append(peakless, 0, 1000);
  log_.clear();
  std::vector<float> pairs = Plot(0, 4000, 40, 1);
  EXPECT_THAT(std::vector<float>(pairs.begin(), pairs.begin() + 40), Each(kHost));
  EXPECT_THAT(std::vector<float>(pairs.begin() + 40, pairs.begin() + 60), Each(0.0F));
  EXPECT_NE(pairs[60], kHost);
  EXPECT_THAT(log_,
              ElementsAre("A.OpenDevice", "B.OpenDevice", "B.ReadAudio(0, 1000)", "B.CloseDevice",
                          "C.OpenDevice", "C.ReadAudio(0, 1000)", "C.CloseDevice"));
  // One column a piece needs peaks, which none of the first two gives and the last has not.
  closed->frames_per_peak = 0;
  EXPECT_THAT(Plot(0, 4000, 4, 1), ElementsAre(kHost, kHost, kHost, kHost, 0, 0, kHost, kHost));
}

TEST_F(EditedAudioWaveplot, DrawsNothingForOddRangesArraysAndFormats) {
  const auto a = Take::Make('A', 2, nullptr);
  const Floats fresh(8, kHost);
  EXPECT_EQ(document_->ReadWaveplot(0, 100, fresh), S_OK);
  EXPECT_THAT(fresh.ToVector(), Each(kHost));
  Append(a, 0, 1000);
  constexpr __int64 kMax = 0x7FFFFFFFFFFFFFFF;
  const std::pair<__int64, __int64> ranges[] = {
      {500, 500}, {500, 100}, {1000, 2000}, {-kMax, kMax}};
  for (const auto& [begin, end] : ranges) EXPECT_THAT(Plot(begin, end, 10, 2), Each(kHost));
  // Three floats are no column of two channels.
  const Floats few(3, kHost);
  EXPECT_EQ(document_->ReadWaveplot(0, 1000, few), S_OK);
  EXPECT_THAT(few.ToVector(), Each(kHost));
  EXPECT_EQ(document_->ReadWaveplot(0, 1000, ForeignArray(VT_I2)), E_INVALIDARG);
  document_->SetFormat(44100, -2, 16);
  EXPECT_THAT(Plot(0, 1000, 10, 2), Each(kHost));
}

TEST_F(EditedAudioWaveplot, BackwardSegmentsNeverDrawPastTheArray) {
  const auto a = Take::Make('A', 1, nullptr);
  Append(a, 0, 1000);
  Append(a, 900, 0);
  Append(a, 2000, 3000);
  // Two whole pieces of 1000 frames in a range of 1000.
  std::vector<float> expected(40);
  DrawPieces(expected, 10, {{a.Get(), 0, 1000}, {a.Get(), 2000, 2900}}, 1000, 1);
  expected.resize(20);
  EXPECT_EQ(Plot(0, 1000, 10, 1), expected);
}

TEST_F(EditedAudioWaveplot, DrawsTheSilenceSourceAsALineAtEveryZoom) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  silence->Create(1'000'000, 48000, 1);
  document_->AppendSegment(As<IAudioReader>(silence).Get(), 0, 1'000'000);
  for (const __int64 frames : {5, 1000, 1'000'000}) {
    EXPECT_THAT(Plot(0, frames, 10, 1), Each(0.0F));
  }
}

// A source that has no more than the peaks of a pool reader.
class PeaksOf final : public TestObject<IAudioReader, IPeakReader> {
 public:
  explicit PeaksOf(ComPtr<IPeakReader> peaks) : peaks_(std::move(peaks)) {}

  STDMETHODIMP ReadPeaks(__int64 position, SAFEARRAY* array) override {
    return peaks_->ReadPeaks(position, array);
  }
  STDMETHODIMP GetSamplesPerPeak(LONG* count) override { return peaks_->GetSamplesPerPeak(count); }
  STDMETHODIMP GetFormat(LONG* samples_per_sec, SHORT* channels) override {
    *samples_per_sec = 44100;
    *channels = 2;
    return S_OK;
  }
  STDMETHODIMP ReadAudio(__int64, SAFEARRAY*) override { return E_NOTIMPL; }
  STDMETHODIMP GetSampleCount(__int64*) override { return E_NOTIMPL; }
  STDMETHODIMP OpenDevice() override { return E_NOTIMPL; }
  STDMETHODIMP CloseDevice() override { return E_NOTIMPL; }

 private:
  const ComPtr<IPeakReader> peaks_;
};

// The summaries of a pool reader agree with its peaks, also after the pool has written on or, with
// another bit depth in the middle of a take, has overwritten peaks.
TEST(EditedAudioPoolWaveplot, AgreesWithThePeaksAtEveryMomentOfATake) {
  constexpr SHORT kChannels = 2;
  constexpr __int64 kBlockFrames = 256 * 100;
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto writer = As<IAudioWriter>(pool);
  ASSERT_EQ(pool->SetBitDepth(8, 0), S_OK);
  ASSERT_EQ(writer->SetFormat(44100, kChannels), S_OK);
  ASSERT_EQ(writer->OpenDevice(), S_OK);
  const auto take = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  ASSERT_EQ(take->Create(pool.Get(), 0, 0, 0, 8), S_OK);
  const auto reader = As<IAudioReader>(take);
  const auto forwarder = MakeObject<PeaksOf>(As<IPeakReader>(take));
  const Document direct;
  const Document forwarded;
  direct->AppendSegment(reader.Get(), 0, 40 * kBlockFrames);
  forwarded->AppendSegment(forwarder.Get(), 0, 40 * kBlockFrames);

  std::mt19937 random(9);
  const auto draw_int = [&](__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random);
  };
  std::set<std::vector<float>> pictures;
  for (__int64 block = 1; block <= 40; ++block) {
    Floats samples(static_cast<std::size_t>(kBlockFrames * kChannels));
    std::uniform_real_distribution<float> noise(-1.0F, 1.0F);
    for (float& sample : samples.values()) sample = noise(random);
    // The position in the peak file falls back to a quarter of what it was.
    if (block == 25) {
      ASSERT_EQ(pool->SetBitDepth(32, 0), S_OK);
    }
    ASSERT_EQ(writer->WriteAudio(samples), S_OK);
    // Twice the same picture, and two others, also beyond what is written.
    __int64 begin = 0;
    __int64 end = block * kBlockFrames;
    for (int picture = 0; picture < 4; ++picture) {
      if (picture > 1) begin = draw_int(0, end);
      if (picture > 2) end = draw_int(begin, 40 * kBlockFrames);
      const std::size_t columns = picture < 2 ? 5 : static_cast<std::size_t>(draw_int(1, 8));
      // Too near, and samples would be drawn.
      if (end - begin < 256 * 8) continue;
      const Floats ours(columns * 2 * kChannels, 7.0F);
      const Floats theirs(columns * 2 * kChannels, 7.0F);
      ASSERT_EQ(direct->ReadWaveplot(begin, end, ours), S_OK);
      ASSERT_EQ(forwarded->ReadWaveplot(begin, end, theirs), S_OK);
      ASSERT_EQ(ours.ToVector(), theirs.ToVector()) << block << ": " << begin << " to " << end;
      pictures.insert(ours.ToVector());
    }
  }
  EXPECT_GT(pictures.size(), 50u);
}

}  // namespace
}  // namespace marlinda::testing
