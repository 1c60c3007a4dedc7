// A host that ends without releasing anything, in every state and by every way out, is gone at once
// and without a crash, and leaves no temporary file; hosts at once never share one, nor write to
// one that was planted; and a host that loads, uses and unloads the module over and over ends where
// it began.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>
// After windows.h.
#include <mmsystem.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <future>
#include <iterator>
#include <map>
#include <thread>
#include <vector>

#include "core/handle.h"
#include "tests/abuse/child_runs.h"
#include "tests/abuse/contract_model.h"
#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

const DWORD kLongestEnd = TimeLimit(2000, 10000);
// Of loading and unloading, unless TESSALY_LOAD_CYCLES names another number.
constexpr int kCycles = 100;

// Nothing that this returns from is ever released.
template <class I>
I* Leak(ComPtr<I> object) {
  return object.Detach();
}

ComPtr<IAudioReader> Silence(__int64 frames) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(frames, 44100, 2));
  return As<IAudioReader>(silence);
}

RecordingWriter* SlowWriter() {
  auto writer = MakeObject<RecordingWriter>();
  writer->keep_samples = false;
  writer->on_write = [](SAFEARRAY*) { Sleep(200); };
  return Leak(std::move(writer));
}

// Comes back when the dialog is there.
void ShowDialog() {
  static std::atomic<DWORD> thread_id = 0;
  std::thread([] {
    Check(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    // The classes are registered for the other thread's apartment.
    ComPtr<IClassFactory> factory;
    Check(ModuleUnderTest::GetClassObject(CLSID_CWavExportFilter, IID_IClassFactory,
                                          reinterpret_cast<void**>(factory.GetAddressOf())));
    IExportFilter* filter = nullptr;
    Check(factory->CreateInstance(nullptr, IID_IExportFilter, reinterpret_cast<void**>(&filter)));
    thread_id = GetCurrentThreadId();
    filter->ShowSettingsDlg(Bstr(L"wav"), 0);
  }).detach();
  const auto see = [](HWND window, LPARAM seen) {
    if (IsWindowVisible(window) != FALSE) *reinterpret_cast<bool*>(seen) = true;
    return TRUE;
  };
  for (bool seen = false; !seen; Sleep(10)) {
    if (thread_id == 0) continue;
    EnumThreadWindows(thread_id, see, reinterpret_cast<LPARAM>(&seen));
  }
}

void BringInto(const std::string& state, const std::wstring& folder) {
  if (state == "importing") {
    auto* const filter = Leak(Create<IImportFilter>(CLSID_COggImport));
    Check(filter->Initialize(Bstr(TESSALY_SAMPLE_OGG), SlowWriter()));
    Check(Leak(As<ICoreTask>(filter))->Start());
  } else if (state == "exporting") {
    auto* const filter = Leak(Create<IExportFilter>(CLSID_CWavExportFilter));
    Check(filter->Initialize(Bstr(folder + L"\\endless.wav"), Silence(1LL << 40).Get()));
    Check(Leak(As<ICoreTask>(filter))->Start());
    Sleep(50);
  } else if (state == "scrubbing") {
    Check(Leak(Create<IAudioScrubber>(CLSID_CAudioScrubber))->Start(SlowWriter(), 4410, 44100, 2));
  } else if (state == "writing a pool") {
    auto* const pool = Leak(Create<IAudioPool>(CLSID_CAudioPool));
    auto* const writer = Leak(As<IAudioWriter>(pool));
    Check(writer->SetFormat(44100, 2));
    Check(writer->OpenDevice());
    Check(writer->WriteAudio(Floats(20000)));
  } else if (state == "changing a document") {
    auto* const document = Leak(Create<IEditedAudio>(CLSID_CEditedAudio));
    Check(document->AppendSegment(Silence(1000).Get(), 0, 1000));
    Check(document->InitChange(1, Bstr(L"change")));
  } else if (state == "showing a dialog") {
    ShowDialog();
  } else if (state == "playing") {
    auto* const document = Leak(Create<IEditedAudio>(CLSID_CEditedAudio));
    Check(document->AppendSegment(Silence(1LL << 30).Get(), 0, 1LL << 30));
    Check(document->Play(0, 1LL << 30, 0xFFFFFFFF, VARIANT_TRUE));
    Sleep(500);
  } else if (state == "recording") {
    auto* const recorder = Leak(As<IAudioReader>(Create<IAudioGrabber>(CLSID_CAudioGrabber)));
    Check(recorder->OpenDevice());
    Check(recorder->ReadAudio(0, Floats(20000)));
  } else {
    throw HResultError(E_INVALIDARG);
  }
}

constexpr char kPools[] = "pools";

// Many pools at once, each with samples of its own.
void FillPools(LONG64 host, const SharedReport& report) {
  constexpr int kPoolCount = 100;
  const auto level = [host](int number) { return static_cast<float>(1000 * host + number); };
  std::vector<ComPtr<IAudioPool>> pools;
  for (int number = 0; number < kPoolCount; ++number) {
    pools.push_back(Create<IAudioPool>(CLSID_CAudioPool));
    const auto writer = As<IAudioWriter>(pools.back());
    Check(writer->SetFormat(44100, 1));
    Check(writer->OpenDevice());
    Check(writer->WriteAudio(Floats(1000, level(number))));
    Check(writer->CloseDevice());
  }
  for (int number = 0; number < kPoolCount; ++number) {
    report.Count();
    ComPtr<IAudioReader> take;
    Check(pools[static_cast<std::size_t>(number)]->CreateLastReader(take.GetAddressOf()));
    const Floats block(1000);
    Check(take->ReadAudio(0, block));
    if (block.ToVector() != std::vector<float>(1000, level(number)))
      report.Fail("another's samples");
  }
}

// The name is the way out; the argument after the folder the state.
void RunCases(const ChildTask& task, SharedReport& report) {
  if (task.name == kPools) return FillPools(task.first, report);
  const std::wstring& wide = task.arguments.at(1);
  report.Begin(0, "setting up");
  BringInto(std::string(wide.begin(), wide.end()), task.arguments.at(0));
  report->finished = 1;
  if (task.name == "ExitProcess") ExitProcess(7);
  if (task.name == "TerminateProcess") TerminateProcess(GetCurrentProcess(), 9);
}

// The folder in which this process and those that it starts make their temporary files.
class TemporaryFilesIn {
 public:
  explicit TemporaryFilesIn(const TemporaryFolder& folder) {
    GetEnvironmentVariableW(L"TMP", usual_, MAX_PATH);
    SetEnvironmentVariableW(L"TMP", folder.path().c_str());
  }
  TemporaryFilesIn(const TemporaryFilesIn&) = delete;
  TemporaryFilesIn& operator=(const TemporaryFilesIn&) = delete;
  ~TemporaryFilesIn() { SetEnvironmentVariableW(L"TMP", usual_); }

 private:
  wchar_t usual_[MAX_PATH] = {};
};

void ExpectGoneAtOnce(const std::string& state) {
  const std::map<std::string, DWORD> kWays = {
      {"return", 0}, {"ExitProcess", 7}, {"TerminateProcess", 9}};
  static int counter = 0;
  for (const auto& [way, expected] : kWays) {
    SCOPED_TRACE(state + ", " + way);
    const TemporaryFolder folder;
    const TemporaryFilesIn place(folder);
    const std::wstring mapping = L"tessaly-end-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                 std::to_wstring(++counter);
    const SharedReport report(mapping);
    const KernelHandle child(StartThisProgram(L"--child " + std::wstring(way.begin(), way.end()) +
                                              L" 0 " + mapping + L" \"" + folder.path() + L"\" \"" +
                                              std::wstring(state.begin(), state.end()) + L"\""));
    for (int i = 0; i < 600 && report->finished == 0; ++i) {
      if (WaitForSingleObject(child.get(), 100) == WAIT_OBJECT_0) break;
    }
    ASSERT_EQ(report->finished, 1) << "never came into that state";
    const ULONGLONG begun = GetTickCount64();
    const DWORD waited = WaitForSingleObject(child.get(), kLongestEnd);
    EXPECT_EQ(waited, WAIT_OBJECT_0) << "still there after " << GetTickCount64() - begun << " ms";
    if (waited != WAIT_OBJECT_0) TerminateProcess(child.get(), 1);
    WaitForSingleObject(child.get(), INFINITE);
    DWORD code = 0;
    ASSERT_TRUE(GetExitCodeProcess(child.get(), &code));
    EXPECT_EQ(code, expected);
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
  }
}

TEST(ProcessEnd, IsImmediateWhileTasksRunAndFilesOrDialogsAreOpen) {
  for (const char* state : {"importing", "exporting", "scrubbing", "writing a pool",
                            "changing a document", "showing a dialog"}) {
    ExpectGoneAtOnce(state);
  }
}

TEST(ProcessEnd, IsImmediateWhileDevicesRun) {
  if (waveOutGetNumDevs() == 0 || waveInGetNumDevs() == 0) GTEST_SKIP() << "no sound devices";
  for (const char* state : {"playing", "recording"}) ExpectGoneAtOnce(state);
}

TEST(TemporaryFiles, AreNeverSharedByHostsAtOnce) {
  const TemporaryFolder folder;
  const TemporaryFilesIn place(folder);
  std::vector<std::future<Outcome>> hosts;
  for (LONG64 host = 1; host <= 3; ++host) {
    hosts.push_back(
        std::async(std::launch::async, [host] { return RunInChildren(kPools, {}, 60, 0, host); }));
  }
  for (std::future<Outcome>& host : hosts) {
    const Outcome outcome = host.get();
    EXPECT_THAT(outcome.failures, ::testing::IsEmpty());
    EXPECT_EQ(outcome.calls, 100);
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

std::wstring TemporaryName(const wchar_t* prefix, DWORD number) {
  wchar_t name[16];
  swprintf(name, std::size(name), L"%ls%x.tmp", prefix, static_cast<unsigned>(number & 0xFFFF));
  return name;
}

// The system numbers temporary files by its clock, and goes on from a name that is taken. Names are
// planted for a while that is to come; whether the pool was made in it shows in the number it got.
TEST(TemporaryFiles, SpareAFileThatWasPlantedUnderTheirName) {
  constexpr DWORD kPlanted = 100;
  constexpr DWORD kAhead = 500;
  const std::vector<unsigned char> text = {'d', 'e', 'a', 'r'};
  bool met = false;
  for (int round = 0; round < 100 && !met; ++round) {
    const TemporaryFolder folder;
    const TemporaryFilesIn place(folder);
    const std::wstring victim = folder.File(L"victim");
    WriteFileBytes(victim, text);
    const DWORD begun = GetTickCount();
    const DWORD first = begun + kAhead;
    for (DWORD i = 0; i < kPlanted; ++i) {
      for (const wchar_t* prefix : {L"aud", L"pea"}) {
        const std::wstring path = folder.File(TemporaryName(prefix, first + i));
        ASSERT_TRUE(CreateHardLinkW(path.c_str(), victim.c_str(), nullptr));
      }
    }
    while (GetTickCount() - begun < kAhead) Sleep(1);
    {
      const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
      met = std::filesystem::exists(folder.File(TemporaryName(L"aud", first + kPlanted))) &&
            std::filesystem::exists(folder.File(TemporaryName(L"pea", first + kPlanted)));
      const auto writer = As<IAudioWriter>(pool);
      EXPECT_EQ(writer->SetFormat(44100, 2), S_OK);
      EXPECT_EQ(writer->OpenDevice(), S_OK);
      EXPECT_EQ(writer->WriteAudio(Floats(2000)), S_OK);
      EXPECT_EQ(writer->CloseDevice(), S_OK);
    }
    EXPECT_EQ(ReadFileBytes(victim), text);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}),
              2 * kPlanted + 1);
  }
  EXPECT_TRUE(met);
}

// The slots for thread data that the process has left.
int CountFreeSlots() {
  std::vector<DWORD> taken;
  for (DWORD slot = TlsAlloc(); slot != TLS_OUT_OF_INDEXES; slot = TlsAlloc()) {
    taken.push_back(slot);
  }
  for (const DWORD slot : taken) TlsFree(slot);
  return static_cast<int>(taken.size());
}

TEST(Module, EndsWhereItBeganAfterEveryCycleOfLoadUseAndUnload) {
  const char* const named = std::getenv("TESSALY_LOAD_CYCLES");
  const int cycles = named != nullptr ? std::atoi(named) : kCycles;
  const TemporaryFolder folder;
  const std::wstring path = folder.File(L"Tessaly.dll");
  ASSERT_TRUE(CopyFileW(ModuleUnderTest::Path().c_str(), path.c_str(), TRUE));
  const std::vector<Class> classes = ClassesOfTheModule();
  // The compiler's runtime inside the module opens two handles whenever it is loaded and forgets
  // them: what loading alone leaves behind is counted and taken off.
  const auto handles_of = [&](int loads) {
    const unsigned before = CountHandles();
    for (int i = 0; i < loads; ++i) FreeLibrary(LoadLibraryW(path.c_str()));
    return CountHandles() - before;
  };
  handles_of(1);
  const unsigned left_by_loading = handles_of(cycles - 11);
  EXPECT_LE(left_by_loading, 2U * static_cast<unsigned>(cycles));
  unsigned handles = 0;
  unsigned threads = 0;
  int slots = 0;
  int created = 0;
  for (int cycle = 0; cycle < cycles; ++cycle) {
    const HMODULE module = LoadLibraryW(path.c_str());
    ASSERT_NE(module, nullptr);
    const auto get_class_object = reinterpret_cast<HRESULT(WINAPI*)(REFCLSID, REFIID, void**)>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
    const auto can_unload = reinterpret_cast<HRESULT(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")));
    for (const Class& known : classes) {
      ComPtr<IClassFactory> factory;
      ComPtr<IDispatch> object;
      if (FAILED(get_class_object(known.clsid, IID_IClassFactory,
                                  reinterpret_cast<void**>(factory.GetAddressOf())))) {
        continue;
      }
      ASSERT_EQ(factory->CreateInstance(nullptr, IID_IDispatch,
                                        reinterpret_cast<void**>(object.GetAddressOf())),
                S_OK);
      ++created;
      ComPtr<ITypeInfo> info;
      EXPECT_EQ(object->GetTypeInfo(0, 0, info.GetAddressOf()), S_OK);
      if (auto writer = As<IAudioWriter>(object); writer && As<IAudioPool>(object)) {
        writer->SetFormat(44100, 2);
        writer->OpenDevice();
        EXPECT_EQ(writer->WriteAudio(Floats(2000)), S_OK);
      }
      if (auto scrubber = As<IAudioScrubber>(object); scrubber && cycle == 0) {
        EXPECT_EQ(scrubber->Start(MakeObject<RecordingWriter>().Get(), 441000, 44100, 2), S_OK);
      }
      EXPECT_EQ(can_unload(), S_FALSE);
    }
    EXPECT_EQ(can_unload(), S_OK) << "cycle " << cycle;
    ASSERT_TRUE(FreeLibrary(module));
    ASSERT_EQ(GetModuleHandleW(path.c_str()), nullptr) << "cycle " << cycle;
    if (cycle == 10) {
      handles = CountHandles();
      threads = CountThreads();
      slots = CountFreeSlots();
    }
  }
  EXPECT_GE(created, 10 * cycles);
  EXPECT_LE(CountHandles(), handles + left_by_loading + 2);
  EXPECT_LE(CountThreads(), threads);
  EXPECT_GE(CountFreeSlots(), slots);
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  return marlinda::testing::AbuseMain(argc, argv, marlinda::testing::RunCases, [] {});
}
