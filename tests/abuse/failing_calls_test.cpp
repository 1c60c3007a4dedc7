// A host imports, edits and exports two seconds of audio while the Nth file call of the module
// fails, and then the Nth allocation, for every N. No call crashes or hangs, stored audio stays,
// nothing leaks, and afterwards the same objects work again.
//
// The calls are replaced in the module's import table. Allocations of the compiler's runtime do not
// fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

using Samples = std::vector<float>;

// Of calls that fail.
enum class Fault { kNone, kFileCall, kAllocation };

// Whose turn it is to fail.
class Turn {
 public:
  // Counts calls of the kind from now on, and makes number `n` fail, the first being 1.
  void Arm(Fault kind, LONG64 n) {
    calls_ = 0;
    failed_ = nullptr;
    at_ = n;
    kind_ = kind;
  }
  void Disarm() { kind_ = Fault::kNone; }
  bool Comes(Fault kind, const char* name) {
    if (kind_ != kind || ++calls_ != at_) return false;
    failed_ = name;
    return true;
  }
  LONG64 calls() const { return calls_; }
  // The function that failed; null when it was nobody's turn.
  const char* failed() const { return failed_; }

 private:
  std::atomic<Fault> kind_ = Fault::kNone;
  std::atomic<LONG64> calls_ = 0;
  std::atomic<LONG64> at_ = 0;
  std::atomic<const char*> failed_ = nullptr;
};

Turn turn;
std::atomic<LONG64> live_blocks = 0;  // of memory, in the module

// Puts a function into the place of an imported one, for good, and returns the one that was there.
void* ReplaceImport(const char* name, void* replacement) {
  auto* const base = reinterpret_cast<std::byte*>(ModuleUnderTest::Handle());
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const auto& place = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + place.VirtualAddress);
  for (; library->Name != 0; ++library) {
    const auto* names =
        reinterpret_cast<const IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
    auto* entry = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
    for (; names->u1.AddressOfData != 0; ++names, ++entry) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
      const auto* const by_name =
          reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
      if (std::strcmp(by_name->Name, name) != 0) continue;
      DWORD protection = 0;
      VirtualProtect(entry, sizeof *entry, PAGE_READWRITE, &protection);
      void* const before = reinterpret_cast<void*>(entry->u1.Function);
      entry->u1.Function = reinterpret_cast<ULONGLONG>(replacement);
      VirtualProtect(entry, sizeof *entry, protection, &protection);
      return before;
    }
  }
  std::fprintf(stderr, "the module does not import %s\n", name);
  std::abort();
}

// Stands in for an imported function, whose name and failure `What` tells.
template <class What, class Function>
struct StandIn;
template <class What, class R, class... Arguments>
struct StandIn<What, R(Arguments...)> {
  static inline R (*real)(Arguments...) = nullptr;
  static R Call(Arguments... arguments) {
    return turn.Comes(What::kKind, What::kName) ? What::Fail() : real(arguments...);
  }
  static void Install() {
    real = reinterpret_cast<R (*)(Arguments...)>(
        ReplaceImport(What::kName, reinterpret_cast<void*>(&Call)));
  }
};

template <class R>
R FailWith(DWORD error, R result) {
  SetLastError(error);
  return result;
}

struct FileCall {
  static constexpr Fault kKind = Fault::kFileCall;
};
struct GetTempFileNameAFails : FileCall {
  static constexpr char kName[] = "GetTempFileNameA";
  static UINT Fail() { return FailWith(ERROR_DISK_FULL, 0U); }
};
struct CreateFileAFails : FileCall {
  static constexpr char kName[] = "CreateFileA";
  static HANDLE Fail() { return FailWith(ERROR_TOO_MANY_OPEN_FILES, INVALID_HANDLE_VALUE); }
};
struct WriteFileFails : FileCall {
  static constexpr char kName[] = "WriteFile";
  static BOOL Fail() { return FailWith(ERROR_DISK_FULL, FALSE); }
};
struct ReadFileFails : FileCall {
  static constexpr char kName[] = "ReadFile";
  static BOOL Fail() { return FailWith(ERROR_CRC, FALSE); }
};
struct SetFilePointerExFails : FileCall {
  static constexpr char kName[] = "SetFilePointerEx";
  static BOOL Fail() { return FailWith(ERROR_SEEK, FALSE); }
};
struct FopenFails : FileCall {
  static constexpr char kName[] = "fopen_s";
  static errno_t Fail() { return EMFILE; }
};
struct FreadFails : FileCall {
  static constexpr char kName[] = "fread";
  static std::size_t Fail() { return 0; }
};
struct FseekFails : FileCall {
  static constexpr char kName[] = "fseek";
  static int Fail() { return -1; }
};
struct FtellFails : FileCall {
  static constexpr char kName[] = "ftell";
  static long Fail() { return -1; }
};

struct Allocation {
  static constexpr Fault kKind = Fault::kAllocation;
};
template <class T>
struct GivesNothing : Allocation {
  static T* Fail() { return nullptr; }
};
struct SysAllocStringFails : GivesNothing<OLECHAR> {
  static constexpr char kName[] = "SysAllocString";
};
struct SysAllocStringLenFails : GivesNothing<OLECHAR> {
  static constexpr char kName[] = "SysAllocStringLen";
};
struct SafeArrayCreateFails : GivesNothing<SAFEARRAY> {
  static constexpr char kName[] = "SafeArrayCreate";
};
struct SafeArrayRedimFails : Allocation {
  static constexpr char kName[] = "SafeArrayRedim";
  static HRESULT Fail() { return E_OUTOFMEMORY; }
};
struct DescriptorFails : Allocation {
  static constexpr char kName[] = "SafeArrayAllocDescriptorEx";
  static HRESULT Fail() { return E_OUTOFMEMORY; }
};
struct CreateThreadFails : GivesNothing<void> {
  static constexpr char kName[] = "CreateThread";
  static HANDLE Fail() { return FailWith<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr); }
};

// The C heap, of which only the requests of operator new fail.
struct Heap {
  static inline void* (*malloc)(std::size_t) = nullptr;
  static inline void* (*calloc)(std::size_t, std::size_t) = nullptr;
  static inline void* (*realloc)(void*, std::size_t) = nullptr;
  static inline void (*free)(void*) = nullptr;
  // Where operator new calls malloc: learned from an object that the module makes.
  static inline std::atomic<bool> learning = false;
  static inline std::atomic<const void*> operator_new = nullptr;
  static void* Malloc(std::size_t size) {
    const void* const caller = __builtin_return_address(0);
    if (learning.exchange(false)) operator_new = caller;
    if (caller == operator_new && turn.Comes(Fault::kAllocation, "operator new")) return nullptr;
    return Counted(malloc(size));
  }
  static void* Calloc(std::size_t count, std::size_t size) { return Counted(calloc(count, size)); }
  static void* Realloc(void* block, std::size_t size) {
    return block == nullptr ? Counted(realloc(block, size)) : realloc(block, size);
  }
  static void Free(void* block) {
    if (block != nullptr) --live_blocks;
    free(block);
  }
  static void* Counted(void* block) {
    if (block != nullptr) ++live_blocks;
    return block;
  }

  template <class Function>
  static void Install(const char* name, Function& real, Function replacement) {
    real = reinterpret_cast<Function>(ReplaceImport(name, reinterpret_cast<void*>(replacement)));
  }
  static void Install() {
    Install("malloc", malloc, Malloc);
    Install("calloc", calloc, Calloc);
    Install("realloc", realloc, Realloc);
    Install("free", free, Free);
    learning = true;
    Create<IUnknown>(CLSID_CNullReader);
  }
};

void InstallStandIns() {
  StandIn<GetTempFileNameAFails, decltype(GetTempFileNameA)>::Install();
  StandIn<CreateFileAFails, decltype(CreateFileA)>::Install();
  StandIn<WriteFileFails, decltype(WriteFile)>::Install();
  StandIn<ReadFileFails, decltype(ReadFile)>::Install();
  StandIn<SetFilePointerExFails, decltype(SetFilePointerEx)>::Install();
  StandIn<FopenFails, errno_t(FILE**, const char*, const char*)>::Install();
  StandIn<FreadFails, std::size_t(void*, std::size_t, std::size_t, FILE*)>::Install();
  StandIn<FseekFails, int(FILE*, long, int)>::Install();
  StandIn<FtellFails, long(FILE*)>::Install();
  StandIn<SysAllocStringFails, decltype(SysAllocString)>::Install();
  StandIn<SysAllocStringLenFails, decltype(SysAllocStringLen)>::Install();
  StandIn<SafeArrayCreateFails, decltype(SafeArrayCreate)>::Install();
  StandIn<SafeArrayRedimFails, decltype(SafeArrayRedim)>::Install();
  StandIn<DescriptorFails, decltype(SafeArrayAllocDescriptorEx)>::Install();
  StandIn<CreateThreadFails, decltype(CreateThread)>::Install();
  Heap::Install();
}

Samples Wave(std::size_t count, int step) {
  Samples samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = static_cast<float>(i * static_cast<std::size_t>(step) % 1024) / 1024.0F;
  }
  return samples;
}

class Story {
 public:
  explicit Story(const std::wstring& folder) : folder_(folder) {
    Require(writer_->SetFormat(44100, 2), "SetFormat");
    Require(pool_->SetBitDepth(32, 0), "SetBitDepth");
    WriteTake(pool_.Get(), kept_samples_);
    kept_ = LastReader(pool_.Get());
  }

  // With call number `n` failing. False when there was no such call.
  bool Run(Fault kind, LONG64 n) {
    kind_ = kind;
    turn.Arm(kind, n);
    Tell();
    turn.Disarm();
    if (turn.failed() == nullptr && failures_ > 0) ADD_FAILURE() << "a call failed without a cause";
    GoOn();
    return turn.failed() != nullptr;
  }
  LONG failures() const { return failures_; }

 private:
  static constexpr std::size_t kSamples = 5000;

  static const std::vector<Class>& Classes() {
    static const std::vector<Class> classes = ClassesOfTheModule();
    return classes;
  }

  void Require(HRESULT hr, const char* what) const {
    EXPECT_TRUE(SUCCEEDED(hr)) << what << std::hex << hr;
  }

  // What a call answers while calls fail.
  bool Take(HRESULT hr, const char* what) {
    if (SUCCEEDED(hr)) return true;
    ++failures_;
    const bool known =
        hr == E_FAIL || hr == E_OUTOFMEMORY || hr == HRESULT_FROM_WIN32(ERROR_HANDLE_EOF) ||
        (kind_ == Fault::kFileCall && HRESULT_FACILITY(hr) == FACILITY_WIN32) ||
        (kind_ == Fault::kAllocation && hr == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_TRUE(known) << what << std::hex << hr;
    return false;
  }
  template <class I>
  ComPtr<I> TryCreate(REFCLSID clsid) {
    ComPtr<I> object;
    Take(CreateInstance(clsid, object), "CreateInstance");
    return object;
  }
  void Finish(ICoreTask* task) {
    if (Take(task->Start(), "Start")) {
      EXPECT_TRUE(WaitForTask(task));
    }
  }

  void Tell() {
    Import();
    if (const auto last = LastReader(pool_.Get())) {
      const auto document = TryCreate<IEditedAudio>(CLSID_CEditedAudio);
      if (document) {
        Edit(document.Get(), last.Get());
        Export(As<IAudioReader>(document).Get());
      }
      ReadSome(last.Get());
    }
    if (const auto pool = TryCreate<IAudioPool>(CLSID_CAudioPool)) {
      const auto writer = As<IAudioWriter>(pool);
      Take(pool->SetBitDepth(16, 0), "SetBitDepth");
      Take(writer->SetFormat(44100, 2), "SetFormat");
      if (Take(writer->OpenDevice(), "OpenDevice")) {
        Take(writer->WriteAudio(Floats(kSamples)), "WriteAudio");
        Take(writer->CloseDevice(), "CloseDevice");
      }
      if (const auto reader = LastReader(pool.Get())) ReadSome(reader.Get());
    }
    Connect();
    for (const Class& known : Classes()) TryCreate<IUnknown>(known.clsid);
  }

  void Import() {
    const auto import = TryCreate<IImportFilter>(CLSID_COggImport);
    if (!import || !Take(import->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer_.Get()), "Initialize"))
      return;
    Finish(As<ICoreTask>(import).Get());
  }

  void Edit(IEditedAudio* document, IAudioReader* source) {
    const Bstr name(L"name");
    Take(document->InitChange(1, name), "InitChange");
    Take(document->AppendSegment(source, 0, 80000), "AppendSegment");
    Take(document->AppendSegment(nullptr, 0, 1000), "AppendSegment");
    Take(document->InsertSegment(500, kept_.Get(), 0, 1000), "InsertSegment");
    const auto labels = As<ILabelSupport>(document);
    if (Take(labels->AddLabel(100, name), "AddLabel")) {
      Take(labels->SetLabel(0, 200, name), "SetLabel");
    }
    Take(As<ISectionMarkerSupport>(document)->AddSectionMarker(0, 500, name), "AddSectionMarker");
    Take(document->CommitChange(), "CommitChange");
    Take(document->Delete(200, 400), "Delete");
    Take(document->ReadWaveplot(0, 50000, Floats(400)), "ReadWaveplot");
    if (const auto other = TryCreate<IEditedAudio>(CLSID_CEditedAudio)) {
      Take(document->Copy(other.Get(), 0, 2000), "Copy");
      Take(document->Insert(0, other.Get()), "Insert");
    }
  }

  void Export(IAudioReader* source) {
    const auto filter = TryCreate<IExportFilter>(CLSID_CWavExportFilter);
    if (!filter || !Take(filter->Initialize(Bstr(Target()), source), "Initialize")) return;
    const Bstr name(L"name");
    Take(As<ILabelSupport>(filter)->AddLabel(100, name), "AddLabel");
    Take(As<IMetaDataWriter>(filter)->SetMetaData(name, name, name, name, name), "SetMetaData");
    Finish(As<ICoreTask>(filter).Get());
  }

  void Connect() {
    const auto connector = TryCreate<IAudioConnector>(CLSID_CAudioConnector);
    const auto filter = TryCreate<IExportFilter>(CLSID_CWavExportFilter);
    if (!connector || !filter) return;
    const auto task = As<ICoreTask>(connector);
    const auto reader = As<IAudioReader>(connector);
    if (Take(connector->SetupReaderToExport(kept_.Get(), filter.Get(), 44100, 2), "Setup") &&
        Take(filter->Initialize(Bstr(Target()), reader.Get()), "Initialize")) {
      task->Start();
      EXPECT_TRUE(WaitForTask(task.Get()));
    }
    // The two hold each other until then.
    task->Cancel();
  }

  ComPtr<IAudioReader> LastReader(IAudioPool* pool) {
    ComPtr<IAudioReader> reader;
    Take(pool->CreateLastReader(reader.GetAddressOf()), "CreateLastReader");
    return reader;
  }
  void ReadSome(IAudioReader* reader) {
    Take(reader->ReadAudio(0, Floats(kSamples)), "ReadAudio");
    if (const auto peaks = As<IPeakReader>(reader)) {
      Take(peaks->ReadPeaks(0, Floats(8)), "ReadPeaks");
    }
  }

  void WriteTake(IAudioPool* pool, const Samples& samples) const {
    const auto writer = As<IAudioWriter>(pool);
    Require(writer->OpenDevice(), "OpenDevice");
    Require(writer->WriteAudio(Floats(samples)), "WriteAudio");
    Require(writer->CloseDevice(), "CloseDevice");
  }
  void ExpectStored(IAudioReader* reader, const Samples& samples, const char* what) const {
    const Floats block(samples.size(), -7.0F);
    ASSERT_NE(reader, nullptr) << what;
    EXPECT_EQ(reader->ReadAudio(0, block), S_OK) << what;
    EXPECT_EQ(block.ToVector(), samples) << what;
  }

  // Nothing fails any more.
  void GoOn() {
    ExpectStored(kept_.Get(), kept_samples_, "the take that was stored before");
    const Samples more = Wave(3000, 11);
    WriteTake(pool_.Get(), more);
    ComPtr<IAudioReader> reader;
    Require(pool_->CreateLastReader(reader.GetAddressOf()), "CreateLastReader");
    ExpectStored(reader.Get(), more, "the take after");
    EXPECT_TRUE(DeleteFileW(Target().c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND)
        << "a file is still open";
  }

  std::wstring Target() const { return folder_ + L"\\out.wav"; }

  const std::wstring folder_;
  Fault kind_ = Fault::kNone;
  LONG failures_ = 0;
  const Samples kept_samples_ = Wave(2 * 1000, 7);
  const ComPtr<IAudioPool> pool_ = Create<IAudioPool>(CLSID_CAudioPool);
  const ComPtr<IAudioWriter> writer_ = As<IAudioWriter>(pool_);
  ComPtr<IAudioReader> kept_;
};

void Sweep(Fault kind) {
  static const bool installed = (InstallStandIns(), true);
  (void)installed;
  const TemporaryFolder folder;
  LONG failures = 0;
  LONG64 left = 0;
  // Blocks of memory that the story leaves behind are in `left`.
  const auto run = [&](LONG64 n) {
    const LONG64 before = live_blocks;
    bool failed = false;
    {
      Story story(folder.path());
      failed = story.Run(kind, n);
      failures += story.failures();
    }
    left = live_blocks - before;
    return failed;
  };
  run(0);
  run(0);
  const LONG64 usual = left;
  const LONG64 all = turn.calls();
  const unsigned handles = CountHandles();
  LONG64 n = 1;
  for (; run(n); ++n) {
    SCOPED_TRACE(std::to_string(n) + ", " + turn.failed());
    // Some blocks are allocated once for the process; a leak repeats.
    if (left > usual) run(n);
    EXPECT_LE(left, usual);
    if (::testing::Test::HasFailure()) break;
  }
  // The number of calls depends a little on timing.
  EXPECT_GT(n, all - all / 10);
  EXPECT_GT(failures, 0);
  EXPECT_LE(CountHandles(), handles + 20);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  std::printf("%lld calls, %ld results that reported one\n", n - 1, failures);
}

TEST(FailingCalls, OfFilesHarmNoStoredAudio) { Sweep(Fault::kFileCall); }
TEST(FailingCalls, OfMemoryHarmNoStoredAudio) { Sweep(Fault::kAllocation); }

}  // namespace
}  // namespace marlinda::testing
