// A host that ends without releasing anything ends at once, without a crash, and leaves no
// temporary file. Using and unloading the module many times leaves no thread or object.
#include <gtest/gtest.h>
#include <process.h>

#include <cstdlib>
#include <filesystem>

#include "tests/abuse/parts.h"
#include "tests/support/contract_model.h"
#include "tests/support/process_counts.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

// Ends the process without releasing anything.
void End() {
  if (_wgetenv(L"TESSALY_KILLED")[0] == L'1') TerminateProcess(GetCurrentProcess(), 7);
  ExitProcess(7);
}

TEST(DISABLED_Child, EndsWhileItWorks) {
  const std::wstring work = _wgetenv(L"TESSALY_WORK");
  if (work == L"import") {
    const HANDLE writing = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const auto writer = MakeObject<RecordingWriter>();
    writer->on_write = [=](SAFEARRAY*) {
      SetEvent(writing);
      Sleep(INFINITE);
    };
    const auto filter = Create<IImportFilter>(CLSID_COggImport);
    Check(filter->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()));
    Check(As<ICoreTask>(filter)->Start());
    WaitForSingleObject(writing, INFINITE);
    End();
  } else if (work == L"pool") {
    const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
    WriteTake(As<IAudioWriter>(pool).Get(), Samples(20000));
    End();
  }
  const auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
  Check(document->AppendSegment(Silence(1LL << 30).Get(), 0, 1LL << 30));
  Check(document->Play(0, 1LL << 30, 0xFFFFFFFF, VARIANT_TRUE));
  VARIANT_BOOL playing = VARIANT_TRUE;
  for (__int64 position = 0; position == 0;) Check(document->GetPlayStatus(&playing, &position));
  End();
}

void ExpectCleanEnd(const wchar_t* work) {
  const std::wstring usual = _wgetenv(L"TMP");
  for (const wchar_t* killed : {L"0", L"1"}) {
    const TemporaryFolder folder;
    // Child processes inherit TMP and create their temporary files in this folder.
    SetEnvironmentVariableW(L"TMP", folder.path().c_str());
    SetEnvironmentVariableW(L"TESSALY_WORK", work);
    SetEnvironmentVariableW(L"TESSALY_KILLED", killed);
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const auto status = _wspawnl(_P_WAIT, program, L"child", L"--gtest_filter=*Child*",
                                 L"--gtest_also_run_disabled_tests", nullptr);
    EXPECT_EQ(status, 7) << std::filesystem::path(work) << " killed: " << *killed - L'0';
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
    SetEnvironmentVariableW(L"TMP", usual.c_str());
  }
}

TEST(ProcessEnd, IsCleanWhileTasksRunAndFilesAreOpen) {
  for (const wchar_t* work : {L"import", L"pool"}) ExpectCleanEnd(work);
}

TEST(ProcessEnd, IsCleanWhileDevicesPlay) { ExpectCleanEnd(L"play"); }

TEST(Module, LeavesNoThreadOrHandleAfterManyLoadsAndUnloads) {
  const char* const named = std::getenv("TESSALY_LOAD_CYCLES");
  const int cycles = named != nullptr ? std::atoi(named) : 50;
  const TemporaryFolder folder;
  const std::wstring path = folder.File(L"Tessaly.dll");
  ASSERT_TRUE(CopyFileW(ModuleUnderTest::Path().c_str(), path.c_str(), TRUE));
  const std::vector<Class> classes = ClassesOfTheModule();
  const LeakWatch watch;
  for (int cycle = 0; cycle < cycles; ++cycle) {
    const HMODULE module = LoadLibraryW(path.c_str());
    const auto can_unload = ExportAs<decltype(DllCanUnloadNow)>(module, "DllCanUnloadNow");
    for (const Class& known : classes) {
      ComPtr<IClassFactory> factory;
      ComPtr<IDispatch> object;
      ComPtr<ITypeInfo> info;
      Check(ExportAs<decltype(DllGetClassObject)>(module, "DllGetClassObject")(
          known.clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.GetAddressOf())));
      Check(factory->CreateInstance(nullptr, IID_IDispatch,
                                    reinterpret_cast<void**>(object.GetAddressOf())));
      Check(object->GetTypeInfo(0, 0, info.GetAddressOf()));
      if (auto scrubber = As<IAudioScrubber>(object); scrubber && cycle == 0) {
        Check(scrubber->Start(MakeObject<RecordingWriter>().Get(), 441000, 44100, 2));
      }
      EXPECT_EQ(can_unload(), S_FALSE);
    }
    EXPECT_EQ(can_unload(), S_OK) << cycle;
    ASSERT_TRUE(FreeLibrary(module));
    ASSERT_EQ(GetModuleHandleW(path.c_str()), nullptr) << cycle;
  }
  // The compiler's runtime opens four handles at every load and never closes them.
  watch.AwaitAtMost(2, 20 + 4 * static_cast<unsigned>(cycles));
}

}  // namespace
}  // namespace marlinda::testing
