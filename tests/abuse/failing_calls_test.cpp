// A host imports, edits and exports two seconds of audio many times. In run N, the module's Nth
// file call fails. A second series makes the Nth allocation fail instead. The test replaces
// functions in the module's import table. Allocations of the compiler's runtime do not fail.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <span>
#include <stdexcept>

#include "tests/abuse/parts.h"
#include "tests/support/contract_model.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

enum class Fault { kNone, kFileCall, kAllocation };

// Counts the calls of the armed kind from 1. Call number `fails_at` fails.
std::atomic<Fault> armed = Fault::kNone;
std::atomic<LONG64> calls = 0;
std::atomic<LONG64> fails_at = 0;
std::atomic<const char*> failed = nullptr;  // the function that failed

bool IsTurnOf(Fault kind, const char* name) {
  if (armed != kind || ++calls != fails_at) return false;
  failed = name;
  return true;
}

// Replaces an imported function permanently and returns the original.
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

// Replaces an imported function by one that returns `kFailure` at call number `fails_at`.
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

// Makes malloc fail only for operator new. Operator new calls malloc at one place. The test records
// the return address of this call while the module creates an object.
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

void ExpectStored(IAudioReader* reader, const Samples& expected) {
  const Floats block(expected.size(), -7.0F);
  EXPECT_EQ(reader->ReadAudio(0, block), S_OK);
  EXPECT_TRUE(block.ToVector() == expected);
}

// Imports, edits and exports while the module's `n`th call of this kind fails. Returns how many COM
// calls failed.
int Tell(Fault kind, LONG64 n, const Bstr& target) {
  Samples samples(2000);
  std::iota(samples.begin(), samples.end(), 0.0F);
  const Bstr name(L"name");
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto writer = As<IAudioWriter>(pool);
  ComPtr<IAudioReader> kept;
  Check(pool->SetBitDepth(32, 0));
  WriteTake(writer.Get(), samples);
  Check(pool->CreateLastReader(kept.GetAddressOf()));

  int failures = 0;
  // Returns true if the call succeeded.
  const auto attempt = [&](HRESULT hr) {
    if (SUCCEEDED(hr)) return true;
    ++failures;
    const bool known =
        hr == E_FAIL || hr == E_OUTOFMEMORY || hr == HRESULT_FROM_WIN32(ERROR_HANDLE_EOF) ||
        (kind == Fault::kFileCall && HRESULT_FACILITY(hr) == FACILITY_WIN32) ||
        (kind == Fault::kAllocation && hr == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_TRUE(known) << std::hex << hr;
    return false;
  };
  const auto create = [&]<class I>(REFCLSID clsid, ComPtr<I> object = {}) {
    attempt(CreateInstance(clsid, object));
    return object;
  };
  const auto finish = [&](IUnknown* object) {
    const auto task = As<ICoreTask>(object);
    if (attempt(task->Start())) WaitForTask(task.Get());
  };
  calls = 0;
  failed = nullptr;
  fails_at = n;
  armed = kind;
  const auto import = create(CLSID_COggImport, ComPtr<IImportFilter>());
  if (import && attempt(import->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()))) {
    finish(import.Get());
  }
  ComPtr<IAudioReader> last;
  const auto document = create(CLSID_CEditedAudio, ComPtr<IEditedAudio>());
  if (attempt(pool->CreateLastReader(last.GetAddressOf())) && document) {
    attempt(last->ReadAudio(0, Floats(5000)));
    attempt(As<IPeakReader>(last)->ReadPeaks(0, Floats(8)));
    attempt(document->InitChange(1, name));
    attempt(document->AppendSegment(last.Get(), 0, 80000));
    attempt(document->InsertSegment(500, kept.Get(), 0, 1000));
    attempt(As<ILabelSupport>(document)->AddLabel(100, name));
    attempt(document->CommitChange());
    attempt(document->Delete(200, 400));
    attempt(document->ReadWaveplot(0, 50000, Floats(400)));
    attempt(document->Insert(0, document.Get()));
    const auto filter = create(CLSID_CWavExportFilter, ComPtr<IExportFilter>());
    if (filter && attempt(filter->Initialize(target, As<IAudioReader>(document).Get()))) {
      attempt(As<IMetaDataWriter>(filter)->SetMetaData(name, name, name, name, name));
      finish(filter.Get());
    }
  }
  static const std::vector<Class> classes = ClassesOfTheModule();
  for (const Class& known : classes) create(known.clsid, ComPtr<IUnknown>());
  armed = Fault::kNone;
  EXPECT_TRUE(failed != nullptr || failures == 0) << "a call failed without a cause";

  // From here on, the test makes no call fail.
  ExpectStored(kept.Get(), samples);
  LONG ready = 0;
  Check(writer->QueryIsReady(&ready));
  EXPECT_EQ(ready, 1) << "the pool is still open";
  WriteTake(writer.Get(), samples);
  Check(pool->CreateLastReader(last.ReleaseAndGetAddressOf()));
  ExpectStored(last.Get(), samples);
  return failures;
}

class FailingCalls : public ::testing::TestWithParam<Fault> {};

TEST_P(FailingCalls, HarmNoStoredAudioAndLeakNothing) {
  static const bool installed = InstallStandIns();
  ASSERT_TRUE(installed);
  const TemporaryFolder folder;
  const Bstr target(folder.File(L"out.wav"));
  int failures = 0;
  const auto run = [&](LONG64 n) {
    failures += Tell(GetParam(), n, target);
    EXPECT_TRUE(DeleteFileW(target) || GetLastError() == ERROR_FILE_NOT_FOUND) << "a file is open";
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
  // The number of calls varies a little with timing.
  EXPECT_GT(n, all - all / 10);
  EXPECT_GT(failures, 0);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  watch.AwaitAtMost(2, 20);
}

INSTANTIATE_TEST_SUITE_P(Each, FailingCalls,
                         ::testing::Values(Fault::kFileCall, Fault::kAllocation));

}  // namespace
}  // namespace marlinda::testing
