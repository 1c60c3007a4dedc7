// Eight threads, each a host of its own, edit, read, write, import, export, scrub and cancel at
// random, and share the objects that may be shared: nothing crashes, nothing waits without end, and
// every object gets all its references back. TESSALY_CONCURRENT_SECONDS names another time.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "tests/abuse/child_runs.h"
#include "tests/abuse/contract_model.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

constexpr int kThreads = 8;
constexpr ULONGLONG kLongestCall = 10000;
constexpr float kLevel = 0.375F;

// What all threads call, while nobody edits it.
struct Shared {
  ComPtr<IEditedAudio> document;
  ComPtr<IAudioPlayback> playback;
  ComPtr<ICoreTask> endless_export;
};

class Host {
 public:
  Host(int number, const Shared& shared, const std::wstring& folder, const SharedReport& report)
      : random_(static_cast<unsigned>(1000 + number)),
        shared_(shared),
        target_(folder + L"\\target" + std::to_wstring(number) + L".wav"),
        report_(report) {}

  void Step() {
    const int what = Draw(8);
    const ULONGLONG begun = GetTickCount64();
    switch (what) {
      case 0:
        EditAndRead();
        break;
      case 1:
        WriteAndReadBack();
        break;
      case 2:
        Import();
        break;
      case 3:
        Export();
        break;
      case 4:
        Scrub();
        break;
      default:
        UseShared();
    }
    const ULONGLONG took = GetTickCount64() - begun;
    if (took > kLongestCall) {
      report_.Fail("step " + std::to_string(what) + " took " + std::to_string(took) + " ms");
    }
    ++steps;
  }

  long long steps = 0;

 private:
  int Draw(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  ComPtr<IAudioPool> FilledPool(SHORT bits) {
    auto pool = Create<IAudioPool>(CLSID_CAudioPool);
    const auto writer = As<IAudioWriter>(pool);
    Check(pool->SetBitDepth(bits, 0));
    Check(writer->SetFormat(44100, 2));
    Check(writer->OpenDevice());
    Check(writer->WriteAudio(Floats(4096, kLevel)));
    Check(writer->CloseDevice());
    return pool;
  }

  void EditAndRead() {
    auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
    ComPtr<IAudioReader> take;
    Check(FilledPool(32)->CreateLastReader(take.GetAddressOf()));
    for (int i = 0; i < 20; ++i) {
      const int begin = Draw(2000);
      Check(document->InitChange(1, nullptr));
      Check(document->InsertSegment(Draw(3000), take.Get(), begin, begin + 1 + Draw(40)));
      if (Draw(3) == 0) Check(document->Delete(Draw(100), 100 + Draw(100)));
      Check(As<ILabelSupport>(document)->AddLabel(Draw(1000), nullptr));
      Check(document->CommitChange());
    }
    const Floats block(64);
    Check(As<IAudioReader>(document)->ReadAudio(0, block));
    for (const float sample : block.values()) {
      if (sample != kLevel && sample != 0) return report_.Fail("a document read another's samples");
    }
  }

  void WriteAndReadBack() {
    ComPtr<IAudioReader> take;
    Check(FilledPool(Draw(2) == 0 ? SHORT{32} : SHORT{24})->CreateLastReader(take.GetAddressOf()));
    const Floats block(4096);
    Check(take->ReadAudio(0, block));
    if (block[0] != kLevel || block[4095] != kLevel) report_.Fail("a pool gave other samples");
  }

  // To its end, cancelled, or with its last reference gone in the middle.
  void Finish(ComPtr<ICoreTask> task) {
    switch (Draw(3)) {
      case 0:
        if (!WaitForTask(task.Get(), 10)) report_.Fail("a task does not end");
        break;
      case 1:
        Sleep(static_cast<DWORD>(Draw(5)));
        Check(task->Cancel());
        break;
      default:
        break;
    }
  }

  void Import() {
    auto filter = Create<IImportFilter>(CLSID_COggImport);
    const auto writer = As<IAudioWriter>(Create<IAudioPool>(CLSID_CAudioPool));
    Check(filter->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()));
    auto task = As<ICoreTask>(filter);
    filter.Reset();
    Check(task->Start());
    Finish(std::move(task));
  }

  void Export() {
    auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    Check(filter->Initialize(Bstr(target_), As<IAudioReader>(shared_.document).Get()));
    auto task = As<ICoreTask>(filter);
    filter.Reset();
    Check(task->Start());
    Finish(std::move(task));
  }

  void Scrub() {
    auto writer = MakeObject<RecordingWriter>();
    writer->keep_samples = false;
    writer->on_write = [](SAFEARRAY*) { Sleep(1); };
    auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
    Check(scrubber->Start(writer.Get(), 100, 44100, 2));
    Check(scrubber->WriteBlock(Floats(200, kLevel)));
    if (Draw(2) == 0) Check(scrubber->Stop());
  }

  void UseShared() {
    for (int i = 0; i < 200; ++i) {
      const auto reader = As<IAudioReader>(shared_.document);
      const Floats block(256);
      Check(reader->ReadAudio(Draw(4000), block));
      Check(shared_.document->ReadWaveplot(Draw(500), 600 + Draw(3000), block));
      Bstr name;
      LONG count = 0;
      Check(As<ILabelSupport>(shared_.document)->GetLabelCount(&count));
      __int64 position = 0;
      Check(shared_.playback->SetPosOffset(Draw(1000)));
      Check(shared_.playback->GetPlaybackPos(&position));
      Check(shared_.playback->Break());
      float progress = -1;
      VARIANT_BOOL running = VARIANT_FALSE;
      Check(shared_.endless_export->GetProgress(&progress));
      Check(shared_.endless_export->QueryIsTaskRunning(&running));
      Check(shared_.endless_export->GetName(name.Receive()));
    }
  }

  std::mt19937 random_;
  const Shared& shared_;
  const std::wstring target_;
  const SharedReport& report_;
};

// An apartment with the module's classes, so that what creates others finds them.
class Apartment {
 public:
  explicit Apartment(const std::vector<Class>& classes) {
    Check(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    for (const Class& known : classes) {
      ComPtr<IUnknown> factory;
      DWORD cookie = 0;
      if (SUCCEEDED(ModuleUnderTest::GetClassObject(
              known.clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.GetAddressOf())))) {
        Check(CoRegisterClassObject(known.clsid, factory.Get(), CLSCTX_INPROC_SERVER,
                                    REGCLS_MULTIPLEUSE, &cookie));
        cookies_.push_back(cookie);
      }
    }
  }
  Apartment(const Apartment&) = delete;
  Apartment& operator=(const Apartment&) = delete;
  ~Apartment() {
    for (const DWORD cookie : cookies_) CoRevokeClassObject(cookie);
    CoUninitialize();
  }

 private:
  std::vector<DWORD> cookies_;
};

Shared MakeShared(const std::wstring& folder) {
  Shared shared = {Create<IEditedAudio>(CLSID_CEditedAudio),
                   Create<IAudioPlayback>(CLSID_CAudioPlayback), nullptr};
  auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(5000, 44100, 2));
  for (int i = 0; i < 100; ++i) {
    Check(shared.document->AppendSegment(As<IAudioReader>(silence).Get(), i, i + 40));
  }
  auto endless = Create<INullReader>(CLSID_CNullReader);
  Check(endless->Create(1LL << 24, 44100, 2));
  auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  Check(filter->Initialize(Bstr(folder + L"\\shared.wav"), As<IAudioReader>(endless).Get()));
  shared.endless_export = As<ICoreTask>(filter);
  return shared;
}

void RunCases(const ChildTask& task, SharedReport& report) {
  const ULONGLONG end = GetTickCount64() + 1000 * std::strtoull(task.name.c_str(), nullptr, 10);
  report.Begin(0, "concurrent hosts");
  const std::vector<Class> classes = ClassesOfTheModule();
  Shared shared = MakeShared(task.arguments.at(0));
  const ULONG before[] = {ReferenceCount(shared.document.Get()),
                          ReferenceCount(shared.playback.Get())};
  Check(shared.endless_export->Start());
  std::atomic<long long> steps = 0;
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      try {
        const Apartment apartment(classes);
        Host host(number, shared, task.arguments.at(0), report);
        while (GetTickCount64() < end) {
          host.Step();
          report.Count();
        }
        steps += host.steps;
      } catch (const HResultError& error) {
        report.Fail("a legal call gave " + Hex(error.code()));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Check(shared.endless_export->Cancel());
  const ULONG after[] = {ReferenceCount(shared.document.Get()),
                         ReferenceCount(shared.playback.Get())};
  if (!std::ranges::equal(before, after)) report.Fail("references are left on a shared object");
  shared = {};
  ModuleUnderTest::Revoke();
  if (ModuleUnderTest::CanUnloadNow() != S_OK) report.Fail("objects are left");
  std::printf("%lld steps\n", steps.load());
}

TEST(ConcurrentHosts, GetInNobodysWay) {
  const char* const named = std::getenv("TESSALY_CONCURRENT_SECONDS");
  const TemporaryFolder folder;
  const Outcome outcome = RunInChildren(named != nullptr ? named : "8", {folder.path()}, 30, 0);
  for (const std::string& failure : outcome.failures) ADD_FAILURE() << failure;
  EXPECT_GT(outcome.calls, 100);
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  return marlinda::testing::AbuseMain(argc, argv, marlinda::testing::RunCases, [] {});
}
