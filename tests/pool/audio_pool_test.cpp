#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

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

TEST(AudioPool, LendsATakeToReadersWhileTheNextIsWritten) {
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
  const Samples block = Wave(1000, 0.25F);
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(pool.Write(block), S_OK);
  done = true;
  other.join();
  EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
  EXPECT_EQ(wrong, 0);
  const Samples stored = FloatsOf(pool.AudioFile());
  ASSERT_EQ(stored.size(), first.size() + 2000 * block.size());
  for (std::size_t at = first.size(); at < stored.size(); at += block.size()) {
    ASSERT_TRUE(
        std::equal(block.begin(), block.end(), stored.begin() + static_cast<std::ptrdiff_t>(at)))
        << at;
  }
}

TEST(AudioPool, KeepsOddFloatsBitForBitAt32Bits) {
  const Pool pool;
  const std::uint32_t patterns[] = {0x7FC01234, 0xFFC00000, 0x7F800000, 0x80000000, 1, 0x7F7FFFFF};
  Samples samples(6);
  std::memcpy(samples.data(), patterns, sizeof patterns);
  EXPECT_EQ(pool.Write(samples), S_OK);
  const Bytes bytes = BytesOf(pool.AudioFile());
  ASSERT_EQ(bytes.size(), sizeof patterns);
  EXPECT_EQ(std::memcmp(bytes.data(), patterns, sizeof patterns), 0);
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

TEST(AudioPool, WritesPeaksPerChannelOfWhatIsStoredAlsoForEmptyTails) {
  const Pool pool(2, 16);
  Samples block;
  for (int frame = 0; frame < 300; ++frame) {
    block.push_back(static_cast<float>(frame) / 300.0F);
    block.push_back(-static_cast<float>(frame) / 600.0F);
  }
  pool.WriteTake(block);
  EXPECT_EQ(FloatsOf(pool.PeakFile()),
            (Samples{0.0F, 255.0F / 300.0F, -255.0F / 600.0F, 0.0F, 256.0F / 300.0F,
                     299.0F / 300.0F, -299.0F / 600.0F, -256.0F / 600.0F}));
}

TEST(AudioPool, TellsTheFormatItWasGivenAndTakesAny) {
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto writer = As<IAudioWriter>(pool);
  LONG rate = -1;
  SHORT channels = -1;
  EXPECT_EQ(pool->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(rate, 0);
  EXPECT_EQ(channels, 0);
  EXPECT_EQ(writer->SetFormat(-48000, -3), S_OK);
  EXPECT_EQ(pool->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(rate, -48000);
  EXPECT_EQ(channels, -3);
}

TEST(AudioPool, RefusesBlocksThatItCannotStoreAndWritesNothingOfThem) {
  {
    const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
    const auto writer = As<IAudioWriter>(pool);
    Floats block(8);
    EXPECT_EQ(writer->WriteAudio(block), E_INVALIDARG) << "before SetFormat";
  }
  for (const SHORT channels : {SHRT_MIN, -1, 0}) {
    const Pool pool(static_cast<SHORT>(channels));
    EXPECT_EQ(pool.Write(Samples(8)), E_INVALIDARG) << channels;
    EXPECT_TRUE(BytesOf(pool.AudioFile()).empty());
  }
  for (const SHORT bits : {SHRT_MIN, -32, -1, 0, 1, 7, 41, SHRT_MAX}) {
    for (const SHORT dithering : {0, 1}) {
      const Pool pool(1, static_cast<SHORT>(bits), static_cast<SHORT>(dithering));
      EXPECT_EQ(pool.Write(Samples(8)), E_INVALIDARG) << bits;
      EXPECT_TRUE(BytesOf(pool.AudioFile()).empty());
      EXPECT_TRUE(BytesOf(pool.PeakFile()).empty());
    }
  }
  const Pool pool;
  EXPECT_EQ(pool.writer->WriteAudio(nullptr), E_INVALIDARG);
  EXPECT_EQ(pool.writer->WriteAudio(ForeignArray(VT_I2)), E_INVALIDARG);
  EXPECT_EQ(pool.writer->WriteAudio(ForeignArray(VT_I4)), E_INVALIDARG);
  EXPECT_EQ(pool.writer->WriteAudio(ForeignArray(VT_R4, 2)), E_INVALIDARG);
  EXPECT_EQ(pool.writer->WriteAudio(ForeignArray(VT_R8)), E_INVALIDARG);
  EXPECT_EQ(pool.Write({}), E_INVALIDARG) << "nothing has no peak";
  EXPECT_TRUE(BytesOf(pool.AudioFile()).empty());
  EXPECT_TRUE(BytesOf(pool.PeakFile()).empty());
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

TEST(AudioPool, IgnoresLowerBounds) {
  const Pool pool;
  Floats block(10, 0.5F, 5);
  EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
  EXPECT_EQ(FloatsOf(pool.AudioFile()), Samples(10, 0.5F));
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

TEST(AudioPool, ARunWithoutAudioIsNoTake) {
  const Pool pool;
  EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
  EXPECT_EQ(pool.writer->CloseDevice(), S_FALSE);
  IAudioReader* const untouched = SomePointer();
  IAudioReader* reader = untouched;
  EXPECT_EQ(pool.pool->CreateLastReader(&reader), S_FALSE);
  EXPECT_EQ(pool.pool->CreatePrevReader(&reader), S_FALSE);
  EXPECT_EQ(reader, untouched);
}

TEST(AudioPool, GivesReadersOfItsTakesNewestFirst) {
  const Pool pool(2, 16);
  pool.WriteTake(Samples(20, 0.125F));
  pool.WriteTake(Samples(600, 0.25F));
  IAudioReader* const untouched = SomePointer();
  IAudioReader* none = untouched;
  EXPECT_EQ(pool.pool->CreatePrevReader(&none), S_FALSE) << "no cursor before CreateLastReader";
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
}

TEST(AudioPool, PassesItsPresentBitDepthToReaders) {
  const Pool pool(1, 8);
  pool.WriteTake(Samples(6, 0.0F));  // six bytes of 128
  EXPECT_EQ(pool.pool->SetBitDepth(16, 0), S_OK);
  const auto reader = pool.LastReader();
  EXPECT_EQ(SampleCount(reader.Get()), 3);
  EXPECT_EQ(Read(reader.Get(), 0, 1), Samples{-32640.0F / 32767.0F});  // 0x8080
}

TEST(AudioPool, AnswersNullPointersWithoutDoingAnything) {
  const Pool pool;
  __int64 handle = 0;
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(pool.pool->GetFileHandles(nullptr, &handle), E_POINTER);
  EXPECT_EQ(pool.pool->GetFileHandles(&handle, nullptr), E_POINTER);
  EXPECT_EQ(pool.pool->GetFormat(nullptr, &channels), E_POINTER);
  EXPECT_EQ(pool.pool->GetFormat(&rate, nullptr), E_POINTER);
  EXPECT_EQ(pool.pool->CreateLastReader(nullptr), E_POINTER);
  EXPECT_EQ(pool.pool->CreatePrevReader(nullptr), E_POINTER);
  EXPECT_EQ(pool.writer->QueryIsReady(nullptr), E_POINTER);
}

// The rule in the test's own words, in double, with what is kept in float.
class DitherModel {
 public:
  DitherModel(int mode, int channels, int bits)
      : mode_(mode), scale_(std::pow(2.0, bits - 1) - 1.0), states_(channels) {}

  void Process(Samples& samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
      State& state = states_[i % states_.size()];
      float x = samples[i];
      if (mode_ == 2) {
        const int r1 = std::rand();
        const int r2 = std::rand();
        x = static_cast<float>(x + ((r1 + r2) / 65534.0 - 0.5) / scale_);
      }
      const float shaped = static_cast<float>(
          double{1.623F} * state.error + double{-0.982F} * state.e1 + double{0.109F} * state.e2);
      state.e2 = state.e1;
      state.e1 = state.error;
      x += shaped;
      const double offset = -scale_ - 1.0;
      const double code = std::trunc(x * scale_ - offset + 0.5);
      const float q = static_cast<float>(code / scale_ + offset / scale_);
      state.error = x - q;
      samples[i] = q;
    }
  }

 private:
  struct State {
    float error = 0.0F, e1 = 0.0F, e2 = 0.0F;
  };
  int mode_;
  double scale_;
  std::vector<State> states_;
};

TEST(AudioPool, DithersTheCallersBlockWithTheRandomNumbersOfTheProcess) {
  for (const SHORT bits : {8, 16, 24}) {
    for (const SHORT mode : {1, 2, 5}) {
      for (const SHORT channels : {1, 2, 8}) {
        SCOPED_TRACE(::testing::Message() << bits << " bits, mode " << mode << ", " << channels);
        const Samples original = Wave(512, -0.9F);
        DitherModel model(mode, channels, bits);
        Samples expected = original;
        std::srand(77);
        model.Process(expected);
        Samples expected_more = original;
        model.Process(expected_more);

        const Pool pool(channels, bits, mode);
        Floats block(original);
        std::srand(77);
        EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
        EXPECT_EQ(block.ToVector(), expected);
        EXPECT_NE(block.ToVector(), original);
        Floats more(original);
        EXPECT_EQ(pool.writer->WriteAudio(more), S_OK);
        EXPECT_EQ(more.ToVector(), expected_more) << "the errors carry over";

        // Peaks are those of the dithered block.
        const Samples peaks = FloatsOf(pool.PeakFile());
        float lowest = 1.0F;
        for (std::size_t i = 0; i < 256U * channels && i < expected_more.size(); i += channels) {
          lowest = std::min(lowest, expected_more[i]);
        }
        // 512 samples a block: the second block's first group lies behind the whole groups.
        EXPECT_EQ(peaks[(512U / channels / 256U) * channels * 2U], lowest);

        // SetFormat forgets the errors; so does SetBitDepth.
        Floats anew(original);
        EXPECT_EQ(pool.writer->SetFormat(8000, channels), S_OK);
        std::srand(77);
        EXPECT_EQ(pool.writer->WriteAudio(anew), S_OK);
        EXPECT_EQ(anew.ToVector(), expected);
        Floats once_more(original);
        EXPECT_EQ(pool.pool->SetBitDepth(bits, mode), S_OK);
        std::srand(77);
        EXPECT_EQ(pool.writer->WriteAudio(once_more), S_OK);
        EXPECT_EQ(once_more.ToVector(), expected);
      }
    }
  }
}

TEST(AudioPool, StoresTheCodesOfTheDitheredBlock) {
  const Pool pool(1, 16, 2);
  Floats block(Wave(300, -0.5F));
  EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
  const Bytes bytes = BytesOf(pool.AudioFile());
  ASSERT_EQ(bytes.size(), 600U);
  for (std::size_t i = 0; i < 300; ++i) {
    const auto code = static_cast<std::int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
    EXPECT_EQ(code, std::min(std::lround(block[i] * 32767.0F), 32767L));
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

TEST(AudioPool, RemembersWhyItHasNoFilesAndReportsItWhereFilesAreNeeded) {
  const TemporaryDirectorySetting setting;
  const TemporaryFolder folder;
  for (const auto& [missing, error] :
       {std::pair{folder.File(L"missing"), ERROR_FILE_NOT_FOUND},
        std::pair{folder.File(L"elsewhere\\deeper"), ERROR_PATH_NOT_FOUND}}) {
    TemporaryDirectorySetting::Set(missing);
    const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
    const auto writer = As<IAudioWriter>(pool);
    // The folder that appears too late changes nothing.
    std::filesystem::create_directories(missing);
    const HRESULT expected = HRESULT_FROM_WIN32(error);
    EXPECT_EQ(writer->SetFormat(44100, 1), S_OK);
    EXPECT_EQ(pool->SetBitDepth(16, 0), S_OK);
    for (int again = 0; again < 2; ++again) {
      EXPECT_EQ(writer->OpenDevice(), expected);
      Floats block(4);
      EXPECT_EQ(writer->WriteAudio(block), expected);
      EXPECT_EQ(writer->CloseDevice(), expected);
      __int64 audio = 5;
      __int64 peak = 5;
      EXPECT_EQ(pool->GetFileHandles(&audio, &peak), expected);
      EXPECT_EQ(audio, 0);
      EXPECT_EQ(peak, 0);
      IAudioReader* const untouched = SomePointer();
      IAudioReader* reader = untouched;
      EXPECT_EQ(pool->CreateLastReader(&reader), expected);
      EXPECT_EQ(pool->CreatePrevReader(&reader), expected);
      EXPECT_EQ(reader, untouched);
    }
    LONG ready = 0;
    EXPECT_EQ(writer->QueryIsReady(&ready), S_OK);
    EXPECT_EQ(ready, 1) << "a device that did not open is not open";

    // A reader made by hand tells the same.
    const auto reader = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
    EXPECT_EQ(reader->Create(pool.Get(), 0, 0, 8, 16), S_OK);
    Floats block(4);
    EXPECT_EQ(As<IAudioReader>(reader)->ReadAudio(0, block), expected);
    EXPECT_EQ(As<IPeakReader>(reader)->ReadPeaks(0, block), expected);
  }
}

TEST(AudioPool, HasNoFilesInAFolderThatIsAFile) {
  const TemporaryDirectorySetting setting;
  const TemporaryFolder folder;
  WriteFileBytes(folder.File(L"file"), Bytes{1, 2, 3});
  TemporaryDirectorySetting::Set(folder.File(L"file"));
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  EXPECT_TRUE(FAILED(As<IAudioWriter>(pool)->OpenDevice()));
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
    for (const std::size_t at : {498U, 499U, 500U, 501U}) {
      EXPECT_EQ(Read(take.Get(), static_cast<__int64>(at), 2), (Samples{wave[at], wave[at + 1]}));
    }
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
