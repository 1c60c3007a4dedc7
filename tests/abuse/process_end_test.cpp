// A host that ends without releasing anything ends at once, without a crash, and leaves no
// temporary file. A host that loads, uses and unloads the module many times keeps nothing of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>
// After windows.h.
#include <mmsystem.h>

#include <cstdlib>
#include <filesystem>

#include "core/handle.h"
#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"
#include "tests/support/process_counts.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

// The object is never released.
template <class I>
I* Leak(ComPtr<I> object) {
  return object.Detach();
}

ComPtr<IAudioReader> Silence(__int64 frames) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(frames, 44100, 2));
  return As<IAudioReader>(silence);
}

void BringInto(const std::string& state, const std::wstring& folder) {
  if (state == "importing") {
    const KernelHandle writing(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    auto* const writer = Leak(MakeObject<RecordingWriter>());
    writer->on_write = [event = writing.get()](SAFEARRAY*) {
      SetEvent(event);
      Sleep(INFINITE);
    };
    auto* const filter = Leak(Create<IImportFilter>(CLSID_COggImport));
    Check(filter->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer));
    Check(Leak(As<ICoreTask>(filter))->Start());
    WaitForSingleObject(writing.get(), INFINITE);
  } else if (state == "exporting") {
    auto* const filter = Leak(Create<IExportFilter>(CLSID_CWavExportFilter));
    Check(filter->Initialize(Bstr(folder + L"\\endless.wav"), Silence(1LL << 40).Get()));
    auto* const task = Leak(As<ICoreTask>(filter));
    Check(task->Start());
    float progress = 0;
    while (progress == 0) Check(task->GetProgress(&progress));
  } else if (state == "writing a pool") {
    auto* const writer = Leak(As<IAudioWriter>(Create<IAudioPool>(CLSID_CAudioPool)));
    Check(writer->SetFormat(44100, 2));
    Check(writer->OpenDevice());
    Check(writer->WriteAudio(Floats(20000)));
  } else if (state == "playing") {
    auto* const document = Leak(Create<IEditedAudio>(CLSID_CEditedAudio));
    Check(document->AppendSegment(Silence(1LL << 30).Get(), 0, 1LL << 30));
    Check(document->Play(0, 1LL << 30, 0xFFFFFFFF, VARIANT_TRUE));
    VARIANT_BOOL playing = VARIANT_TRUE;
    __int64 position = 0;
    while (position == 0) Check(document->GetPlayStatus(&playing, &position));
  } else {
    throw HResultError(E_INVALIDARG);
  }
}

int RunChild(char** arguments) {
  const std::string way = arguments[2];
  const std::string folder = arguments[3];
  BringInto(arguments[4], std::wstring(folder.begin(), folder.end()));
  if (way == "ExitProcess") ExitProcess(7);
  TerminateProcess(GetCurrentProcess(), 7);
  return 1;
}

// A folder for the temporary files of this process and its children.
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

void ExpectCleanEnd(const std::wstring& state) {
  for (const wchar_t* way : {L"ExitProcess", L"TerminateProcess"}) {
    SCOPED_TRACE(::testing::PrintToString(state + L", " + way));
    const TemporaryFolder folder;
    const TemporaryFilesIn place(folder);
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(program) + L"\" --child " + way + L" \"" +
                           folder.path() + L"\" \"" + state + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    ASSERT_TRUE(CreateProcessW(program, command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &process));
    const KernelHandle thread(process.hThread);
    const KernelHandle child(process.hProcess);
    WaitForSingleObject(child.get(), INFINITE);
    DWORD code = 0;
    ASSERT_TRUE(GetExitCodeProcess(child.get(), &code));
    EXPECT_EQ(code, 7U);
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
  }
}

TEST(ProcessEnd, IsCleanWhileTasksRunAndFilesAreOpen) {
  for (const wchar_t* state : {L"importing", L"exporting", L"writing a pool"}) {
    ExpectCleanEnd(state);
  }
}

TEST(ProcessEnd, IsCleanWhileDevicesPlay) { ExpectCleanEnd(L"playing"); }

TEST(Module, LeavesNothingAfterLoadUseAndUnload) {
  const char* const named = std::getenv("TESSALY_LOAD_CYCLES");
  const int cycles = named != nullptr ? std::atoi(named) : 50;
  const TemporaryFolder folder;
  const std::wstring path = folder.File(L"Tessaly.dll");
  ASSERT_TRUE(CopyFileW(ModuleUnderTest::Path().c_str(), path.c_str(), TRUE));
  const std::vector<Class> classes = ClassesOfTheModule();
  unsigned handles = 0;
  unsigned threads = 0;
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
      ASSERT_EQ(get_class_object(known.clsid, IID_IClassFactory,
                                 reinterpret_cast<void**>(factory.GetAddressOf())),
                S_OK);
      ASSERT_EQ(factory->CreateInstance(nullptr, IID_IDispatch,
                                        reinterpret_cast<void**>(object.GetAddressOf())),
                S_OK);
      ComPtr<ITypeInfo> info;
      EXPECT_EQ(object->GetTypeInfo(0, 0, info.GetAddressOf()), S_OK);
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
    }
  }
  // The compiler's runtime opens four handles with every load and never closes them.
  EXPECT_LE(CountHandles(), handles + 4 * static_cast<unsigned>(cycles));
  EXPECT_LE(CountThreads(), threads);
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  using namespace marlinda::testing;
  ::testing::InitGoogleTest(&argc, argv);
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  ModuleUnderTest::Load();
  if (argc == 5) return RunChild(argv);
  int result = RUN_ALL_TESTS();
  if (!ModuleUnderTest::RevokeAndSeeUnused()) result = 1;
  CoUninitialize();
  return result;
}
