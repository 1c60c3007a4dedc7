// The pool, an import into it and a WAV export on a full disk and on a read-only one. The script
// full_disks mounts real disks of 2 MiB for this program.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "tests/abuse/parts.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

constexpr HRESULT kDiskFull = HRESULT_FROM_WIN32(ERROR_DISK_FULL);

std::wstring Disk(const char* variable) {
  return L"Z:" + std::filesystem::path(std::getenv(variable)).make_preferred().wstring();
}
const std::wstring kSmall = Disk("TESSALY_SMALL_DISK");
const std::wstring kReadOnly = Disk("TESSALY_READ_ONLY_DISK");

// A pool of 32-bit samples.
struct Pool {
  explicit Pool(const std::wstring& folder) : disk(folder) {
    Check(writer->SetFormat(44100, 2));
    Check(pool->SetBitDepth(32, 0));
  }
  HRESULT Write(const Samples& samples) const { return writer->WriteAudio(Floats(samples)); }
  void Import() const {
    const auto import = Create<IImportFilter>(CLSID_COggImport);
    Check(import->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()));
    Check(As<ICoreTask>(import)->Start());
    EXPECT_TRUE(WaitForTask(As<ICoreTask>(import).Get()));
    LONG ready = 0;
    Check(writer->QueryIsReady(&ready));
    EXPECT_EQ(ready, 1) << "the import left the pool open";
  }

  const TemporaryFilesIn disk;
  const ComPtr<IAudioPool> pool = Create<IAudioPool>(CLSID_CAudioPool);
  const ComPtr<IAudioWriter> writer = As<IAudioWriter>(pool);
};

// Exports 4 MiB.
ComPtr<ICoreTask> Export(const std::wstring& path, HRESULT initialized) {
  const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  EXPECT_EQ(filter->Initialize(Bstr(path), Silence(1 << 20).Get()), initialized);
  return As<ICoreTask>(filter);
}

// Repeats the scenario, which must leave no handle, thread or file.
void Repeat(const std::function<void()>& scenario) {
  scenario();
  const LeakWatch watch;
  for (int i = 0; i < 3; ++i) scenario();
  watch.AwaitAtMost(2, 2);
  EXPECT_TRUE(std::filesystem::is_empty(kSmall));
}

TEST(FullDisk, FailsEachBlockUntilThereIsRoomAndKeepsStoredTakes) {
  constexpr __int64 kFrames = 32768;
  const Samples first = Ramp(2 * kFrames, 0);
  const Samples block = Ramp(2 * kFrames, 70000);
  const std::wstring filler = kSmall + L"\\filler";
  Repeat([&] {
    const Pool pool(kSmall);
    ComPtr<IAudioReader> readers[3];
    WriteTake(pool.writer.Get(), first);
    Check(pool.writer->OpenDevice());
    WriteFileBytes(filler, std::vector<unsigned char>(1 << 19));
    __int64 stored = 0;
    while (pool.Write(block) == S_OK && stored < 100) ++stored;
    EXPECT_EQ(pool.Write(block), kDiskFull);
    // The take has a gap of the two lost blocks.
    DeleteFileW(filler.c_str());
    EXPECT_EQ(pool.Write(block), S_OK);
    Check(pool.writer->CloseDevice());
    // Ends even on a full disk. The take has its full length.
    pool.Import();
    for (ComPtr<IAudioReader>& reader : readers) {
      Check(&reader == readers ? pool.pool->CreateLastReader(reader.GetAddressOf())
                               : pool.pool->CreatePrevReader(reader.GetAddressOf()));
    }
    __int64 frames[2] = {};
    for (int i = 0; i < 2; ++i) Check(readers[i]->GetSampleCount(&frames[i]));
    EXPECT_EQ(frames[0], 44100);
    EXPECT_EQ(frames[1], (stored + 3) * kFrames);
    EXPECT_GE(stored, 2);
    ExpectStored(readers[1].Get(), (stored - 1) * kFrames, block);
    ExpectStored(readers[1].Get(), (stored + 2) * kFrames, block);
    ExpectStored(readers[2].Get(), 0, first);
  });
}

TEST(FullDisk, TruncatesAnExportWhoseTaskEnds) {
  const std::wstring path = kSmall + L"\\out.wav";
  Repeat([&] {
    const auto task = Export(path, S_OK);
    EXPECT_EQ(task->Start(), S_OK);
    EXPECT_TRUE(WaitForTask(task.Get()));
    EXPECT_GT(ReadFileBytes(path).size(), std::size_t{1} << 20);
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
