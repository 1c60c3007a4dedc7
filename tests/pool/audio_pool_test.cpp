#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>

#include "pool/dither.h"
#include "tests/pool/pool_test_support.h"

namespace marlinda::testing {
namespace {

TEST(AudioPool, StoresEachBitDepthInItsCode) {
  // The block of the caller stays as it was, since nothing is dithered.
  const Samples samples = {0.0F, 1.0F, -1.0F, 0.5F, 2.0F};
  struct Row {
    SHORT bits;
    Bytes bytes;
  };
  const Row rows[] = {
      {8, {128, 255, 1, 192, 255}},
      {16, {0, 0, 0xFF, 0x7F, 0x01, 0x80, 0x00, 0x40, 0xFF, 0x7F}},
      {24, {0, 0, 0, 0, 0, 0x80, 0, 0, 0x80, 0, 0, 0x40, 0, 0, 0x80}},
      {32, {0, 0, 0, 0, 0, 0, 0x80, 0x3F, 0, 0, 0x80, 0xBF, 0, 0, 0, 0x3F, 0, 0, 0, 0x40}},
      // Between the usual widths the positions advance by bits / 8 bytes a sample.
      {20, {0, 0, 0, 0, 0, 0x80, 0, 0, 0x80, 0}},
      {12, {0, 0, 0xFF, 0x7F, 0x01}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.bits);
    const Pool pool(1, row.bits);
    Floats block(samples);
    EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
    EXPECT_EQ(BytesOf(pool.AudioFile()), row.bytes);
    EXPECT_EQ(block.ToVector(), samples);
    EXPECT_EQ(FloatsOf(pool.PeakFile()), (Samples{-1.0F, 2.0F}));
  }
}

TEST(AudioPool, LetsAThreadReadATakeWhileTheNextIsWritten) {
  const Pool pool;
  const Samples first = Wave(1 << 16);
  pool.WriteTake(first);
  const auto reader = pool.LastReader();
  const auto peaks = As<IPeakReader>(reader);
  // Without the record behind them, which belongs to the next take.
  Samples stored_peaks = FloatsOf(pool.PeakFile());
  stored_peaks.resize(2 * first.size() / 256);
  ASSERT_EQ(pool.writer->OpenDevice(), S_OK);
  std::atomic<bool> done = false;
  int wrong = 0;
  std::thread other([&] {
    const Floats read(first.size());
    const Floats read_peaks(stored_peaks.size());
    while (!done) {
      if (reader->ReadAudio(0, read) != S_OK || read.ToVector() != first) ++wrong;
      if (peaks->ReadPeaks(0, read_peaks) != S_OK || read_peaks.ToVector() != stored_peaks) ++wrong;
    }
  });
  constexpr int kBlocks = 500;
  const Samples block = Wave(1000, 0.25F);
  for (int i = 0; i < kBlocks; ++i) EXPECT_EQ(pool.Write(block), S_OK);
  done = true;
  other.join();
  EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
  EXPECT_EQ(wrong, 0);
  const Samples stored = FloatsOf(pool.AudioFile());
  ASSERT_EQ(stored.size(), first.size() + kBlocks * block.size());
  for (std::size_t at = first.size(); at < stored.size(); at += block.size()) {
    ASSERT_TRUE(
        std::equal(block.begin(), block.end(), stored.begin() + static_cast<std::ptrdiff_t>(at)))
        << at;
  }
}

TEST(AudioPool, WritesAPeakMoreThanThereAreGroupsAndOverwritesItWithTheNextBlock) {
  const Pool pool;
  Samples block(512, 0.0F);
  block[0] = -0.75F;
  block[255] = 0.5F;
  block[256] = 0.25F;
  block[511] = -0.125F;
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_EQ(pool.Write(block), S_OK);
  EXPECT_EQ(FloatsOf(pool.PeakFile()), (Samples{-0.75F, 0.5F, -0.125F, 0.25F, -0.125F, -0.125F}));

  // The next write starts at record 2, and its incomplete group does not advance the position.
  EXPECT_EQ(pool.Write(Samples(100, 0.9F)), S_OK);
  EXPECT_EQ(FloatsOf(pool.PeakFile()), (Samples{-0.75F, 0.5F, -0.125F, 0.25F, 0.9F, 0.9F}));
  EXPECT_EQ(pool.Write(Samples(155, 0.8F)), S_OK);
  EXPECT_EQ(FloatsOf(pool.PeakFile()), (Samples{-0.75F, 0.5F, -0.125F, 0.25F, 0.8F, 0.8F}));
  // 767 frames so far: one more completes group 2, although it began in the middle.
  EXPECT_EQ(pool.Write(Samples(1, 0.7F)), S_OK);
  EXPECT_EQ(pool.Write(Samples(1, 0.6F)), S_OK);
  EXPECT_EQ(FloatsOf(pool.PeakFile()),
            (Samples{-0.75F, 0.5F, -0.125F, 0.25F, 0.7F, 0.7F, 0.6F, 0.6F}));
  EXPECT_EQ(pool.writer->CloseDevice(), S_OK);

  // A new take starts where the position stands, at the last take's incomplete group.
  pool.WriteTake(Samples(1, 0.1F));
  EXPECT_EQ(FloatsOf(pool.PeakFile()),
            (Samples{-0.75F, 0.5F, -0.125F, 0.25F, 0.7F, 0.7F, 0.1F, 0.1F}));
}

TEST(AudioPool, AcceptsAnyFormatAndRefusesTheBlocksThatItCannotStore) {
  for (const auto& [channels, bits, dithering] : {std::tuple<SHORT, SHORT, SHORT>{SHRT_MIN, 32, 0},
                                                  {-1, 32, 0},
                                                  {0, 32, 0},
                                                  {1, SHRT_MIN, 1},
                                                  {1, -32, 0},
                                                  {1, 0, 1},
                                                  {1, 7, 0},
                                                  {1, 41, 1}}) {
    SCOPED_TRACE(::testing::Message() << channels << " channels, " << bits << " bits");
    const Pool pool(channels, bits, dithering);
    LONG rate = 0;
    SHORT stored_channels = 0;
    EXPECT_EQ(pool.pool->GetFormat(&rate, &stored_channels), S_OK);
    EXPECT_EQ(rate, 44100);
    EXPECT_EQ(stored_channels, channels);
    EXPECT_EQ(pool.Write(Samples(8)), E_INVALIDARG);
    EXPECT_TRUE(BytesOf(pool.AudioFile()).empty());
    EXPECT_TRUE(BytesOf(pool.PeakFile()).empty());
  }
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  EXPECT_EQ(As<IAudioWriter>(pool)->WriteAudio(Floats(8)), E_INVALIDARG) << "before SetFormat";
  EXPECT_EQ(Pool().Write({}), E_INVALIDARG) << "no frame has no peak";
}

TEST(AudioPool, StoresABlockThatEndsWithinAFrameInFull) {
  const Pool pool(2);
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_EQ(pool.Write({0.1F, 0.2F, 0.3F}), S_OK);
  EXPECT_EQ(pool.Write({0.4F}), E_INVALIDARG) << "less than a frame has no peak";
  EXPECT_EQ(pool.Write({0.4F, 0.5F, 0.6F}), S_OK);
  EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
  EXPECT_EQ(FloatsOf(pool.AudioFile()), (Samples{0.1F, 0.2F, 0.3F, 0.4F, 0.5F, 0.6F}));
  EXPECT_EQ(FloatsOf(pool.PeakFile()), (Samples{0.4F, 0.4F, 0.5F, 0.5F}));
  EXPECT_EQ(SampleCount(pool.LastReader().Get()), 3);
}

TEST(AudioPool, IsReadyOnlyWhileNobodyHasItOpen) {
  const Pool pool;
  EXPECT_TRUE(pool.IsReady());
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_FALSE(pool.IsReady());
  EXPECT_EQ(pool.pool->Lock(), S_OK);
  EXPECT_EQ(pool.Write(Wave(4)), S_OK);
  EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
  EXPECT_FALSE(pool.IsReady());
  EXPECT_EQ(pool.pool->Unlock(), S_OK);
  EXPECT_TRUE(pool.IsReady());

  const auto reader = pool.LastReader();
  EXPECT_TRUE(pool.IsReady()) << "a reader that is not open does not count";
  EXPECT_EQ(reader->OpenDevice(), S_OK);
  EXPECT_FALSE(pool.IsReady());
  EXPECT_EQ(reader->CloseDevice(), S_OK);
  EXPECT_TRUE(pool.IsReady());
  // One plain count: an Unlock too many makes it busy.
  EXPECT_EQ(pool.pool->Unlock(), S_OK);
  EXPECT_FALSE(pool.IsReady());
}

// A value for an out-pointer that must not change.
IAudioReader* SomePointer() {
  static int anything;
  return reinterpret_cast<IAudioReader*>(&anything);
}

TEST(AudioPool, GivesReadersOfItsTakesNewestFirst) {
  const Pool pool(2, 16);
  pool.WriteTake(Samples(20, 0.125F));
  pool.WriteTake(Samples(600, 0.25F));
  IAudioReader* const untouched = SomePointer();
  IAudioReader* none = untouched;
  EXPECT_EQ(pool.pool->CreatePrevReader(&none), S_FALSE) << "no cursor before CreateLastReader";
  const Pool empty;
  EXPECT_EQ(empty.pool->CreateLastReader(&none), S_FALSE);
  // An empty run between takes, and a second OpenDevice that abandons what was written before it.
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_EQ(pool.writer->CloseDevice(), S_FALSE);
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_EQ(pool.Write(Samples(8, 0.75F)), S_OK);
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_EQ(pool.Write(Samples(6, 0.5F)), S_OK);
  EXPECT_EQ(pool.writer->CloseDevice(), S_OK);

  const auto third = pool.LastReader();
  const auto second = pool.PrevReader();
  const auto first = pool.PrevReader();
  EXPECT_EQ(pool.pool->CreatePrevReader(&none), S_FALSE);
  EXPECT_EQ(pool.pool->CreatePrevReader(&none), S_FALSE);
  EXPECT_EQ(none, untouched);
  EXPECT_EQ(SampleCount(third.Get()), 3);
  EXPECT_EQ(SampleCount(second.Get()), 300);
  EXPECT_EQ(SampleCount(first.Get()), 10);
  const auto code = [](float level) { return std::floor(level * 32767.0F + 0.5F) / 32767.0F; };
  EXPECT_EQ(Read(third.Get(), 0, 6), Samples(6, code(0.5F)));
  EXPECT_EQ(Read(second.Get(), 0, 600), Samples(600, code(0.25F)));
  EXPECT_EQ(Read(first.Get(), 0, 20), Samples(20, code(0.125F)));
  // CreateLastReader starts again; a take added afterwards does not move the cursor.
  EXPECT_EQ(SampleCount(pool.LastReader().Get()), 3);
  pool.WriteTake(Samples(2, 0.1F));
  EXPECT_EQ(SampleCount(pool.PrevReader().Get()), 300);
  EXPECT_EQ(SampleCount(pool.LastReader().Get()), 1);
  // Readers get the present bit depth.
  EXPECT_EQ(pool.pool->SetBitDepth(8, 0), S_OK);
  EXPECT_EQ(SampleCount(pool.LastReader().Get()), 2);
}

TEST(AudioPool, DithersTheCallersBlockWithTheRandomNumbersOfTheProcess) {
  const Samples original = Wave(512, -0.9F);
  for (const SHORT bits : {8, 16, 24}) {
    for (const SHORT mode : {1, 2}) {
      SCOPED_TRACE(::testing::Message() << bits << " bits, mode " << mode);
      DitherState dither;
      dither.SetUp(mode, 2, bits);
      Samples expected = original;
      std::srand(77);
      dither.Process(expected, std::rand);
      Samples expected_more = original;
      dither.Process(expected_more, std::rand);

      const Pool pool(2, bits, mode);
      const auto write = [&] {
        const Floats block(original);
        EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
        return block.ToVector();
      };
      std::srand(77);
      EXPECT_EQ(write(), expected);
      EXPECT_EQ(write(), expected_more) << "the errors carry over";
      // The dithered samples are stored, and the peaks are theirs.
      const Samples peaks = FloatsOf(pool.PeakFile());
      float lowest = 1.0F;
      for (std::size_t i = 0; i < 512; i += 2) lowest = std::min(lowest, expected_more[i]);
      EXPECT_EQ(peaks[4], lowest);
      if (bits == 16) {
        const Bytes bytes = BytesOf(pool.AudioFile());
        const auto code = static_cast<std::int16_t>(bytes[0] | bytes[1] << 8);
        EXPECT_EQ(code, std::lround(expected[0] * 32767.0F));
      }
      // SetFormat clears the errors, and so does SetBitDepth.
      EXPECT_EQ(pool.writer->SetFormat(8000, 2), S_OK);
      std::srand(77);
      EXPECT_EQ(write(), expected);
      EXPECT_EQ(pool.pool->SetBitDepth(bits, mode), S_OK);
      std::srand(77);
      EXPECT_EQ(write(), expected);
    }
  }
}

TEST(AudioPool, DithersUpToEightChannelsAndNeverAt32Bits) {
  const HRESULT not_supported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
  const Samples samples = Wave(18);
  {
    const Pool pool(9, 16, 1);
    Floats block(samples);
    EXPECT_EQ(pool.writer->WriteAudio(block), not_supported);
    EXPECT_EQ(block.ToVector(), samples);
    EXPECT_TRUE(BytesOf(pool.AudioFile()).empty());
    EXPECT_EQ(pool.pool->SetBitDepth(16, 0), S_OK);
    EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
  }
  const Pool pool(9, 32, 2);
  Floats block(samples);
  EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
  EXPECT_EQ(block.ToVector(), samples);
  EXPECT_EQ(FloatsOf(pool.AudioFile()), samples);
}

// The user's choice of a temporary directory, put back at the end.
class TemporaryDirectorySetting {
 public:
  TemporaryDirectorySetting() {
    saved_ = RegGetValueW(HKEY_CURRENT_USER, kKey, kName, RRF_RT_REG_SZ, nullptr, text_, &size_) ==
             ERROR_SUCCESS;
  }
  ~TemporaryDirectorySetting() {
    if (saved_) {
      RegSetKeyValueW(HKEY_CURRENT_USER, kKey, kName, REG_SZ, text_, size_);
    } else {
      RegDeleteKeyValueW(HKEY_CURRENT_USER, kKey, kName);
    }
  }
  static void Set(const std::wstring& folder) {
    EXPECT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, kKey, kName, REG_SZ, folder.c_str(),
                              static_cast<DWORD>((folder.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
  }

 private:
  static constexpr wchar_t kKey[] = L"Software\\Brevant\\Cutloom\\Directories";
  static constexpr wchar_t kName[] = L"Temporary";
  wchar_t text_[300] = L"";
  DWORD size_ = sizeof text_;
  bool saved_ = false;
};

std::vector<std::string> FilesIn(const std::wstring& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string().substr(0, 3));
  }
  std::ranges::sort(names);
  return names;
}

TEST(AudioPool, KeepsItsFilesWhereTheUserWantsThemUntilItsLastReferenceGoes) {
  const TemporaryDirectorySetting setting;
  const TemporaryFolder folder;
  TemporaryDirectorySetting::Set(folder.path());
  ComPtr<IAudioReader> reader;
  ComPtr<IAudioReader> other;
  {
    const Pool pool;
    EXPECT_EQ(FilesIn(folder.path()), (std::vector<std::string>{"aud", "pea"}));
    const Pool second;
    EXPECT_EQ(FilesIn(folder.path()).size(), 4U);
    pool.WriteTake(Wave(1000));
    reader = pool.LastReader();
    other = pool.LastReader();
  }
  EXPECT_EQ(FilesIn(folder.path()).size(), 2U) << "the readers keep their pool and no other";
  EXPECT_EQ(Read(reader.Get(), 0, 1000), Wave(1000));
  reader.Reset();
  EXPECT_EQ(FilesIn(folder.path()).size(), 2U);
  other.Reset();
  EXPECT_TRUE(FilesIn(folder.path()).empty());
}

TEST(AudioPool, WithoutFilesFailsReadsAndWritesAndKeepsTheLengthOfTakes) {
  const TemporaryDirectorySetting setting;
  const TemporaryFolder folder;
  const std::wstring plain_file = folder.File(L"file");
  WriteFileBytes(plain_file, Bytes{1, 2, 3});
  for (const auto& [place, error] : {std::pair{folder.File(L"missing"), ERROR_FILE_NOT_FOUND},
                                     {folder.File(L"missing\\deeper"), ERROR_PATH_NOT_FOUND},
                                     {plain_file, 0}}) {
    TemporaryDirectorySetting::Set(place);
    const Pool pool(1, 16);
    EXPECT_EQ(pool.AudioFile(), nullptr);
    EXPECT_EQ(pool.PeakFile(), nullptr);
    EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
    EXPECT_FALSE(pool.IsReady());
    const HRESULT hr = pool.Write(Wave(600));
    EXPECT_TRUE(FAILED(hr));
    EXPECT_TRUE(error == 0 || hr == HRESULT_FROM_WIN32(error)) << hr;
    EXPECT_EQ(pool.Write(Wave(100)), hr);
    EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
    EXPECT_TRUE(pool.IsReady());
    EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
    EXPECT_EQ(pool.writer->CloseDevice(), S_FALSE);

    const auto take = pool.LastReader();
    EXPECT_EQ(SampleCount(take.Get()), 700);
    IAudioReader* none = nullptr;
    EXPECT_EQ(pool.pool->CreatePrevReader(&none), S_FALSE);
    const Floats block(4);
    EXPECT_EQ(take->ReadAudio(0, block), kInvalidHandle);
    EXPECT_EQ(As<IPeakReader>(take)->ReadPeaks(0, block), kInvalidHandle);
    EXPECT_EQ(take->OpenDevice(), S_OK);
    EXPECT_FALSE(pool.IsReady());
    EXPECT_EQ(take->CloseDevice(), S_OK);
  }
}

TEST(AudioPool, ReportsAFailedWriteOfAudioButNotOfPeaksAndAdvancesAllTheSame) {
  const Pool pool;
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_EQ(pool.Write(Wave(256)), S_OK);
  {
    WithheldFile audio(pool.AudioFile());
    EXPECT_EQ(pool.Write(Wave(256)), kInvalidHandle);
  }
  {
    WithheldFile peaks(pool.PeakFile());
    EXPECT_EQ(pool.Write(Wave(256, 0.0F)), S_OK);
  }
  EXPECT_EQ(pool.writer->CloseDevice(), S_OK);

  // The take keeps a gap, with peaks for it; the third block lies where it belongs.
  const auto reader = pool.LastReader();
  EXPECT_EQ(SampleCount(reader.Get()), 768);
  EXPECT_EQ(Read(reader.Get(), 0, 256), Wave(256));
  EXPECT_EQ(Read(reader.Get(), 256, 256), Samples(256, 0.0F));
  EXPECT_EQ(Read(reader.Get(), 512, 256), Wave(256, 0.0F));
  EXPECT_EQ(BytesOf(pool.PeakFile()).size(), 3 * sizeof(float[2]));
}

TEST(AudioPool, WritesAcrossTwoFourAndEightGibibytes) {
  const Pool pool;
  pool.WriteTake(Wave(300));
  MakeSparse(pool.AudioFile());
  const std::array kBoundaries = {1LL << 31, 1LL << 32, 1LL << 33};
  const Samples wave = Wave(1000, 0.0F);
  __int64 position = 300;
  for (const __int64 boundary : kBoundaries) {
    // Half of the next take lies behind the boundary.
    const __int64 begin = boundary / 4 - 500;
    {
      // Writes that fail advance the position without filling the disk.
      WithheldFile audio(pool.AudioFile());
      EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
      Floats block(1 << 22);
      for (; begin - position >= 1 << 22; position += 1 << 22) {
        ASSERT_EQ(pool.writer->WriteAudio(block), kInvalidHandle);
      }
      EXPECT_EQ(pool.Write(Samples(static_cast<std::size_t>(begin - position))), kInvalidHandle);
      EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
    }
    pool.WriteTake(wave);
    position = begin + 1000;
  }
  LARGE_INTEGER size = {};
  EXPECT_TRUE(GetFileSizeEx(pool.AudioFile(), &size));
  EXPECT_EQ(size.QuadPart, (1LL << 33) + 2000);

  auto take = pool.LastReader();
  for (std::size_t i = kBoundaries.size(); i-- > 0;) {
    SCOPED_TRACE(kBoundaries[i]);
    EXPECT_EQ(SampleCount(take.Get()), 1000);
    EXPECT_EQ(Read(take.Get(), 0, 1000), wave);
    // Of its whole groups: the next take has written over the last.
    Floats peaks(6);
    EXPECT_EQ(As<IPeakReader>(take)->ReadPeaks(0, peaks), S_OK);
    for (std::size_t group = 0; group < 3; ++group) {
      const auto samples = std::span(wave).subspan(256 * group, 256);
      EXPECT_EQ(peaks[2 * group], std::ranges::min(samples));
      EXPECT_EQ(peaks[2 * group + 1], std::ranges::max(samples));
    }
    // The gap before it ends where it begins.
    const auto gap = pool.PrevReader();
    const __int64 length = SampleCount(gap.Get());
    EXPECT_EQ(Read(gap.Get(), length - 2, 3), (Samples{0.0F, 0.0F, wave[0]}));
    take = pool.PrevReader();
  }
  EXPECT_EQ(Read(take.Get(), 0, 300), Wave(300));
}

}  // namespace
}  // namespace marlinda::testing
