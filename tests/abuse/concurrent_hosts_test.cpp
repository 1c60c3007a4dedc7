// Eight threads, each a host of its own, edit, import, export, connect, scrub and play at random,
// release objects while their threads run, and call the objects that may be shared. Nothing crashes
// and every shared object gets all its references back. TESSALY_CONCURRENT_STEPS sets the length.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "core/handle.h"
#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"
#include "tests/support/ramp_source.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

constexpr int kThreads = 8;
constexpr float kLevel = 0.375F;

// What all threads call, while nobody edits it.
struct Shared {
  ComPtr<IEditedAudio> document;
  ComPtr<IAudioPlayback> playback;
  ComPtr<ICoreTask> endless_export;
};

class Host {
 public:
  Host(int number, const Shared& shared, const std::wstring& folder)
      : random_(static_cast<unsigned>(1000 + number)),
        shared_(shared),
        target_(folder + L"\\target" + std::to_wstring(number) + L".wav") {}

  void Step() { (this->*kSteps[static_cast<std::size_t>(Draw(kSteps.size()))])(); }

 private:
  int Draw(std::size_t below) { return static_cast<int>(random_() % below); }
  bool Sometimes() { return Draw(2) == 0; }

  static void AwaitEnd(ICoreTask* task) {
    for (VARIANT_BOOL running = VARIANT_TRUE; running != VARIANT_FALSE; Sleep(1)) {
      Check(task->QueryIsTaskRunning(&running));
    }
  }

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
      EXPECT_TRUE(sample == kLevel || sample == 0) << sample;
    }
  }

  // To its end, cancelled, or with its last reference gone in the middle.
  void Finish(ComPtr<ICoreTask> task) {
    switch (Draw(3)) {
      case 0:
        AwaitEnd(task.Get());
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
    if (Sometimes()) Check(scrubber->Stop());
  }

  // The last reference to a task goes while its thread is in a read, or has just come back.
  void ReleaseInTheMiddleOfARead() {
    auto source = RampSource::Make('A');
    auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    Check(filter->Initialize(Bstr(target_), source.Get()));
    auto task = As<ICoreTask>(filter);
    const KernelHandle reading(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    const KernelHandle released(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    source->on_read = [&, first = true](SAFEARRAY*) mutable {
      if (!std::exchange(first, false)) return;
      SetEvent(reading.get());
      WaitForSingleObject(released.get(), INFINITE);
    };
    Check(task->Start());
    WaitForSingleObject(reading.get(), INFINITE);
    filter.Reset();
    // It waits for that thread, so that somebody else must let the read end.
    std::thread last([&] { task.Reset(); });
    SetEvent(released.get());
    last.join();
  }

  // From one file to another without a pool.
  void Connect() {
    auto from = Create<IImportFilter>(CLSID_COggImport);
    auto to = Create<IExportFilter>(CLSID_CWavExportFilter);
    auto connector = Create<IAudioConnector>(CLSID_CAudioConnector);
    Check(connector->SetupImportToExport(from.Get(), to.Get(), 44100, 2));
    Check(from->Initialize(Bstr(TESSALY_SAMPLE_OGG), As<IAudioWriter>(connector).Get()));
    Check(to->Initialize(Bstr(target_), As<IAudioReader>(connector).Get()));
    const auto task = As<ICoreTask>(connector);
    // A connector answers E_NOTIMPL, whatever it did.
    task->Start();
    if (Sometimes()) {
      task->Cancel();
    } else {
      AwaitEnd(task.Get());
    }
  }

  void Play() {
    ComPtr<IAudioReader> take;
    Check(FilledPool(16)->CreateLastReader(take.GetAddressOf()));
    auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
    Check(document->AppendSegment(take.Get(), 0, 2048));
    Check(document->Play(0, 2048, 3, VARIANT_TRUE));
    VARIANT_BOOL playing = VARIANT_FALSE;
    __int64 position = 0;
    for (int i = Draw(20); i > 0; --i) {
      Check(document->GetPlayStatus(&playing, &position));
      Check(document->ModifyPlaySection(Draw(100), 1000 + Draw(1000)));
      float left = 0;
      float right = 0;
      Check(shared_.playback->GetOutputLevel(0, &left));
      Check(shared_.playback->GetOutputLevel(1, &right));
      Sleep(static_cast<DWORD>(Draw(5)));
    }
    // Otherwise the last release stops it.
    if (Sometimes()) Check(document->StopPlay());
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

  static const std::vector<void (Host::*)()> kSteps;

  std::mt19937 random_;
  const Shared& shared_;
  const std::wstring target_;
};

const std::vector<void (Host::*)()> Host::kSteps = {
    &Host::EditAndRead, &Host::Import, &Host::Export,    &Host::Connect,
    &Host::Play,        &Host::Scrub,  &Host::UseShared, &Host::ReleaseInTheMiddleOfARead,
};

// An apartment with the module's classes, so that what creates others finds them.
class Apartment {
 public:
  explicit Apartment(const std::vector<Class>& classes) {
    Check(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    for (const Class& known : classes) {
      ComPtr<IUnknown> factory;
      DWORD cookie = 0;
      Check(ModuleUnderTest::GetClassObject(known.clsid, IID_IClassFactory,
                                            reinterpret_cast<void**>(factory.GetAddressOf())));
      Check(CoRegisterClassObject(known.clsid, factory.Get(), CLSCTX_INPROC_SERVER,
                                  REGCLS_MULTIPLEUSE, &cookie));
      cookies_.push_back(cookie);
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

TEST(ConcurrentHosts, DoNotDisturbEachOther) {
  const char* const named = std::getenv("TESSALY_CONCURRENT_STEPS");
  const int steps = named != nullptr ? std::atoi(named) : 40;
  const TemporaryFolder folder;
  const std::vector<Class> classes = ClassesOfTheModule();
  Shared shared = MakeShared(folder.path());
  const ULONG before[] = {ReferenceCount(shared.document.Get()),
                          ReferenceCount(shared.playback.Get())};
  Check(shared.endless_export->Start());
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      try {
        const Apartment apartment(classes);
        Host host(number, shared, folder.path());
        for (int step = 0; step < steps; ++step) host.Step();
      } catch (const HResultError& error) {
        ADD_FAILURE() << "a proper call gave 0x" << std::hex << error.code();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared.endless_export->Cancel(), S_OK);
  EXPECT_EQ(ReferenceCount(shared.document.Get()), before[0]);
  EXPECT_EQ(ReferenceCount(shared.playback.Get()), before[1]);
}

}  // namespace
}  // namespace marlinda::testing
