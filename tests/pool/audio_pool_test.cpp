// Tests the pool and its readers, down to the bytes of their files.
#include <windows.h>
// Must follow windows.h.
#include <winioctl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
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

// Returns `count` samples from `start` on, each different from its neighbours.
Samples Wave(std::size_t count, float start = -1.0F) {
  Samples samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = start + static_cast<float>((i * 37) % 1024) / 512.0F;
  }
  return samples;
}

// Returns the content of a file that only its handle can access.
template <class T = float>
std::vector<T> Contents(HANDLE file) {
  LARGE_INTEGER size = {};
  EXPECT_TRUE(GetFileSizeEx(file, &size));
  std::vector<T> items(static_cast<std::size_t>(size.QuadPart) / sizeof(T));
  SetFilePointerEx(file, LARGE_INTEGER{}, nullptr, FILE_BEGIN);
  DWORD read = 0;
  EXPECT_TRUE(ReadFile(file, items.data(), size.LowPart, &read, nullptr));
  return items;
}

// The result of a read, and the block, which held only -7 before.
using Block = std::pair<HRESULT, Samples>;
Block ReadBlock(IUnknown* reader, __int64 position, std::size_t count, bool peaks = false) {
  const Floats block(count, -7.0F);
  const HRESULT hr = peaks ? As<IPeakReader>(reader)->ReadPeaks(position, block)
                           : As<IAudioReader>(reader)->ReadAudio(position, block);
  return {hr, block.ToVector()};
}

// Reads samples that must all exist.
Samples Read(const ComPtr<IAudioReader>& reader, __int64 position, std::size_t count) {
  const auto [hr, samples] = ReadBlock(reader.Get(), position, count);
  EXPECT_EQ(hr, S_OK);
  return samples;
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
  // Returns null if `create` finds no take.
  ComPtr<IAudioReader> Reader(
      HRESULT (STDMETHODCALLTYPE IAudioPool::*create)(IAudioReader**)) const {
    ComPtr<IAudioReader> reader;
    const HRESULT hr = (pool.Get()->*create)(reader.GetAddressOf());
    EXPECT_EQ(hr, reader ? S_OK : S_FALSE);
    return reader;
  }
  ComPtr<IAudioReader> LastReader() const { return Reader(&IAudioPool::CreateLastReader); }
  ComPtr<IAudioReader> PrevReader() const { return Reader(&IAudioPool::CreatePrevReader); }

  const ComPtr<IAudioPool> pool = Create<IAudioPool>(CLSID_CAudioPool);
  const ComPtr<IAudioWriter> writer = As<IAudioWriter>(pool);
  HANDLE audio_file;
  HANDLE peak_file;
};

TEST(AudioPool, StoresAndReadsEachBitDepth) {
  const std::tuple<SHORT, Bytes, Samples> rows[] = {
      // At 8 bits reading is not the inverse of writing: the centre, 128, reads as 1/127.
      {8, {128, 255, 1, 192, 255}, {1 / 127.0F, 128 / 127.0F, -126 / 127.0F, 65 / 127.0F}},
      {16,
       {0, 0, 0xFF, 0x7F, 0x01, 0x80, 0x00, 0x40, 0xFF, 0x7F},
       {0, 1, -1, static_cast<float>(16384 / 32767.0)}},
      {24, {0, 0, 0, 0, 0, 0x80, 0, 0, 0x80, 0, 0, 0x40, 0, 0, 0x80}, {0, -1, -1, 0.5F}},
      {32,
       {0, 0, 0, 0, 0, 0, 0x80, 0x3F, 0, 0, 0x80, 0xBF, 0, 0, 0, 0x3F, 0, 0, 0, 0x40},
       {0, 1, -1, 0.5F}}};
  for (const auto& [bits, bytes, read] : rows) {
    SCOPED_TRACE(bits);
    const Pool pool(1, bits);
    pool.WriteTake({0.0F, 1.0F, -1.0F, 0.5F, 2.0F});
    EXPECT_EQ(Contents<unsigned char>(pool.audio_file), bytes);
    EXPECT_EQ(Contents(pool.peak_file), (Samples{-1.0F, 2.0F}));
    EXPECT_EQ(SampleCount(pool.LastReader()), 5);
    EXPECT_EQ(Read(pool.LastReader(), 0, 4), read);
  }
}

TEST(AudioPool, LetsAThreadReadATakeWhileTheNextIsWritten) {
  const Pool pool;
  Samples samples = Wave(1 << 16);
  pool.WriteTake(samples);
  // Omits the extra peak after the last group of 256 frames. The next take overwrites it.
  Samples peaks = Contents(pool.peak_file);
  peaks.resize(2 * samples.size() / 256);
  int wrong = 0;
  std::jthread other([&, reader = pool.LastReader(), first = samples](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      wrong += ReadBlock(reader.Get(), 0, first.size()).second != first;
      wrong += ReadBlock(reader.Get(), 0, peaks.size(), true).second != peaks;
    }
  });
  const Samples block = Wave(1000, 0.25F);
  pool.Open();
  for (int i = 0; i < 1500; ++i) {
    EXPECT_EQ(pool.Write(block), S_OK);
    samples.insert(samples.end(), block.begin(), block.end());
  }
  pool.Close();
  other = {};
  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(Contents(pool.audio_file) == samples);
}

TEST(AudioPool, WritesOneExtraPeakPerBlockAndOverwritesItWithTheNextBlock) {
  const Pool pool;
  const auto expect_peaks = [&pool](const Samples& levels) {
    Samples expected;
    for (const float level : levels) expected.insert(expected.end(), 2, level);
    EXPECT_EQ(Contents(pool.peak_file), expected);
  };
  Samples block(512, 0.5F);
  std::fill_n(&block[256], 256, 0.25F);
  pool.Open();
  EXPECT_EQ(pool.Write(block), S_OK);
  expect_peaks({0.5F, 0.25F, 0.25F});
  // The next write starts at peak 2 and completes no group, so the peak position stays there.
  EXPECT_EQ(pool.Write(Samples(255, 0.8F)), S_OK);
  expect_peaks({0.5F, 0.25F, 0.8F});
  // So far, the pool has 767 frames. One more frame completes group 2, which the last write began.
  EXPECT_EQ(pool.Write({0.7F}), S_OK);
  EXPECT_EQ(pool.Write({0.6F}), S_OK);
  expect_peaks({0.5F, 0.25F, 0.7F, 0.6F});
  pool.Close();
  // A new take starts at the current position, in the last take's incomplete group.
  pool.WriteTake({0.1F});
  expect_peaks({0.5F, 0.25F, 0.7F, 0.1F});
}

TEST(AudioPool, AcceptsAnyFormatAndRefusesTheBlocksThatItCannotStore) {
  constexpr HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
  const std::tuple<SHORT, SHORT, SHORT, HRESULT> rows[] = {
      {0, 32, 0, E_INVALIDARG},  {1, 7, 0, E_INVALIDARG},   {1, 41, 1, E_INVALIDARG},
      {19, 32, 0, E_INVALIDARG}, {9, 16, 1, kNotSupported}, {9, 32, 2, S_OK}};
  for (const auto& [channels, bits, dithering, expected] : rows) {
    SCOPED_TRACE(::testing::Message() << channels << " channels, " << bits << " bits");
    const Pool pool(channels, bits, dithering);
    EXPECT_EQ(pool.Write(Wave(18)), expected);
    EXPECT_EQ(Contents(pool.audio_file).empty(), FAILED(expected));
  }
  // A block may end within a frame, but needs at least one whole frame.
  const Pool pool(2);
  EXPECT_EQ(pool.Write({0.4F}), E_INVALIDARG);
  EXPECT_EQ(pool.Write({0.1F, 0.2F, 0.3F}), S_OK);
  EXPECT_EQ(Contents(pool.audio_file), (Samples{0.1F, 0.2F, 0.3F}));
  EXPECT_EQ(Contents(pool.peak_file), (Samples{0.1F, 0.1F, 0.2F, 0.2F}));
}

TEST(AudioPool, ReturnsReadersOfItsTakesNewestFirst) {
  const Pool pool(2, 16);
  EXPECT_FALSE(pool.LastReader());
  pool.WriteTake(Samples(20, 1.0F));
  EXPECT_FALSE(pool.PrevReader()) << "no cursor before CreateLastReader";
  pool.WriteTake(Samples(600, 0.0F));
  // Opens and closes without writing. Then leaves a take open, which the OpenDevice in WriteTake
  // discards.
  pool.Open();
  pool.Close(S_FALSE);
  pool.Open();
  EXPECT_EQ(pool.Write(Samples(8, 0.75F)), S_OK);
  pool.WriteTake(Samples(6, -1.0F));
  const auto expect = [](const ComPtr<IAudioReader>& take, std::size_t count, float level) {
    EXPECT_EQ(SampleCount(take), static_cast<__int64>(count) / 2);
    EXPECT_EQ(Read(take, 0, count), Samples(count, level));
  };
  expect(pool.LastReader(), 6, -1.0F);
  expect(pool.PrevReader(), 600, 0.0F);
  expect(pool.PrevReader(), 20, 1.0F);
  EXPECT_FALSE(pool.PrevReader());
  // A take added after CreateLastReader does not move the cursor.
  expect(pool.LastReader(), 6, -1.0F);
  pool.WriteTake(Samples(2, 0.0F));
  expect(pool.PrevReader(), 600, 0.0F);
  // New readers get the pool's current bit depth.
  EXPECT_EQ(pool.pool->SetBitDepth(8, 0), S_OK);
  const auto last = pool.LastReader();
  EXPECT_EQ(SampleCount(last), 2);
  // The pool is ready while neither its writer nor a reader is open.
  pool.Close();  // pairs with the OpenDevice of the take discarded above
  EXPECT_TRUE(pool.IsReady());
  EXPECT_EQ(last->OpenDevice(), S_OK);
  EXPECT_FALSE(pool.IsReady());
  EXPECT_EQ(last->CloseDevice(), S_OK);
  EXPECT_TRUE(pool.IsReady());
  // The pool adds 1 for each Lock and subtracts 1 for each Unlock. Any sum but 0 makes the pool
  // busy.
  EXPECT_EQ(pool.pool->Unlock(), S_OK);
  EXPECT_FALSE(pool.IsReady());
}

TEST(AudioPool, DithersTheCallersBlockWithRandAndStoresTheDitheredSamples) {
  const Samples original = Wave(512, -0.9F);
  DitherState dither;
  dither.SetUp(2, 2, 16);
  std::srand(77);
  Samples first = original;
  Samples second = original;
  dither.Process(first, std::rand);
  dither.Process(second, std::rand);
  const Pool pool(2, 16, 2);
  const Pool plain(2, 16);
  for (int step = 0; step < 4; ++step) {
    if (step != 1) std::srand(77);
    // SetFormat and SetBitDepth clear the errors that the dither carries over.
    if (step == 2) pool.writer->SetFormat(8000, 2);
    if (step == 3) pool.pool->SetBitDepth(16, 2);
    const Floats block(original);
    EXPECT_EQ(pool.writer->WriteAudio(block), S_OK);
    EXPECT_EQ(block.ToVector(), step == 1 ? second : first) << step;
    EXPECT_EQ(plain.Write(block.ToVector()), S_OK);
  }
  // The dithered samples are stored, and the peaks match them.
  EXPECT_EQ(Contents<char>(pool.audio_file), Contents<char>(plain.audio_file));
  EXPECT_EQ(Contents(pool.peak_file), Contents(plain.peak_file));
}

// Uses its own settings, because other programs read the user's settings at the same time.
TEST(AudioPool, KeepsItsFilesInTheTemporaryFolderOfTheSettingsUntilTheLastRelease) {
  constexpr wchar_t kSettings[] = L"Software\\TessalyPoolTest";
  const TemporaryFolder folder;
  RegistryKey settings;
  EXPECT_EQ(RegCreateKeyW(HKEY_CURRENT_USER, kSettings, settings.Receive()), 0);
  EXPECT_EQ(RegOverridePredefKey(HKEY_CURRENT_USER, settings.get()), 0);
  const std::wstring& path = folder.path();
  EXPECT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, L"Software\\Brevant\\Cutloom\\Directories",
                            L"Temporary", REG_SZ, path.c_str(),
                            static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t))),
            0);
  const auto files = [&] {
    return std::distance(std::filesystem::directory_iterator(folder.path()), {});
  };
  ComPtr<IAudioReader> reader;
  {
    const Pool pool;
    const Pool second;
    EXPECT_EQ(files(), 4);
    pool.WriteTake(Wave(1000));
    reader = pool.LastReader();
  }
  EXPECT_EQ(files(), 2) << "a reader keeps its pool and no other";
  EXPECT_EQ(Read(reader, 0, 1000), Wave(1000));
  reader.Reset();
  EXPECT_EQ(files(), 0);
  RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
  RegDeleteTreeW(HKEY_CURRENT_USER, kSettings);
}

// Temporarily replaces a file by an event with the same handle value, so that the owner's calls
// fail without affecting anything else.
class WithheldFile {
 public:
  explicit WithheldFile(HANDLE file) : slot_(file), file_(Copy(file)) {
    Occupy([] { return CreateEventW(nullptr, TRUE, FALSE, nullptr); });
  }
  ~WithheldFile() {
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
  // Creates handles until one has the freed value, because the system chooses the values.
  void Occupy(const std::function<HANDLE()>& make) const {
    CloseHandle(slot_);
    std::vector<KernelHandle> others;
    for (HANDLE handle = make(); handle != slot_; handle = make()) others.emplace_back(handle);
  }

  const HANDLE slot_;
  const KernelHandle file_;
};

// A failed write still advances the position, so the takes reach 8 GiB without filling the disk.
TEST(AudioPool, ReportsFailedWritesAndStoresTakesAcross2And4And8GiB) {
  const Pool pool;
  pool.WriteTake(Wave(300));
  DWORD returned = 0;
  // Makes the file sparse, which some file systems do not do by default.
  DeviceIoControl(pool.audio_file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  const Samples wave = Wave(1000, 0.0F);
  constexpr __int64 kLarge = 1 << 22;
  __int64 position = 300;
  for (const int shift : {31, 32, 33}) {
    // Half of the next take lies past the file offset of 2^shift bytes.
    const __int64 begin = (1LL << shift) / 4 - 500;
    {
      const WithheldFile audio(pool.audio_file);
      const Floats large(kLarge);
      pool.Open();
      for (; begin - position >= kLarge; position += kLarge) {
        ASSERT_EQ(pool.writer->WriteAudio(large), kInvalidHandle);
      }
      EXPECT_EQ(pool.Write(Samples(static_cast<std::size_t>(begin - position))), kInvalidHandle);
      pool.Close();
    }
    pool.WriteTake(wave);
    position = begin + 1000;
  }
  {
    const WithheldFile peaks(pool.peak_file);
    pool.WriteTake(wave);
  }
  pool.LastReader();
  auto take = pool.PrevReader();
  for (int takes = 0; takes < 3; ++takes) {
    EXPECT_EQ(SampleCount(take), 1000);
    EXPECT_EQ(Read(take, 0, 1000), wave);
    EXPECT_EQ(ReadBlock(take.Get(), 0, 2, true).second[1], std::ranges::max(wave));
    // The take before `take` is only a gap, because its writes failed. A read past the gap's end
    // continues into `take`.
    const auto gap = pool.PrevReader();
    EXPECT_EQ(Read(gap, SampleCount(gap) - 2, 3), (Samples{0.0F, 0.0F, wave[0]}));
    take = pool.PrevReader();
  }
  EXPECT_EQ(Read(take, 0, 300), Wave(300));
  // A failed read leaves the block unchanged.
  const WithheldFile withheld(pool.audio_file);
  EXPECT_EQ(ReadBlock(take.Get(), 0, 4), Block(kInvalidHandle, Samples(4, -7.0F)));
}

TEST(AudioPoolReader, ReadsContinuePastTheRegionToTheEndOfTheFile) {
  const Pool pool(2);
  pool.WriteTake({0.1F, 0.2F, 0.3F, 0.4F});
  pool.WriteTake({0.5F, 0.6F, 0.7F, 0.8F});
  const auto last = pool.LastReader();
  EXPECT_EQ(Read(pool.PrevReader(), 1, 4), (Samples{0.3F, 0.4F, 0.5F, 0.6F}));
  EXPECT_EQ(Read(last, -1, 4), (Samples{0.3F, 0.4F, 0.5F, 0.6F}));
  EXPECT_EQ(Read(last, 0, 3), (Samples{0.5F, 0.6F, 0.7F})) << "not whole frames";
  // The rest of the block keeps its values.
  EXPECT_EQ(ReadBlock(last.Get(), 1, 4), Block(kEndOfFile, {0.7F, 0.8F, -7.0F, -7.0F}));
  for (const __int64 position : {2LL, std::numeric_limits<__int64>::max(), -3LL}) {
    const HRESULT expected = position < 0 ? kNegativeSeek : kEndOfFile;
    for (const bool peaks : {false, true}) {
      EXPECT_EQ(ReadBlock(last.Get(), position, 2, peaks), Block(expected, Samples(2, -7.0F)));
    }
  }
  // Samples past the end of a PCM file are silence.
  const Pool pcm(1, 24);
  pcm.WriteTake({1.0F, -1.0F});
  const auto reader = pcm.LastReader();
  Read(reader, 0, 2);  // leaves codes in the reader's buffer
  EXPECT_EQ(ReadBlock(reader.Get(), 1, 5), Block(kEndOfFile, {-1.0F, 0, 0, 0, 0}));
}

TEST(AudioPoolReader, ReadsPeaksByIndexAsMinimumAndMaximumOfEachChannel) {
  const Pool pool(2);
  Samples block;
  for (int frame = 0; frame < 300; ++frame) {
    block.insert(block.end(), {static_cast<float>(frame), static_cast<float>(-frame)});
  }
  pool.WriteTake(Samples(512 * 2, 0.0F));
  pool.WriteTake(block);
  const auto take = pool.LastReader();
  // Peak -1 is the previous take's second peak. This take has overwritten the third.
  EXPECT_EQ(ReadBlock(take.Get(), -1, 12, true),
            Block(S_OK, {0, 0, 0, 0, 0, 255, -255, 0, 256, 299, -299, -256}));
  EXPECT_EQ(ReadBlock(take.Get(), 1, 8, true),
            Block(kEndOfFile, {256, 299, -299, -256, -7, -7, -7, -7}));
}

TEST(AudioPoolReader, CanChangeItsRegionAndReleasesTheOldPool) {
  const auto reader = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  EXPECT_EQ(ReadBlock(reader.Get(), 0, 4).first, kInvalidHandle);
  const Pool first;
  const Pool second(2);
  second.WriteTake({0.3F, 0.4F, 0.5F, 0.6F});
  const ULONG count = ReferenceCount(first.pool.Get());
  EXPECT_EQ(reader->Create(first.pool.Get(), 0, 0, 8, 32), S_OK);
  EXPECT_EQ(ReferenceCount(first.pool.Get()), count + 1);
  EXPECT_EQ(reader->Create(second.pool.Get(), 8, 0, 8, 32), S_OK);
  EXPECT_EQ(ReferenceCount(first.pool.Get()), count);
  EXPECT_EQ(Read(As<IAudioReader>(reader), 0, 2), (Samples{0.5F, 0.6F}));
}

}  // namespace
}  // namespace marlinda::testing
