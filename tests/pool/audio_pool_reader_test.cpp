#include <algorithm>
#include <cstdint>
#include <limits>

#include "tests/pool/pool_test_support.h"

namespace marlinda::testing {
namespace {

// A reader of a region of the test's own choosing.
struct RegionReader {
  RegionReader(IAudioPool* pool, __int64 audio_offset, __int64 peak_offset, __int64 byte_count,
               SHORT bits)
      : region(Create<IAudioPoolReader>(CLSID_CAudioPoolReader)),
        audio(As<IAudioReader>(region)),
        peaks(As<IPeakReader>(region)) {
    EXPECT_EQ(region->Create(pool, audio_offset, peak_offset, byte_count, bits), S_OK);
  }
  ComPtr<IAudioPoolReader> region;
  ComPtr<IAudioReader> audio;
  ComPtr<IPeakReader> peaks;
};

TEST(AudioPoolReader, CountsTheFramesOfItsRegion) {
  const Pool stereo(2);
  const auto count = [&stereo](__int64 bytes, SHORT bits) {
    return SampleCount(RegionReader(stereo.pool.Get(), 0, 0, bytes, bits).audio.Get());
  };
  EXPECT_EQ(count(4000, 16), 1000);
  EXPECT_EQ(count(4003, 16), 1000);
  EXPECT_EQ(count(4000, 32), 500);
  EXPECT_EQ(count(3, 16), 0);
  EXPECT_EQ(count(-4000, 16), -1000);
  EXPECT_EQ(count(1LL << 42, 8), 1LL << 41);
  // Positions advance by bits / 8 bytes a sample.
  EXPECT_EQ(count(4000, 20), 1000);
  // Formats without frames.
  for (const SHORT bits : {-7, 0, 7}) EXPECT_EQ(count(4000, bits), 0) << bits;
  EXPECT_EQ(count(4000, -8), -2000);
  for (const auto& [channels, expected] :
       {std::pair{SHORT{-2}, 1LL << 62}, std::pair{SHORT{-1}, std::numeric_limits<__int64>::max()},
        std::pair{SHORT{0}, 0LL}}) {
    const Pool odd(channels);
    const RegionReader reader(odd.pool.Get(), 0, 0, std::numeric_limits<__int64>::min(), 8);
    EXPECT_EQ(SampleCount(reader.audio.Get()), expected) << channels;
  }
}

TEST(AudioPoolReader, GivesBackWhatWasWrittenAtEveryBitDepth) {
  const Samples wave = Wave(3000, -0.999F);
  for (const SHORT bits : {8, 16, 24, 32, 33, 39}) {
    SCOPED_TRACE(bits);
    const Pool pool(3, bits);
    pool.WriteTake(wave);
    const auto reader = pool.LastReader();
    EXPECT_EQ(SampleCount(reader.Get()), 1000);
    const Samples read = Read(reader.Get(), 0, 3000);
    // At 8 bits reading is not the inverse of writing: the centre, 128, reads as 1/127.
    const float offset = bits == 8 ? 1.0F / 127.0F : 0.0F;
    const float step =
        bits == 32 ? 0.0F : 1.01F / static_cast<float>((1 << (std::min<int>(bits, 24) - 1)) - 1);
    for (std::size_t i = 0; i < wave.size(); ++i) {
      ASSERT_LE(std::abs(read[i] - offset - wave[i]), step) << i;
    }
    EXPECT_EQ(Read(reader.Get(), 500, 30), Samples(&read[1500], &read[1530]));
    EXPECT_EQ(reader->ReadAudio(0, Floats(0)), S_OK);
  }
  const Pool pool;
  for (const SHORT bits : {SHRT_MIN, 0, 7, 41, SHRT_MAX}) {
    const RegionReader odd(pool.pool.Get(), 0, 0, 64, bits);
    EXPECT_EQ(odd.audio->ReadAudio(0, Floats(4)), E_INVALIDARG) << bits;
  }
}

TEST(AudioPoolReader, ReadsOnPastItsRegionUntilTheFileEnds) {
  const Pool pool(2);
  pool.WriteTake({0.1F, 0.2F, 0.3F, 0.4F});
  pool.WriteTake({0.5F, 0.6F, 0.7F, 0.8F});
  const auto last = pool.LastReader();
  const auto first = pool.PrevReader();
  // The last frame of the first take, then the first frame of the next one.
  EXPECT_EQ(Read(first.Get(), 1, 4), (Samples{0.3F, 0.4F, 0.5F, 0.6F}));
  // Before the region lies the take before it.
  EXPECT_EQ(Read(last.Get(), -1, 4), (Samples{0.3F, 0.4F, 0.5F, 0.6F}));
  // A read need not be whole frames.
  EXPECT_EQ(Read(last.Get(), 0, 3), (Samples{0.5F, 0.6F, 0.7F}));

  Floats block(4, -7.0F);
  EXPECT_EQ(last->ReadAudio(1, block), kEndOfFile);
  EXPECT_EQ(block.ToVector(), (Samples{0.7F, 0.8F, -7.0F, -7.0F})) << "the rest keeps its values";
  for (const __int64 behind : {2LL, 3LL, 1LL << 40, std::numeric_limits<__int64>::max()}) {
    Floats beyond(2, -7.0F);
    EXPECT_EQ(last->ReadAudio(behind, beyond), kEndOfFile) << behind;
    EXPECT_EQ(beyond.ToVector(), Samples(2, -7.0F));
    EXPECT_EQ(As<IPeakReader>(last)->ReadPeaks(behind, beyond), kEndOfFile) << behind;
  }
  for (const __int64 before : {-3LL, -(1LL << 40), std::numeric_limits<__int64>::min()}) {
    EXPECT_EQ(last->ReadAudio(before, block), HRESULT_FROM_WIN32(ERROR_NEGATIVE_SEEK));
    EXPECT_EQ(As<IPeakReader>(last)->ReadPeaks(before, block),
              HRESULT_FROM_WIN32(ERROR_NEGATIVE_SEEK));
  }
}

TEST(AudioPoolReader, FillsWhatAPcmFileDoesNotHaveWithSilence) {
  for (const SHORT bits : {8, 16, 24}) {
    const Pool pool(1, bits);
    pool.WriteTake({1.0F, -1.0F});
    Floats block(5, -7.0F);
    EXPECT_EQ(pool.LastReader()->ReadAudio(1, block), kEndOfFile);
    EXPECT_LT(block[0], -0.9F);
    EXPECT_EQ(Samples(&block[1], &block[1] + 4), Samples(4, 0.0F)) << bits;
  }
}

TEST(AudioPoolReader, ReadsPeaksByNumberInChannelPairs) {
  const Pool pool(2);
  Samples block;
  for (int frame = 0; frame < 700; ++frame) {
    block.push_back(static_cast<float>(frame));
    block.push_back(static_cast<float>(-frame) - 0.5F);
  }
  pool.WriteTake(Samples(512 * 2, 0.0F));
  pool.WriteTake(block);
  const auto peaks = As<IPeakReader>(pool.LastReader());
  LONG frames_per_peak = 0;
  EXPECT_EQ(peaks->GetSamplesPerPeak(&frames_per_peak), S_OK);
  EXPECT_EQ(frames_per_peak, 256);
  const auto read = [&peaks](__int64 peak, std::size_t count) {
    Floats floats(count, -7.0F);
    EXPECT_EQ(peaks->ReadPeaks(peak, floats), S_OK);
    return floats.ToVector();
  };
  EXPECT_EQ(read(0, 4), (Samples{0, 255, -255.5F, -0.5F}));
  EXPECT_EQ(read(1, 8), (Samples{256, 511, -511.5F, -256.5F, 512, 699, -699.5F, -512.5F}));
  // Before it lies the take before, whose last record was overwritten.
  EXPECT_EQ(read(-1, 4), (Samples{0, 0, 0, 0}));
  Floats past(8, -7.0F);
  EXPECT_EQ(peaks->ReadPeaks(2, past), kEndOfFile);
  EXPECT_EQ(past.ToVector(), (Samples{512, 699, -699.5F, -512.5F, -7, -7, -7, -7}));
}

TEST(AudioPoolReader, FailsReadsBeforeCreate) {
  const auto region = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  const auto audio = As<IAudioReader>(region);
  const auto peaks = As<IPeakReader>(region);
  Floats block(4, -7.0F);
  EXPECT_EQ(region->Create(nullptr, 0, 0, 0, 16), E_POINTER);
  EXPECT_EQ(audio->ReadAudio(0, block), kInvalidHandle);
  EXPECT_EQ(peaks->ReadPeaks(0, block), kInvalidHandle);
  EXPECT_EQ(audio->OpenDevice(), kInvalidHandle);
  EXPECT_EQ(audio->CloseDevice(), kInvalidHandle);
  EXPECT_EQ(SampleCount(audio.Get()), 0);
  EXPECT_EQ(block.ToVector(), Samples(4, -7.0F));
  LONG rate = -1;
  SHORT channels = -1;
  EXPECT_EQ(audio->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(rate, 0);
  EXPECT_EQ(channels, 0);
}

TEST(AudioPoolReader, CanBeAimedAgainAndReleasesTheOldPool) {
  const Pool first;
  const Pool second(2);
  first.WriteTake({0.1F, 0.2F});
  second.WriteTake({0.3F, 0.4F, 0.5F, 0.6F});
  const ULONG first_count = ReferenceCount(first.pool.Get());
  const ULONG second_count = ReferenceCount(second.pool.Get());
  RegionReader reader(first.pool.Get(), 0, 0, 8, 32);
  EXPECT_EQ(ReferenceCount(first.pool.Get()), first_count + 1);
  EXPECT_EQ(Read(reader.audio.Get(), 0, 2), (Samples{0.1F, 0.2F}));

  EXPECT_EQ(reader.region->Create(second.pool.Get(), 8, 0, 8, 32), S_OK);
  // The reader keeps the format that the pool had then.
  EXPECT_EQ(second.writer->SetFormat(8000, 6), S_OK);
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(reader.audio->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channels, 2);
  EXPECT_EQ(second.writer->SetFormat(44100, 2), S_OK);
  EXPECT_EQ(ReferenceCount(first.pool.Get()), first_count);
  EXPECT_EQ(ReferenceCount(second.pool.Get()), second_count + 1);
  EXPECT_EQ(Read(reader.audio.Get(), 0, 2), (Samples{0.5F, 0.6F}));
  EXPECT_EQ(SampleCount(reader.audio.Get()), 1);
  // The same pool again, and a null pool that changes nothing.
  EXPECT_EQ(reader.region->Create(second.pool.Get(), 0, 0, 16, 32), S_OK);
  EXPECT_EQ(ReferenceCount(second.pool.Get()), second_count + 1);
  EXPECT_EQ(reader.region->Create(nullptr, 0, 0, 0, 8), E_POINTER);
  EXPECT_EQ(SampleCount(reader.audio.Get()), 2);

  reader = RegionReader(first.pool.Get(), 0, 0, 8, 32);
  EXPECT_EQ(ReferenceCount(second.pool.Get()), second_count);
}

TEST(AudioPoolReader, ReportsAFailedReadAndLeavesTheBlockAlone) {
  for (const SHORT bits : {16, 32}) {
    const Pool pool(1, bits);
    pool.WriteTake(Wave(600));
    const auto reader = pool.LastReader();
    Floats block(4, -7.0F);
    {
      WithheldFile audio(pool.AudioFile());
      EXPECT_EQ(reader->ReadAudio(0, block), kInvalidHandle);
      EXPECT_EQ(As<IPeakReader>(reader)->ReadPeaks(0, block), S_OK);
    }
    block[0] = block[1] = block[2] = block[3] = -7.0F;
    {
      WithheldFile peaks(pool.PeakFile());
      EXPECT_EQ(As<IPeakReader>(reader)->ReadPeaks(0, block), kInvalidHandle);
      EXPECT_EQ(block.ToVector(), Samples(4, -7.0F));
      EXPECT_EQ(reader->ReadAudio(0, block), S_OK);
    }
  }
}

}  // namespace
}  // namespace marlinda::testing
