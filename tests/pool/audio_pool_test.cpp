// The pool and its readers, down to the bytes of its files.
#include <windows.h>
// After windows.h.
#include <winioctl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <span>
#include <thread>
#include <tuple>

#include "core/handle.h"
#include "pool/dither.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using Bytes = std::vector<unsigned char>;
using Samples = std::vector<float>;

constexpr auto kEndOfFile = static_cast<HRESULT>(0x80070026);
constexpr auto kInvalidHandle = static_cast<HRESULT>(0x80070006);
constexpr auto kNegativeSeek = static_cast<HRESULT>(0x80070083);
constexpr __int64 kLowest = std::numeric_limits<__int64>::min();
constexpr __int64 kHighest = std::numeric_limits<__int64>::max();

// `count` samples from `start` on, none like its neighbours.
Samples Wave(std::size_t count, float start = -1.0F) {
  Samples samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = start + static_cast<float>((i * 37) % 1024) / 512.0F;
  }
  return samples;
}

// All of a file that only its handle can reach.
template <class T>
std::vector<T> Contents(HANDLE file) {
  LARGE_INTEGER size = {};
  EXPECT_TRUE(GetFileSizeEx(file, &size));
  std::vector<T> items(static_cast<std::size_t>(size.QuadPart) / sizeof(T));
  SetFilePointerEx(file, LARGE_INTEGER{}, nullptr, FILE_BEGIN);
  DWORD read = 0;
  EXPECT_TRUE(ReadFile(file, items.data(), size.LowPart, &read, nullptr));
  return items;
}
Bytes BytesOf(HANDLE file) { return Contents<unsigned char>(file); }
Samples FloatsOf(HANDLE file) { return Contents<float>(file); }

// Reads samples or, through the other interface, peaks into a block of -7.
struct Block {
  Block(IUnknown* reader, __int64 position, std::size_t count, bool peaks = false) {
    const Floats block(count, -7.0F);
    hr = peaks ? As<IPeakReader>(reader)->ReadPeaks(position, block)
               : As<IAudioReader>(reader)->ReadAudio(position, block);
    samples = block.ToVector();
  }
  HRESULT hr;
  Samples samples;
};

// Reads samples that must all be there.
Samples Read(const ComPtr<IAudioReader>& reader, __int64 position, std::size_t count) {
  const Block block(reader.Get(), position, count);
  EXPECT_EQ(block.hr, S_OK);
  return block.samples;
}

__int64 SampleCount(const ComPtr<IAudioReader>& reader) {
  __int64 count = -1;
  EXPECT_EQ(reader->GetSampleCount(&count), S_OK);
  return count;
}

struct Pool {
  explicit Pool(SHORT channels = 1, SHORT bits = 32, SHORT dithering = 0) {
    EXPECT_EQ(pool->SetBitDepth(bits, dithering), S_OK);
    EXPECT_EQ(writer->SetFormat(44100, channels), S_OK);
    __int64 handles[2] = {};
    EXPECT_EQ(pool->GetFileHandles(&handles[0], &handles[1]), S_OK);
    audio_file = reinterpret_cast<HANDLE>(static_cast<INT_PTR>(handles[0]));
    peak_file = reinterpret_cast<HANDLE>(static_cast<INT_PTR>(handles[1]));
  }
  void Open() const { EXPECT_EQ(writer->OpenDevice(), S_OK); }
  void Close(HRESULT expected = S_OK) const { EXPECT_EQ(writer->CloseDevice(), expected); }
  HRESULT Write(const Samples& samples) const { return writer->WriteAudio(Floats(samples)); }
  void WriteTake(const Samples& samples) const {
    Open();
    EXPECT_EQ(Write(samples), S_OK);
    Close();
  }
  bool IsReady() const {
    LONG ready = -1;
    EXPECT_EQ(writer->QueryIsReady(&ready), S_OK);
    return ready == 1;
  }
  ComPtr<IAudioReader> LastReader() const {
    ComPtr<IAudioReader> reader;
    EXPECT_EQ(pool->CreateLastReader(reader.GetAddressOf()), S_OK);
    return reader;
  }
  ComPtr<IAudioReader> PrevReader() const {
    ComPtr<IAudioReader> reader;
    EXPECT_EQ(pool->CreatePrevReader(reader.GetAddressOf()), S_OK);
    return reader;
  }

  const ComPtr<IAudioPool> pool = Create<IAudioPool>(CLSID_CAudioPool);
  const ComPtr<IAudioWriter> writer = As<IAudioWriter>(pool);
  HANDLE audio_file;
  HANDLE peak_file;
};

ComPtr<IAudioReader> ReaderOf(const Pool& pool, __int64 byte_count, SHORT bits) {
  const auto region = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  EXPECT_EQ(region->Create(pool.pool.Get(), 0, 0, byte_count, bits), S_OK);
  return As<IAudioReader>(region);
}

// Takes a file out of its owner's hands for a while: an event stands in for it under the same
// handle value, so that the owner's calls fail without hitting anything else.
class WithheldFile {
 public:
  explicit WithheldFile(HANDLE file) : slot_(file), file_(Copy(file)) {
    CloseHandle(slot_);
    Occupy([] { return CreateEventW(nullptr, TRUE, FALSE, nullptr); });
  }
  ~WithheldFile() {
    CloseHandle(slot_);
    Occupy([this] { return Copy(file_.get()); });
  }
  WithheldFile(const WithheldFile&) = delete;
  WithheldFile& operator=(const WithheldFile&) = delete;

 private:
  static HANDLE Copy(HANDLE file) {
    HANDLE copy = nullptr;
    EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), file, GetCurrentProcess(), &copy, 0, FALSE,
                                DUPLICATE_SAME_ACCESS));
    return copy;
  }
  // The system gives free handle values again, in an order of its own.
  template <class Make>
  void Occupy(Make make) {
    std::vector<KernelHandle> others;
    HANDLE handle = make();
    for (; handle != slot_ && others.size() < 1000; handle = make()) others.emplace_back(handle);
    EXPECT_EQ(handle, slot_) << "the handle value did not come back";
  }

  const HANDLE slot_;
  const KernelHandle file_;
};

TEST(AudioPool, StoresEachBitDepthInItsCodeAndReadsItBack) {
  const Samples samples = {0.0F, 1.0F, -1.0F, 0.5F, 2.0F};
  struct Row {
    SHORT bits;
    Bytes bytes;
    Samples read = {};
  };
  const Row rows[] = {
      // At 8 bits reading is not the inverse of writing: the centre, 128, reads as 1/127.
      {8, {128, 255, 1, 192, 255}, {1 / 127.0F, 128 / 127.0F, -126 / 127.0F, 65 / 127.0F}},
      {16,
       {0, 0, 0xFF, 0x7F, 0x01, 0x80, 0x00, 0x40, 0xFF, 0x7F},
       {0, 1, -1, static_cast<float>(16384 / 32767.0)}},
      {24, {0, 0, 0, 0, 0, 0x80, 0, 0, 0x80, 0, 0, 0x40, 0, 0, 0x80}, {0, -1, -1, 0.5F}},
      {32,
       {0, 0, 0, 0, 0, 0, 0x80, 0x3F, 0, 0, 0x80, 0xBF, 0, 0, 0, 0x3F, 0, 0, 0, 0x40},
       {0, 1, -1, 0.5F}},
      // Between the usual widths the positions advance by bits / 8 bytes a sample.
      {20, {0, 0, 0, 0, 0, 0x80, 0, 0, 0x80, 0}},
      {12, {0, 0, 0xFF, 0x7F, 0x01}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.bits);
    const Pool pool(1, row.bits);
    const Floats block(samples);
    pool.Open();
    EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
    pool.Close();
    EXPECT_EQ(BytesOf(pool.audio_file), row.bytes);
    EXPECT_EQ(FloatsOf(pool.peak_file), (Samples{-1.0F, 2.0F}));
    EXPECT_EQ(block.ToVector(), samples) << "the caller's block is not dithered";
    EXPECT_EQ(SampleCount(pool.LastReader()), 5);
    EXPECT_TRUE(row.read.empty() || Read(pool.LastReader(), 0, 4) == row.read);
    EXPECT_EQ(Block(pool.LastReader().Get(), 0, 0).hr, S_OK);
  }
}

TEST(AudioPool, LetsAThreadReadATakeWhileTheNextIsWritten) {
  const Pool pool;
  Samples samples = Wave(1 << 16);
  pool.WriteTake(samples);
  // Without the record behind them, which belongs to the next take.
  Samples peaks = FloatsOf(pool.peak_file);
  peaks.resize(2 * samples.size() / 256);
  std::atomic<bool> done = false;
  int wrong = 0;
  std::thread other([&, reader = pool.LastReader(), first = samples] {
    while (!done) {
      wrong += Block(reader.Get(), 0, first.size()).samples != first;
      wrong += Block(reader.Get(), 0, peaks.size(), true).samples != peaks;
    }
  });
  const Samples block = Wave(1000, 0.25F);
  pool.Open();
  for (int i = 0; i < 1500; ++i) {
    EXPECT_EQ(pool.Write(block), S_OK);
    samples.insert(samples.end(), block.begin(), block.end());
  }
  pool.Close();
  done = true;
  other.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(FloatsOf(pool.audio_file) == samples);
}

TEST(AudioPool, WritesAPeakMoreThanThereAreGroupsAndOverwritesItWithTheNextBlock) {
  const Pool pool;
  // Two peaks that stay, and some behind them.
  const auto expect_peaks = [&pool](const Samples& last) {
    Samples expected = {-0.75F, 0.5F, -0.125F, 0.25F};
    for (const float level : last) expected.insert(expected.end(), 2, level);
    EXPECT_EQ(FloatsOf(pool.peak_file), expected);
  };
  Samples block(512, 0.0F);
  block[0] = -0.75F;
  block[255] = 0.5F;
  block[256] = 0.25F;
  block[511] = -0.125F;
  pool.Open();
  EXPECT_EQ(pool.Write(block), S_OK);
  expect_peaks({-0.125F});
  // The next write starts at record 2, and its incomplete group does not advance the position.
  EXPECT_EQ(pool.Write(Samples(100, 0.9F)), S_OK);
  expect_peaks({0.9F});
  EXPECT_EQ(pool.Write(Samples(155, 0.8F)), S_OK);
  expect_peaks({0.8F});
  // 767 frames so far: one more completes group 2, although it began in the middle.
  EXPECT_EQ(pool.Write(Samples(1, 0.7F)), S_OK);
  EXPECT_EQ(pool.Write(Samples(1, 0.6F)), S_OK);
  expect_peaks({0.7F, 0.6F});
  pool.Close();
  // A new take starts where the position stands, at the last take's incomplete group.
  pool.WriteTake(Samples(1, 0.1F));
  expect_peaks({0.7F, 0.1F});
}

TEST(AudioPool, AcceptsAnyFormatAndRefusesTheBlocksThatItCannotStore) {
  constexpr HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
  const std::tuple<SHORT, SHORT, SHORT, HRESULT> rows[] = {
      {SHRT_MIN, 32, 0, E_INVALIDARG}, {-1, 32, 0, E_INVALIDARG}, {0, 32, 0, E_INVALIDARG},
      {1, SHRT_MIN, 1, E_INVALIDARG},  {1, -32, 0, E_INVALIDARG}, {1, 0, 1, E_INVALIDARG},
      {1, 7, 0, E_INVALIDARG},         {1, 41, 1, E_INVALIDARG},  {19, 32, 0, E_INVALIDARG},
      {9, 16, 1, kNotSupported},       {9, 16, 0, S_OK},          {9, 32, 2, S_OK}};
  for (const auto& [channels, bits, dithering, expected] : rows) {
    SCOPED_TRACE(::testing::Message() << channels << " channels, " << bits << " bits");
    const Pool pool(channels, bits, dithering);
    LONG rate = 0;
    SHORT stored_channels = 0;
    EXPECT_EQ(pool.pool->GetFormat(&rate, &stored_channels), S_OK);
    EXPECT_EQ(rate, 44100);
    EXPECT_EQ(stored_channels, channels);
    const Samples samples = Wave(18);
    const Floats block(samples);
    EXPECT_EQ(pool.writer->WriteAudio(block), expected);
    EXPECT_EQ(block.ToVector(), samples);
    EXPECT_EQ(BytesOf(pool.audio_file).empty(), FAILED(expected));
    EXPECT_EQ(BytesOf(pool.peak_file).empty(), FAILED(expected));
  }
  const auto pool = Create<IAudioWriter>(CLSID_CAudioPool);
  EXPECT_EQ(pool->WriteAudio(Floats(8)), E_INVALIDARG) << "before SetFormat";
  EXPECT_EQ(Pool().Write({}), E_INVALIDARG) << "no frame has no peak";
}

TEST(AudioPool, StoresABlockThatEndsWithinAFrameInFull) {
  const Pool pool(2);
  pool.Open();
  EXPECT_EQ(pool.Write({0.1F, 0.2F, 0.3F}), S_OK);
  EXPECT_EQ(pool.Write({0.4F}), E_INVALIDARG) << "less than a frame has no peak";
  EXPECT_EQ(pool.Write({0.4F, 0.5F, 0.6F}), S_OK);
  pool.Close();
  EXPECT_EQ(FloatsOf(pool.audio_file), (Samples{0.1F, 0.2F, 0.3F, 0.4F, 0.5F, 0.6F}));
  EXPECT_EQ(FloatsOf(pool.peak_file), (Samples{0.4F, 0.4F, 0.5F, 0.5F}));
  EXPECT_EQ(SampleCount(pool.LastReader()), 3);
}

TEST(AudioPool, IsReadyOnlyWhileNobodyHasItOpen) {
  const Pool pool;
  EXPECT_TRUE(pool.IsReady());
  pool.Open();
  EXPECT_EQ(pool.pool->Lock(), S_OK);
  EXPECT_EQ(pool.Write(Wave(4)), S_OK);
  EXPECT_FALSE(pool.IsReady());
  pool.Close();
  EXPECT_FALSE(pool.IsReady());
  EXPECT_EQ(pool.pool->Unlock(), S_OK);
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

TEST(AudioPool, GivesReadersOfItsTakesNewestFirst) {
  const Pool pool(2, 16);
  pool.WriteTake(Samples(20, 1.0F));
  pool.WriteTake(Samples(600, 0.0F));
  IAudioReader* const untouched = pool.LastReader().Get();
  IAudioReader* none = untouched;
  const Pool fresh;
  EXPECT_EQ(fresh.pool->CreateLastReader(&none), S_FALSE);
  fresh.WriteTake({1.0F});
  EXPECT_EQ(fresh.pool->CreatePrevReader(&none), S_FALSE) << "no cursor before CreateLastReader";
  // An empty run between takes, and a second OpenDevice that abandons what was written before it.
  pool.Open();
  pool.Close(S_FALSE);
  EXPECT_TRUE(pool.IsReady());
  pool.Open();
  EXPECT_EQ(pool.Write(Samples(8, 0.75F)), S_OK);
  pool.Open();
  EXPECT_EQ(pool.Write(Samples(6, -1.0F)), S_OK);
  pool.Close();

  EXPECT_EQ(Read(pool.LastReader(), 0, 6), Samples(6, -1.0F));
  const auto second = pool.PrevReader();
  const auto first = pool.PrevReader();
  EXPECT_EQ(pool.pool->CreatePrevReader(&none), S_FALSE);
  EXPECT_EQ(pool.pool->CreatePrevReader(&none), S_FALSE);
  EXPECT_EQ(none, untouched);
  EXPECT_EQ(SampleCount(second), 300);
  EXPECT_EQ(SampleCount(first), 10);
  EXPECT_EQ(Read(second, 0, 600), Samples(600, 0.0F));
  EXPECT_EQ(Read(first, 0, 20), Samples(20, 1.0F));
  // CreateLastReader starts again; a take added afterwards does not move the cursor.
  EXPECT_EQ(SampleCount(pool.LastReader()), 3);
  pool.WriteTake(Samples(2, 0.1F));
  EXPECT_EQ(SampleCount(pool.PrevReader()), 300);
  EXPECT_EQ(SampleCount(pool.LastReader()), 1);
  // Readers get the present bit depth.
  EXPECT_EQ(pool.pool->SetBitDepth(8, 0), S_OK);
  EXPECT_EQ(SampleCount(pool.LastReader()), 2);
}

TEST(AudioPool, DithersTheCallersBlockWithTheRandomNumbersOfTheProcess) {
  const Samples original = Wave(512, -0.9F);
  for (const SHORT bits : {8, 16, 24}) {
    for (const SHORT mode : {1, 2}) {
      SCOPED_TRACE(::testing::Message() << bits << " bits, mode " << mode);
      DitherState dither;
      dither.SetUp(mode, 2, bits);
      std::srand(77);
      Samples expected[2] = {original, original};
      for (Samples& samples : expected) dither.Process(samples, std::rand);

      const Pool pool(2, bits, mode);
      const auto write = [&](const Samples& dithered) {
        const Floats block(original);
        EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
        EXPECT_EQ(block.ToVector(), dithered);
      };
      std::srand(77);
      write(expected[0]);
      write(expected[1]);
      // The dithered samples are stored, and the peaks are theirs.
      const Pool plain(2, bits);
      EXPECT_EQ(plain.Write(expected[0]), S_OK);
      EXPECT_EQ(plain.Write(expected[1]), S_OK);
      EXPECT_EQ(BytesOf(pool.audio_file), BytesOf(plain.audio_file));
      EXPECT_EQ(FloatsOf(pool.peak_file), FloatsOf(plain.peak_file));
      // SetFormat clears the errors, and so does SetBitDepth.
      EXPECT_EQ(pool.writer->SetFormat(8000, 2), S_OK);
      std::srand(77);
      write(expected[0]);
      EXPECT_EQ(pool.pool->SetBitDepth(bits, mode), S_OK);
      std::srand(77);
      write(expected[0]);
    }
  }
}

// With settings of its own in place of the user's, which other programs read at the same time.
class AudioPoolFiles : public ::testing::Test {
 protected:
  AudioPoolFiles() {
    EXPECT_EQ(RegCreateKeyW(HKEY_CURRENT_USER, kSettings, settings_.Receive()), 0);
    EXPECT_EQ(RegOverridePredefKey(HKEY_CURRENT_USER, settings_.get()), 0);
  }
  ~AudioPoolFiles() override {
    RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, kSettings);
  }
  static void PutFilesInto(const std::wstring& folder) {
    EXPECT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, L"Software\\Brevant\\Cutloom\\Directories",
                              L"Temporary", REG_SZ, folder.c_str(),
                              static_cast<DWORD>((folder.size() + 1) * sizeof(wchar_t))),
              0);
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      names.push_back(entry.path().filename().string().substr(0, 3));
    }
    std::ranges::sort(names);
    return names;
  }

  static constexpr wchar_t kSettings[] = L"Software\\TessalyPoolTest";
  const TemporaryFolder folder_;
  RegistryKey settings_;
};

TEST_F(AudioPoolFiles, StayWhereTheUserWantsThemUntilTheLastReferenceGoes) {
  PutFilesInto(folder_.path());
  ComPtr<IAudioReader> readers[2];
  {
    const Pool pool;
    EXPECT_EQ(Files(), (std::vector<std::string>{"aud", "pea"}));
    const Pool second;
    EXPECT_EQ(Files().size(), 4U);
    pool.WriteTake(Wave(1000));
    for (auto& reader : readers) reader = pool.LastReader();
  }
  readers[1].Reset();
  EXPECT_EQ(Files().size(), 2U) << "a reader keeps its pool and no other";
  EXPECT_EQ(Read(readers[0], 0, 1000), Wave(1000));
  readers[0].Reset();
  EXPECT_EQ(Files(), std::vector<std::string>());
}

TEST_F(AudioPoolFiles, WhereMissingFailReadsAndWritesAndKeepTheLengthOfTakes) {
  const std::wstring plain_file = folder_.File(L"file");
  WriteFileBytes(plain_file, Bytes{1, 2, 3});
  for (const auto& [place, error] : {std::pair{folder_.File(L"missing"), ERROR_FILE_NOT_FOUND},
                                     {folder_.File(L"missing\\deeper"), ERROR_PATH_NOT_FOUND},
                                     {plain_file, 0}}) {
    PutFilesInto(place);
    const Pool pool(1, 16);
    EXPECT_EQ(pool.audio_file, nullptr);
    EXPECT_EQ(pool.peak_file, nullptr);
    pool.Open();
    const HRESULT hr = pool.Write(Wave(600));
    EXPECT_TRUE(FAILED(hr));
    EXPECT_TRUE(error == 0 || hr == HRESULT_FROM_WIN32(error)) << hr;
    EXPECT_EQ(pool.Write(Wave(100)), hr);
    EXPECT_FALSE(pool.IsReady());
    pool.Close();
    EXPECT_TRUE(pool.IsReady());
    const auto take = pool.LastReader();
    EXPECT_EQ(SampleCount(take), 700);
    for (const bool peaks : {false, true}) {
      EXPECT_EQ(Block(take.Get(), 0, 4, peaks).hr, kInvalidHandle);
    }
    EXPECT_EQ(take->OpenDevice(), S_OK);
    EXPECT_FALSE(pool.IsReady());
    EXPECT_EQ(take->CloseDevice(), S_OK);
  }
}

TEST(AudioPool, ReportsAFailedWriteOfAudioButNotOfPeaksAndAdvancesAllTheSame) {
  for (const SHORT bits : {16, 32}) {
    const Pool pool(1, bits);
    const Samples ones(256, 1.0F);
    pool.Open();
    EXPECT_EQ(pool.Write(ones), S_OK);
    {
      const WithheldFile audio(pool.audio_file);
      EXPECT_EQ(pool.Write(ones), kInvalidHandle);
    }
    {
      const WithheldFile peaks(pool.peak_file);
      EXPECT_EQ(pool.Write(ones), S_OK);
    }
    pool.Close();
    // The take keeps a gap, with peaks for it; the third block lies where it belongs.
    const auto reader = pool.LastReader();
    EXPECT_EQ(SampleCount(reader), 768);
    Samples expected(768, 1.0F);
    std::fill_n(&expected[256], 256, 0.0F);
    EXPECT_EQ(Read(reader, 0, 768), expected);
    EXPECT_EQ(FloatsOf(pool.peak_file), Samples(6, 1.0F));
    // A failed read leaves the block alone.
    for (const bool peaks : {false, true}) {
      const WithheldFile withheld(peaks ? pool.peak_file : pool.audio_file);
      const Block block(reader.Get(), 0, 4, peaks);
      EXPECT_EQ(block.hr, kInvalidHandle);
      EXPECT_EQ(block.samples, Samples(4, -7.0F));
      EXPECT_EQ(Block(reader.Get(), 0, 4, !peaks).hr, S_OK);
    }
  }
}

TEST(AudioPool, WritesAcrossTwoFourAndEightGibibytes) {
  const Pool pool;
  pool.WriteTake(Wave(300));
  DWORD returned = 0;
  // Lets the file have holes, where it may not anyway.
  DeviceIoControl(pool.audio_file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  const Samples wave = Wave(1000, 0.0F);
  constexpr __int64 kLarge = 1 << 22;
  const Samples large(kLarge);
  __int64 position = 300;
  for (const int shift : {31, 32, 33}) {
    // Half of the next take lies behind the boundary.
    const __int64 begin = (1LL << shift) / 4 - 500;
    {
      // Writes that fail advance the position without filling the disk.
      const WithheldFile audio(pool.audio_file);
      pool.Open();
      const Floats block(large);
      for (; begin - position >= kLarge; position += kLarge) {
        ASSERT_EQ(pool.writer->WriteAudio(block), kInvalidHandle);
      }
      EXPECT_EQ(pool.Write(Samples(static_cast<std::size_t>(begin - position))), kInvalidHandle);
      pool.Close();
    }
    pool.WriteTake(wave);
    position = begin + 1000;
  }
  auto take = pool.LastReader();
  for (int takes = 0; takes < 3; ++takes) {
    EXPECT_EQ(SampleCount(take), 1000);
    EXPECT_EQ(Read(take, 0, 1000), wave);
    const auto group = std::span(wave).first(256);
    EXPECT_EQ(Block(take.Get(), 0, 2, true).samples,
              (Samples{std::ranges::min(group), std::ranges::max(group)}));
    // The gap before it ends where it begins.
    const auto gap = pool.PrevReader();
    EXPECT_EQ(Read(gap, SampleCount(gap) - 2, 3), (Samples{0.0F, 0.0F, wave[0]}));
    take = pool.PrevReader();
  }
  EXPECT_EQ(Read(take, 0, 300), Wave(300));
}

TEST(AudioPoolReader, CountsTheFramesOfItsRegion) {
  const std::tuple<SHORT, __int64, SHORT, __int64> rows[] = {{2, 4000, 16, 1000},
                                                             {2, 4003, 16, 1000},
                                                             {2, 4000, 32, 500},
                                                             {2, 3, 16, 0},
                                                             {2, -4000, 16, -1000},
                                                             {2, 1LL << 42, 8, 1LL << 41},
                                                             {2, 4000, 20, 1000},
                                                             {2, 4000, -8, -2000},
                                                             {2, 4000, -7, 0},
                                                             {2, 4000, 0, 0},
                                                             {2, 4000, 7, 0},
                                                             {-2, kLowest, 8, 1LL << 62},
                                                             {-1, kLowest, 8, kHighest},
                                                             {0, kLowest, 8, 0}};
  for (const auto& [channels, bytes, bits, expected] : rows) {
    EXPECT_EQ(SampleCount(ReaderOf(Pool(channels), bytes, bits)), expected)
        << channels << " channels, " << bytes << " bytes, " << bits << " bits";
  }
  const Pool pool;
  for (const SHORT bits : {SHRT_MIN, 0, 7, 41, SHRT_MAX}) {
    EXPECT_EQ(Block(ReaderOf(pool, 64, bits).Get(), 0, 4).hr, E_INVALIDARG) << bits;
  }
}

TEST(AudioPoolReader, ReadsOnPastItsRegionUntilTheFileEnds) {
  const Pool pool(2);
  pool.WriteTake({0.1F, 0.2F, 0.3F, 0.4F});
  pool.WriteTake({0.5F, 0.6F, 0.7F, 0.8F});
  const auto last = pool.LastReader();
  const auto first = pool.PrevReader();
  EXPECT_EQ(Read(first, 1, 4), (Samples{0.3F, 0.4F, 0.5F, 0.6F}));
  EXPECT_EQ(Read(last, -1, 4), (Samples{0.3F, 0.4F, 0.5F, 0.6F}));
  EXPECT_EQ(Read(last, 0, 3), (Samples{0.5F, 0.6F, 0.7F})) << "not whole frames";
  const Block partial(last.Get(), 1, 4);
  EXPECT_EQ(partial.hr, kEndOfFile);
  EXPECT_EQ(partial.samples, (Samples{0.7F, 0.8F, -7.0F, -7.0F})) << "the rest keeps its values";
  for (const auto& [position, expected] : {std::pair{2LL, kEndOfFile},
                                           {1LL << 40, kEndOfFile},
                                           {kHighest, kEndOfFile},
                                           {-3LL, kNegativeSeek},
                                           {-(1LL << 40), kNegativeSeek},
                                           {kLowest, kNegativeSeek}}) {
    for (const bool peaks : {false, true}) {
      const Block block(last.Get(), position, 2, peaks);
      EXPECT_EQ(block.hr, expected) << position;
      EXPECT_EQ(block.samples, Samples(2, -7.0F));
    }
  }
  // What a PCM file does not have is silence.
  for (const SHORT bits : {8, 16, 24}) {
    const Pool pcm(1, bits);
    pcm.WriteTake({1.0F, -1.0F});
    const Block block(pcm.LastReader().Get(), 1, 5);
    EXPECT_EQ(block.hr, kEndOfFile);
    EXPECT_LT(block.samples[0], -0.9F);
    EXPECT_EQ(Samples(&block.samples[1], &block.samples[1] + 4), Samples(4, 0.0F)) << bits;
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
  const auto take = pool.LastReader();
  LONG frames_per_peak = 0;
  EXPECT_EQ(As<IPeakReader>(take)->GetSamplesPerPeak(&frames_per_peak), S_OK);
  EXPECT_EQ(frames_per_peak, 256);
  const Samples peaks = {
      0, 0,   0,       0,  // of the take before, whose last record was overwritten
      0, 255, -255.5F, -0.5F, 256, 511, -511.5F, -256.5F, 512, 699, -699.5F, -512.5F};
  const Block all(take.Get(), -1, 16, true);
  EXPECT_EQ(all.hr, S_OK);
  EXPECT_EQ(all.samples, peaks);
  const Block past(take.Get(), 2, 8, true);
  EXPECT_EQ(past.hr, kEndOfFile);
  EXPECT_EQ(past.samples, (Samples{512, 699, -699.5F, -512.5F, -7, -7, -7, -7}));
}

TEST(AudioPoolReader, CanBeAimedAgainAndReleasesTheOldPool) {
  const auto reader = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  const auto audio = As<IAudioReader>(reader);
  const auto expect_format = [&audio](LONG expected_rate, SHORT expected_channels) {
    LONG rate = -1;
    SHORT channels = -1;
    EXPECT_EQ(audio->GetFormat(&rate, &channels), S_OK);
    EXPECT_EQ(rate, expected_rate);
    EXPECT_EQ(channels, expected_channels);
  };
  for (const bool peaks : {false, true}) {
    EXPECT_EQ(Block(reader.Get(), 0, 4, peaks).hr, kInvalidHandle);
  }
  EXPECT_EQ(audio->OpenDevice(), kInvalidHandle);
  EXPECT_EQ(audio->CloseDevice(), kInvalidHandle);
  EXPECT_EQ(SampleCount(audio), 0);
  expect_format(0, 0);

  const Pool first;
  const Pool second(2);
  first.WriteTake({0.1F, 0.2F});
  second.WriteTake({0.3F, 0.4F, 0.5F, 0.6F});
  const ULONG first_count = ReferenceCount(first.pool.Get());
  const ULONG second_count = ReferenceCount(second.pool.Get());
  EXPECT_EQ(reader->Create(first.pool.Get(), 0, 0, 8, 32), S_OK);
  EXPECT_EQ(ReferenceCount(first.pool.Get()), first_count + 1);
  EXPECT_EQ(Read(audio, 0, 2), (Samples{0.1F, 0.2F}));
  for (int times = 0; times < 2; ++times) {
    EXPECT_EQ(reader->Create(second.pool.Get(), 8, 0, 8, 32), S_OK);
    EXPECT_EQ(ReferenceCount(first.pool.Get()), first_count);
    EXPECT_EQ(ReferenceCount(second.pool.Get()), second_count + 1);
  }
  EXPECT_EQ(reader->Create(nullptr, 0, 0, 0, 8), E_POINTER) << "which changes nothing";
  EXPECT_EQ(second.writer->SetFormat(8000, 6), S_OK);
  expect_format(44100, 2);
  EXPECT_EQ(SampleCount(audio), 1);
  EXPECT_EQ(Read(audio, 0, 2), (Samples{0.5F, 0.6F}));
}

}  // namespace
}  // namespace marlinda::testing
