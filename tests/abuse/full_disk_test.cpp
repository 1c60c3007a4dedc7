// The pool, an import into it and a WAV export on a full disk and on one that cannot be written.
// The script full_disks mounts real disks of 2 MiB for this program.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "tests/abuse/parts.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

constexpr HRESULT kDiskFull = HRESULT_FROM_WIN32(ERROR_DISK_FULL);
constexpr std::size_t kBlock = 65536;

std::wstring Disk(const char* variable) {
  return L"Z:" + std::filesystem::path(std::getenv(variable)).make_preferred().wstring();
}
const std::wstring kSmall = Disk("TESSALY_SMALL_DISK");
const std::wstring kReadOnly = Disk("TESSALY_READ_ONLY_DISK");

ULONGLONG FreeBytes() {
  ULARGE_INTEGER available = {};
  EXPECT_TRUE(GetDiskFreeSpaceExW(kSmall.c_str(), &available, nullptr, nullptr));
  return available.QuadPart;
}

// Takes what the small disk has, but for `left` bytes.
struct Filler {
  explicit Filler(std::size_t left) {
    WriteFileBytes(path, std::vector<unsigned char>(FreeBytes() - left));
  }
  Filler(const Filler&) = delete;
  Filler& operator=(const Filler&) = delete;
  ~Filler() { DeleteFileW(path.c_str()); }
  const std::wstring path = kSmall + L"\\filler";
};

// A pool of 32-bit samples.
struct Pool {
  explicit Pool(const std::wstring& folder) : disk(folder) {
    Check(writer->SetFormat(44100, 2));
    Check(pool->SetBitDepth(32, 0));
  }
  HRESULT Write(const Samples& samples) const { return writer->WriteAudio(Floats(samples)); }
  // The last take, and from then on the one before.
  ComPtr<IAudioReader> Reader(bool last = true) const {
    ComPtr<IAudioReader> reader;
    Check(last ? pool->CreateLastReader(reader.GetAddressOf())
               : pool->CreatePrevReader(reader.GetAddressOf()));
    return reader;
  }
  // Into the pool, with the disk as it is. The announced length in frames.
  __int64 Import() const {
    const auto import = Create<IImportFilter>(CLSID_COggImport);
    __int64 announced = 0;
    Check(import->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()));
    Check(import->GetSourceSampleCount(&announced));
    Check(As<ICoreTask>(import)->Start());
    EXPECT_TRUE(WaitForTask(As<ICoreTask>(import).Get()));
    LONG ready = 0;
    Check(writer->QueryIsReady(&ready));
    EXPECT_EQ(ready, 1) << "the import left the pool open";
    return announced;
  }

  const TemporaryFilesIn disk;
  const ComPtr<IAudioPool> pool = Create<IAudioPool>(CLSID_CAudioPool);
  const ComPtr<IAudioWriter> writer = As<IAudioWriter>(pool);
};

__int64 FramesOf(IAudioReader* reader) {
  __int64 frames = 0;
  Check(reader->GetSampleCount(&frames));
  return frames;
}

// Of four mebibytes.
ComPtr<ICoreTask> Export(const std::wstring& path, HRESULT initialized) {
  const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  EXPECT_EQ(filter->Initialize(Bstr(path), Silence(1 << 20).Get()), initialized);
  return As<ICoreTask>(filter);
}

// Runs the scenario again and again: it must leave no handle, no thread and no file.
void Repeat(const std::function<void()>& scenario) {
  const ULONGLONG space = FreeBytes();
  scenario();
  const LeakWatch watch;
  for (int i = 0; i < 3; ++i) scenario();
  watch.AwaitAtMost(2, 2);
  EXPECT_EQ(FreeBytes(), space);
  EXPECT_TRUE(std::filesystem::is_empty(kSmall));
}

TEST(FullDisk, FailsEachBlockUntilThereIsRoomAndKeepsStoredTakes) {
  constexpr __int64 kFrames = kBlock / 2;
  const Samples first = Ramp(kBlock, 0);
  const Samples block = Ramp(kBlock, 70000);
  Repeat([&] {
    const Pool pool(kSmall);
    WriteTake(pool.writer.Get(), first);
    Check(pool.writer->OpenDevice());
    __int64 stored = 0;
    {
      const Filler filler(std::size_t{1} << 20);
      while (pool.Write(block) == S_OK && stored < 100) ++stored;
      EXPECT_EQ(pool.Write(block), kDiskFull);
      ExpectStored(pool.Reader().Get(), 0, first);
    }
    // The take keeps a gap of the two blocks that were lost.
    EXPECT_EQ(pool.Write(block), S_OK);
    Check(pool.writer->CloseDevice());
    const auto second = pool.Reader();
    EXPECT_GE(stored, 2);
    EXPECT_EQ(FramesOf(second.Get()), (stored + 3) * kFrames);
    ExpectStored(second.Get(), (stored - 1) * kFrames, block);
    ExpectStored(second.Get(), (stored + 2) * kFrames, block);
    ExpectStored(pool.Reader(false).Get(), 0, first);

    // An import ends. Its take has its length; what found no room is a gap, or not there at the
    // end.
    const Filler filler(16384);
    const __int64 announced = pool.Import();
    const auto imported = pool.Reader();
    EXPECT_EQ(FramesOf(imported.Get()), announced);
    EXPECT_EQ(imported->ReadAudio(announced - 1, Floats(2)), HRESULT_FROM_WIN32(ERROR_HANDLE_EOF));
    ExpectStored(pool.Reader(false).Get(), 0, block);
  });
}

TEST(FullDisk, TruncatesAnExportWhoseTaskEnds) {
  const std::wstring path = kSmall + L"\\out.wav";
  Repeat([&] {
    const auto task = Export(path, S_OK);
    EXPECT_EQ(task->Start(), S_OK);
    EXPECT_TRUE(WaitForTask(task.Get()));
    const auto bytes = ReadFileBytes(path);
    EXPECT_GT(bytes.size(), std::size_t{1} << 20);
    EXPECT_EQ(std::string(bytes.begin() + 8, bytes.begin() + 16), "WAVEfmt ");
    EXPECT_TRUE(DeleteFileW(path.c_str())) << "the filter still has the file open";
  });
}

TEST(ReadOnlyDisk, IsReportedByEachWriteAndByExports) {
  const std::wstring path = kReadOnly + L"\\out.wav";
  // "Write protected" on Windows, "access denied" under Wine.
  CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  const HRESULT refusal = LastErrorResult();
  Repeat([&] {
    const Pool pool(kReadOnly);
    EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
    EXPECT_EQ(pool.Write(Samples(8)), refusal);
    EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
    pool.Import();
    EXPECT_EQ(Export(path, refusal)->Start(), E_FAIL);
  });
}

}  // namespace
}  // namespace marlinda::testing
