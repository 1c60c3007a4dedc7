// The pool, an import into it, a WAV export and the host program on a full disk and on one that
// cannot be written. The script full_disks mounts real disks of 2 MiB for this program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <vector>

#include "core/handle.h"
#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

using Samples = std::vector<float>;

constexpr HRESULT kDiskFull = HRESULT_FROM_WIN32(ERROR_DISK_FULL);
constexpr std::size_t kDiskBytes = std::size_t{2} << 20;
constexpr std::size_t kBlock = 65536;

std::wstring Disk(const char* variable) {
  const char* const folder = std::getenv(variable);
  if (folder == nullptr) throw std::runtime_error("to be run by tests/abuse/full_disks");
  return L"Z:" + std::filesystem::path(folder).make_preferred().wstring();
}

const std::wstring& SmallDisk() {
  static const std::wstring disk = Disk("TESSALY_SMALL_DISK");
  return disk;
}
const std::wstring& ReadOnlyDisk() {
  static const std::wstring disk = Disk("TESSALY_READ_ONLY_DISK");
  return disk;
}

// The system's own word for it: "write protected" from Windows, "access denied" from Wine.
HRESULT WriteRefusal() {
  const HANDLE file = CreateFileW((ReadOnlyDisk() + L"\\probe").c_str(), GENERIC_WRITE, 0, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  const DWORD error = GetLastError();
  if (file != INVALID_HANDLE_VALUE) throw std::runtime_error("this disk can be written");
  return HRESULT_FROM_WIN32(error);
}

ULONGLONG FreeBytes(const std::wstring& disk) {
  ULARGE_INTEGER available = {};
  EXPECT_TRUE(GetDiskFreeSpaceExW(disk.c_str(), &available, nullptr, nullptr));
  return available.QuadPart;
}

// Takes what the small disk has, but for `left` bytes.
class Filler {
 public:
  explicit Filler(std::size_t left) {
    const std::vector<unsigned char> bytes(FreeBytes(SmallDisk()) - left);
    WriteFileBytes(path_, bytes);
  }
  Filler(const Filler&) = delete;
  Filler& operator=(const Filler&) = delete;
  ~Filler() { DeleteFileW(path_.c_str()); }

 private:
  const std::wstring path_ = SmallDisk() + L"\\filler";
};

// Where pools made in this scope put their files.
class TemporaryDisk {
 public:
  explicit TemporaryDisk(const std::wstring& disk) {
    GetEnvironmentVariableW(L"TMP", usual_, MAX_PATH);
    SetEnvironmentVariableW(L"TMP", disk.c_str());
  }
  TemporaryDisk(const TemporaryDisk&) = delete;
  TemporaryDisk& operator=(const TemporaryDisk&) = delete;
  ~TemporaryDisk() { SetEnvironmentVariableW(L"TMP", usual_); }

 private:
  wchar_t usual_[MAX_PATH] = {};
};

Samples Wave(std::size_t count, float scale) {
  Samples samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = scale * static_cast<float>((i * 37) % 1024) / 1024.0F;
  }
  return samples;
}

// A pool of 32-bit samples on the small disk.
struct SmallPool {
  SmallPool() {
    Check(writer->SetFormat(44100, 2));
    Check(pool->SetBitDepth(32, 0));
  }

  HRESULT Write(const Samples& samples) const { return writer->WriteAudio(Floats(samples)); }
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

  const TemporaryDisk disk{SmallDisk()};
  const ComPtr<IAudioPool> pool = Create<IAudioPool>(CLSID_CAudioPool);
  const ComPtr<IAudioWriter> writer = As<IAudioWriter>(pool);
};

void ExpectStored(IAudioReader* reader, __int64 position, const Samples& expected) {
  const Floats block(expected.size(), -7.0F);
  EXPECT_EQ(reader->ReadAudio(position, block), S_OK);
  EXPECT_TRUE(block.ToVector() == expected) << "other samples from " << position << " on";
}

// 4 MiB of 16-bit samples to come, all of them 0.
ComPtr<IAudioReader> LongSilence() {
  const auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(1 << 20, 44100, 2));
  return As<IAudioReader>(silence);
}

bool IsThere(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The file is cut off where the disk was full, and what is there is a WAV file's beginning.
void ExpectCutOff(const std::wstring& path) {
  const auto bytes = ReadFileBytes(path);
  EXPECT_GT(bytes.size(), kDiskBytes / 2);
  EXPECT_LE(bytes.size(), kDiskBytes);
  ASSERT_GE(bytes.size(), 44U);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "RIFF");
  EXPECT_EQ(std::string(bytes.begin() + 8, bytes.begin() + 16), "WAVEfmt ");
  EXPECT_EQ(std::string(bytes.begin() + 36, bytes.begin() + 40), "data");
}

// Runs the scenario again and again: it must leave no handle, no thread and no file.
void Repeat(const std::function<void()>& scenario) {
  const ULONGLONG space = FreeBytes(SmallDisk());
  scenario();
  const unsigned handles = CountHandles();
  const unsigned threads = CountThreads();
  for (int i = 0; i < 3; ++i) scenario();
  AwaitAtMost(CountThreads, threads + 2, "threads");
  AwaitAtMost(CountHandles, handles + 2, "handles");
  EXPECT_EQ(FreeBytes(SmallDisk()), space);
  EXPECT_TRUE(std::filesystem::is_empty(SmallDisk()));
  EXPECT_TRUE(std::filesystem::is_empty(ReadOnlyDisk()));
}

TEST(FullDisk, FailsEachBlockUntilThereIsRoomAndKeepsStoredTakes) {
  const Samples first = Wave(2 * kBlock, 0.5F);
  const Samples block = Wave(kBlock, 1.0F);
  Repeat([&] {
    const SmallPool pool;
    EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
    EXPECT_EQ(pool.Write(first), S_OK);
    EXPECT_EQ(pool.writer->CloseDevice(), S_OK);

    EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
    __int64 stored = 0;
    {
      const Filler filler(std::size_t{1} << 20);
      HRESULT hr = S_OK;
      while ((hr = pool.Write(block)) == S_OK && stored < 100) ++stored;
      EXPECT_EQ(hr, kDiskFull);
      EXPECT_GE(stored, 2);
      EXPECT_EQ(pool.Write(block), kDiskFull);
      EXPECT_EQ(pool.Write(block), kDiskFull);
      ExpectStored(pool.LastReader().Get(), 0, first);
    }
    // The take keeps a gap of the three blocks that were lost.
    EXPECT_EQ(pool.Write(block), S_OK);
    EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
    const auto second = pool.LastReader();
    __int64 frames = 0;
    EXPECT_EQ(second->GetSampleCount(&frames), S_OK);
    EXPECT_EQ(frames, (stored + 4) * static_cast<__int64>(kBlock / 2));
    for (__int64 i = 0; i < stored; ++i) ExpectStored(second.Get(), i * (kBlock / 2), block);
    ExpectStored(second.Get(), (stored + 3) * static_cast<__int64>(kBlock / 2), block);
    ExpectStored(pool.PrevReader().Get(), 0, first);
  });
}

TEST(FullDisk, LetsAnImportEndAndKeepsStoredTakes) {
  const Samples first = Wave(kBlock, 0.5F);
  Repeat([&] {
    const SmallPool pool;
    EXPECT_EQ(pool.writer->OpenDevice(), S_OK);
    EXPECT_EQ(pool.Write(first), S_OK);
    EXPECT_EQ(pool.writer->CloseDevice(), S_OK);
    const auto import = Create<IImportFilter>(CLSID_COggImport);
    const auto task = As<ICoreTask>(import);
    __int64 announced = 0;
    {
      const Filler filler(16384);
      EXPECT_EQ(import->Initialize(Bstr(TESSALY_SAMPLE_OGG), pool.writer.Get()), S_OK);
      EXPECT_EQ(import->GetSourceSampleCount(&announced), S_OK);
      EXPECT_EQ(task->Start(), S_OK);
      ASSERT_TRUE(WaitForTask(task.Get()));
    }
    float progress = 0;
    EXPECT_EQ(task->GetProgress(&progress), S_OK);
    EXPECT_EQ(progress, 1.0F);
    LONG ready = 0;
    EXPECT_EQ(pool.writer->QueryIsReady(&ready), S_OK);
    EXPECT_EQ(ready, 1) << "the import left the pool open";
    // The take has its length. What found no room is a gap, or not there at the end.
    __int64 frames = 0;
    const auto imported = pool.LastReader();
    EXPECT_EQ(imported->GetSampleCount(&frames), S_OK);
    EXPECT_EQ(frames, announced);
    EXPECT_GT(static_cast<std::size_t>(frames) * 8, std::size_t{16384});
    const Floats end(2);
    EXPECT_EQ(imported->ReadAudio(frames - 1, end), HRESULT_FROM_WIN32(ERROR_HANDLE_EOF));
    ExpectStored(pool.PrevReader().Get(), 0, first);
  });
}

TEST(FullDisk, TruncatesAnExportWhoseTaskEnds) {
  const std::wstring path = SmallDisk() + L"\\out.wav";
  Repeat([&] {
    const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    const auto task = As<ICoreTask>(filter);
    EXPECT_EQ(filter->Initialize(Bstr(path), LongSilence().Get()), S_OK);
    EXPECT_EQ(task->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task.Get()));
    float progress = 0;
    EXPECT_EQ(task->GetProgress(&progress), S_OK);
    EXPECT_EQ(progress, 1.0F);
    ExpectCutOff(path);
    EXPECT_TRUE(DeleteFileW(path.c_str())) << "the filter still has the file open";
  });
}

TEST(ReadOnlyDisk, IsReportedByEachWriteAndByExports) {
  const HRESULT refusal = WriteRefusal();
  Repeat([&] {
    {
      const TemporaryDisk disk(ReadOnlyDisk());
      const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
      const auto writer = As<IAudioWriter>(pool);
      EXPECT_EQ(writer->SetFormat(44100, 2), S_OK);
      EXPECT_EQ(writer->OpenDevice(), S_OK);
      EXPECT_EQ(writer->WriteAudio(Floats(8)), refusal);
      EXPECT_EQ(writer->CloseDevice(), S_OK);
      ComPtr<IAudioReader> reader;
      EXPECT_EQ(pool->CreateLastReader(reader.GetAddressOf()), S_OK);
      // An import into it ends.
      const auto import = Create<IImportFilter>(CLSID_COggImport);
      const auto task = As<ICoreTask>(import);
      EXPECT_EQ(import->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()), S_OK);
      task->Start();
      EXPECT_TRUE(WaitForTask(task.Get()));
    }
    {
      const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
      const auto source = LongSilence();
      EXPECT_EQ(filter->Initialize(Bstr(ReadOnlyDisk() + L"\\out.wav"), source.Get()), refusal);
      EXPECT_EQ(As<ICoreTask>(filter)->Start(), E_FAIL);
      // The same object works on a disk that can be written.
      EXPECT_EQ(filter->Initialize(Bstr(SmallDisk() + L"\\out.wav"), source.Get()), S_OK);
    }
    DeleteFileW((SmallDisk() + L"\\out.wav").c_str());
  });
}

// The exit code of the command-line host, which converts the sample.
DWORD Convert(const std::wstring& target) {
  std::wstring program = ModuleUnderTest::Path();
  program = program.substr(0, program.rfind(L'\\')) + L"\\marlinda.exe";
  std::wstring command =
      L"\"" + program + L"\" convert \"" + TESSALY_SAMPLE_OGG + L"\" \"" + target + L"\"";
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  Check(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                       &startup, &process)
            ? S_OK
            : LastErrorResult());
  CloseHandle(process.hThread);
  const KernelHandle ended(process.hProcess);
  WaitForSingleObject(ended.get(), INFINITE);
  DWORD code = STILL_ACTIVE;
  GetExitCodeProcess(ended.get(), &code);
  return code;
}

TEST(FullDisk, EndsTheHostWithStatusFourAndWithoutAFile) {
  const TemporaryFolder roomy;
  ASSERT_EQ(Convert(roomy.File(L"out.wav")), 0U);
  const auto whole = ReadFileBytes(roomy.File(L"out.wav")).size();
  EXPECT_EQ(Convert(ReadOnlyDisk() + L"\\out.wav"), 4U);
  {
    const TemporaryDisk disk(ReadOnlyDisk());
    EXPECT_EQ(Convert(roomy.File(L"pool.wav")), 4U);
  }
  for (const std::size_t room : {std::size_t{0}, whole / 2}) {
    const Filler filler(room);
    EXPECT_EQ(Convert(SmallDisk() + L"\\out.wav"), 4U) << room;
    const TemporaryDisk disk(SmallDisk());
    EXPECT_EQ(Convert(roomy.File(L"pool.wav")), 4U) << room;
  }
  EXPECT_FALSE(IsThere(roomy.File(L"pool.wav")));
  EXPECT_TRUE(std::filesystem::is_empty(SmallDisk()));
  EXPECT_TRUE(std::filesystem::is_empty(ReadOnlyDisk()));
}

}  // namespace
}  // namespace marlinda::testing
