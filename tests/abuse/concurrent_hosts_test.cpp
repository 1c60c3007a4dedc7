// Eight threads, each a host of its own, edit, import, export, scrub and play at random, release
// objects while their threads run, and call the objects that may be shared. Nothing crashes and
// every shared object gets all its references back. TESSALY_CONCURRENT_STEPS sets the length.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "core/apartment.h"
#include "tests/abuse/parts.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

// What all threads call, while nobody edits it.
struct Shared {
  ComPtr<IEditedAudio> document = Create<IEditedAudio>(CLSID_CEditedAudio);
  ComPtr<IAudioPlayback> playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  ComPtr<IExportFilter> endless_export = Create<IExportFilter>(CLSID_CWavExportFilter);
};

class Host {
 public:
  Host(int number, const Shared& shared, const TemporaryFolder& folder)
      : random_(static_cast<unsigned>(1000 + number)),
        shared_(shared),
        target_(folder.File(L"target" + std::to_wstring(number) + L".wav")) {}

  void Step() {
    constexpr void (Host::*kSteps[])() = {&Host::Import, &Host::Export, &Host::EditAndPlay,
                                          &Host::Scrub, &Host::UseShared};
    (this->*kSteps[Draw(std::size(kSteps))])();
  }

 private:
  int Draw(std::size_t below) { return static_cast<int>(random_() % below); }

  // To its end, cancelled, or with its last reference gone in the middle.
  void Run(ComPtr<ICoreTask> task) {
    Check(task->Start());
    const int end = Draw(3);
    if (end == 0) WaitForTask(task.Get());
    if (end == 1) Check(task->Cancel());
  }

  void Import() {
    auto filter = Create<IImportFilter>(CLSID_COggImport);
    const auto writer = As<IAudioWriter>(Create<IAudioPool>(CLSID_CAudioPool));
    Check(filter->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()));
    Run(As<ICoreTask>(std::exchange(filter, {})));
  }

  void Export() {
    auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    Check(filter->Initialize(Bstr(target_), As<IAudioReader>(shared_.document).Get()));
    Run(As<ICoreTask>(std::exchange(filter, {})));
  }

  void Scrub() {
    const auto writer = MakeObject<RecordingWriter>();
    writer->keep_samples = false;
    writer->on_write = [](SAFEARRAY*) { Sleep(1); };
    const auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
    Check(scrubber->Start(writer.Get(), 100, 44100, 2));
    Check(scrubber->WriteBlock(Floats(200, 0.375F)));
    if (Draw(2) == 0) Check(scrubber->Stop());
  }

  void EditAndPlay() {
    const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
    const auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
    ComPtr<IAudioReader> take;
    WriteTake(As<IAudioWriter>(pool).Get(), Samples(4096, 0.375F));
    Check(pool->CreateLastReader(take.GetAddressOf()));
    for (int i = 0; i < 20; ++i) {
      Check(document->InitChange(1, nullptr));
      Check(document->InsertSegment(Draw(3000), take.Get(), i, i + 1 + Draw(400)));
      if (Draw(3) == 0) Check(document->Delete(Draw(100), 100 + Draw(100)));
      Check(document->CommitChange());
    }
    Check(document->Play(0, 2048, 3, VARIANT_TRUE));
    for (int i = Draw(20); i > 0; --i) {
      Check(document->ModifyPlaySection(Draw(100), 1000 + Draw(1000)));
      Sleep(static_cast<DWORD>(Draw(5)));
    }
    // Otherwise the last release stops it.
    if (Draw(2) == 0) Check(document->StopPlay());
  }

  void UseShared() {
    for (int i = 0; i < 200; ++i) {
      const Floats block(256);
      LONG count = 0;
      __int64 position = 0;
      float progress = -1;
      Check(As<IAudioReader>(shared_.document)->ReadAudio(Draw(4000), block));
      Check(shared_.document->ReadWaveplot(Draw(500), 600 + Draw(3000), block));
      Check(As<ILabelSupport>(shared_.document)->GetLabelCount(&count));
      Check(shared_.playback->SetPosOffset(Draw(1000)));
      Check(shared_.playback->GetPlaybackPos(&position));
      Check(shared_.playback->Break());
      Check(As<ICoreTask>(shared_.endless_export)->GetProgress(&progress));
    }
  }

  std::mt19937 random_;
  const Shared& shared_;
  const std::wstring target_;
};

TEST(ConcurrentHosts, DoNotDisturbEachOther) {
  const char* const named = std::getenv("TESSALY_CONCURRENT_STEPS");
  const int steps = named != nullptr ? std::atoi(named) : 40;
  const TemporaryFolder folder;
  const Shared shared;
  for (int i = 0; i < 100; ++i) {
    Check(shared.document->AppendSegment(Silence(5000).Get(), i, i + 40));
  }
  const Bstr target(folder.File(L"shared.wav"));
  Check(shared.endless_export->Initialize(target, Silence(1LL << 24).Get()));
  Check(As<ICoreTask>(shared.endless_export)->Start());
  {
    std::vector<std::jthread> threads;
    for (int number = 0; number < 8; ++number) {
      threads.emplace_back([&, number] {
        const Apartment apartment(COINIT_APARTMENTTHREADED);
        const Registration registration;
        try {
          Host host(number, shared, folder);
          for (int step = 0; step < steps; ++step) host.Step();
        } catch (const HResultError& error) {
          ADD_FAILURE() << "a proper call gave 0x" << std::hex << error.code();
        }
      });
    }
  }
  EXPECT_EQ(As<ICoreTask>(shared.endless_export)->Cancel(), S_OK);
  EXPECT_EQ(ReferenceCount(shared.document.Get()), 1U);
  EXPECT_EQ(ReferenceCount(shared.playback.Get()), 1U);
}

}  // namespace
}  // namespace marlinda::testing
