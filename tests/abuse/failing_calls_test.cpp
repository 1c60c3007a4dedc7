// A host imports, edits and exports two seconds of audio while the Nth file call of the module
// fails, and then the Nth allocation, for every N. No call crashes or hangs, stored audio stays,
// nothing leaks, and afterwards the same objects work again.
//
// The calls are replaced in the module's import table. Allocations of the compiler's runtime do not
// fail.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <span>
#include <stdexcept>

#include "tests/abuse/parts.h"
#include "tests/support/contract_model.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

enum class Fault { kNone, kFileCall, kAllocation };

// Calls of the armed kind are counted, and number `fails_at` fails, the first being 1.
std::atomic<Fault> armed = Fault::kNone;
std::atomic<LONG64> calls = 0;
std::atomic<LONG64> fails_at = 0;
std::atomic<const char*> failed = nullptr;  // the function that failed

bool IsTurnOf(Fault kind, const char* name) {
  if (armed != kind || ++calls != fails_at) return false;
  failed = name;
  return true;
}

// Puts a function into the place of an imported one, for good, and returns the imported one.
template <class Function>
Function* ReplaceImport(const char* name, Function* replacement) {
  void* imported = nullptr;
  for (const wchar_t* library : {L"kernel32", L"oleaut32", L"msvcrt"}) {
    if (imported != nullptr) break;
    imported = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(library), name));
  }
  auto* const base = reinterpret_cast<std::byte*>(ModuleUnderTest::Handle());
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const auto& table = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];
  const std::span imports(reinterpret_cast<void**>(base + table.VirtualAddress),
                          table.Size / sizeof(void*));
  const auto place = std::ranges::find(imports, imported);
  if (place == imports.end()) throw std::runtime_error(std::string("not imported: ") + name);
  DWORD protection = 0;
  VirtualProtect(&*place, sizeof(void*), PAGE_READWRITE, &protection);
  *place = reinterpret_cast<void*>(replacement);
  return reinterpret_cast<Function*>(imported);
}

struct Name {
  template <std::size_t kSize>
  constexpr Name(const char (&given)[kSize]) {
    std::copy_n(given, kSize, text);
  }
  char text[32] = {};
};

// Replaces an imported function by one that returns `kFailure` when its turn comes.
template <Name kName, Fault kKind, INT_PTR kFailure, DWORD kError = ERROR_NOT_ENOUGH_MEMORY,
          class R, class... Arguments>
void Replace(R (*)(Arguments...)) {
  static R (*real)(Arguments...) = nullptr;
  real = ReplaceImport<R(Arguments...)>(kName.text, [](Arguments... arguments) -> R {
    if (!IsTurnOf(kKind, kName.text)) return real(arguments...);
    SetLastError(kError);
    if constexpr (std::is_pointer_v<R>) return reinterpret_cast<R>(kFailure);
    if constexpr (!std::is_pointer_v<R>) return static_cast<R>(kFailure);
  });
}

// Only operator new's requests to the C heap fail. It calls malloc from the place that is learned
// from an object that the module makes.
decltype(&std::malloc) real_malloc = nullptr;
std::atomic<bool> learning = false;
std::atomic<const void*> operator_new = nullptr;

void* Malloc(std::size_t size) {
  const void* const caller = __builtin_return_address(0);
  if (learning.exchange(false)) operator_new = caller;
  if (caller == operator_new && IsTurnOf(Fault::kAllocation, "operator new")) return nullptr;
  return real_malloc(size);
}

bool InstallStandIns() {
  constexpr Fault kFile = Fault::kFileCall;
  constexpr Fault kMemory = Fault::kAllocation;
  Replace<"GetTempFileNameA", kFile, 0, ERROR_DISK_FULL>(&GetTempFileNameA);
  Replace<"CreateFileA", kFile, -1, ERROR_TOO_MANY_OPEN_FILES>(&CreateFileA);
  Replace<"WriteFile", kFile, FALSE, ERROR_DISK_FULL>(&WriteFile);
  Replace<"ReadFile", kFile, FALSE, ERROR_CRC>(&ReadFile);
  Replace<"SetFilePointerEx", kFile, FALSE, ERROR_SEEK>(&SetFilePointerEx);
  Replace<"fopen_s", kFile, EMFILE>(&fopen_s);
  Replace<"fread", kFile, 0>(&std::fread);
  Replace<"fseek", kFile, -1>(&std::fseek);
  Replace<"ftell", kFile, -1>(&std::ftell);
  Replace<"SysAllocString", kMemory, 0>(&SysAllocString);
  Replace<"SysAllocStringLen", kMemory, 0>(&SysAllocStringLen);
  Replace<"SafeArrayAllocDescriptorEx", kMemory, E_OUTOFMEMORY>(&SafeArrayAllocDescriptorEx);
  Replace<"CreateThread", kMemory, 0>(&CreateThread);
  real_malloc = ReplaceImport("malloc", &Malloc);
  learning = true;
  Create<IUnknown>(CLSID_CNullReader);
  return true;
}

class Story {
 public:
  explicit Story(const std::wstring& folder) : target_(folder + L"\\out.wav") {
    Check(pool_->SetBitDepth(32, 0));
    WriteTake(writer_.Get(), kept_samples_);
    Check(pool_->CreateLastReader(kept_.GetAddressOf()));
  }

  // With call number `n` failing. Returns how many calls of the story have failed.
  int Run(Fault kind, LONG64 n) {
    kind_ = kind;
    calls = 0;
    failed = nullptr;
    fails_at = n;
    armed = kind;
    Tell();
    armed = Fault::kNone;
    EXPECT_TRUE(failed != nullptr || failures_ == 0) << "a call failed without a cause";
    GoOn();
    return failures_;
  }

 private:
  // A call that may fail. True when it did not.
  bool Try(HRESULT hr) {
    if (SUCCEEDED(hr)) return true;
    ++failures_;
    const bool known =
        hr == E_FAIL || hr == E_OUTOFMEMORY || hr == HRESULT_FROM_WIN32(ERROR_HANDLE_EOF) ||
        (kind_ == Fault::kFileCall && HRESULT_FACILITY(hr) == FACILITY_WIN32) ||
        (kind_ == Fault::kAllocation && hr == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_TRUE(known) << std::hex << hr;
    return false;
  }
  template <class I>
  ComPtr<I> TryCreate(REFCLSID clsid) {
    ComPtr<I> object;
    return Try(CreateInstance(clsid, object)), object;
  }
  void Finish(IUnknown* object) {
    const auto task = As<ICoreTask>(object);
    const HRESULT hr = task->Start();
    // A connector starts and returns E_NOTIMPL.
    if (hr == E_NOTIMPL || Try(hr)) WaitForTask(task.Get());
  }

  void Tell() {
    const Bstr name(L"name");
    const auto import = TryCreate<IImportFilter>(CLSID_COggImport);
    if (import && Try(import->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer_.Get()))) {
      Finish(import.Get());
    }
    ComPtr<IAudioReader> last;
    const auto document = TryCreate<IEditedAudio>(CLSID_CEditedAudio);
    const auto filter = TryCreate<IExportFilter>(CLSID_CWavExportFilter);
    if (Try(pool_->CreateLastReader(last.GetAddressOf())) && document && filter) {
      Try(last->ReadAudio(0, Floats(5000)));
      Try(As<IPeakReader>(last)->ReadPeaks(0, Floats(8)));
      Try(document->InitChange(1, name));
      Try(document->AppendSegment(last.Get(), 0, 80000));
      Try(document->InsertSegment(500, kept_.Get(), 0, 1000));
      Try(As<ILabelSupport>(document)->AddLabel(100, name));
      Try(As<ISectionMarkerSupport>(document)->AddSectionMarker(0, 500, name));
      Try(document->CommitChange());
      Try(document->Delete(200, 400));
      Try(document->ReadWaveplot(0, 50000, Floats(400)));
      Try(document->Insert(0, document.Get()));
      Try(As<ILabelSupport>(filter)->AddLabel(100, name));
      Try(As<IMetaDataWriter>(filter)->SetMetaData(name, name, name, name, name));
      if (Try(filter->Initialize(Bstr(target_), As<IAudioReader>(document).Get()))) {
        Finish(filter.Get());
      }
    }
    const auto connector = TryCreate<IAudioConnector>(CLSID_CAudioConnector);
    if (connector && filter &&
        Try(connector->SetupReaderToExport(kept_.Get(), filter.Get(), 44100, 2))) {
      if (Try(filter->Initialize(Bstr(target_), As<IAudioReader>(connector).Get())))
        Finish(connector.Get());
      As<ICoreTask>(connector)->Cancel();  // the two hold each other until then
    }
    static const std::vector<Class> classes = ClassesOfTheModule();
    for (const Class& known : classes) TryCreate<IUnknown>(known.clsid);
  }

  // Nothing fails any more.
  void GoOn() {
    ExpectStored(kept_.Get(), 0, kept_samples_);
    LONG ready = 0;
    Check(writer_->QueryIsReady(&ready));
    EXPECT_EQ(ready, 1) << "the pool is still open";
    const Samples more = Ramp(3000, 9000);
    WriteTake(writer_.Get(), more);
    ComPtr<IAudioReader> reader;
    Check(pool_->CreateLastReader(reader.GetAddressOf()));
    ExpectStored(reader.Get(), 0, more);
    EXPECT_TRUE(DeleteFileW(target_.c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND)
        << "a file is still open";
  }

  const std::wstring target_;
  Fault kind_ = Fault::kNone;
  int failures_ = 0;
  const Samples kept_samples_ = Ramp(2000, 0);
  const ComPtr<IAudioPool> pool_ = Create<IAudioPool>(CLSID_CAudioPool);
  const ComPtr<IAudioWriter> writer_ = As<IAudioWriter>(pool_);
  ComPtr<IAudioReader> kept_;
};

class FailingCalls : public ::testing::TestWithParam<Fault> {};

TEST_P(FailingCalls, HarmNoStoredAudioAndLeakNothing) {
  static const bool installed = InstallStandIns();
  ASSERT_TRUE(installed);
  const TemporaryFolder folder;
  int failures = 0;
  const auto run = [&](LONG64 n) {
    failures += Story(folder.path()).Run(GetParam(), n);
    return failed != nullptr;
  };
  run(0);
  run(0);
  const LONG64 all = calls;
  const LeakWatch watch;
  LONG64 n = 1;
  for (; run(n) && !HasFailure(); ++n) {
    SCOPED_TRACE(std::to_string(n) + ", " + failed.load());
  }
  // The number of calls depends a little on timing.
  EXPECT_GT(n, all - all / 10);
  EXPECT_GT(failures, 0);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  watch.AwaitAtMost(2, 20);
}

INSTANTIATE_TEST_SUITE_P(Each, FailingCalls,
                         ::testing::Values(Fault::kFileCall, Fault::kAllocation));

}  // namespace
}  // namespace marlinda::testing
