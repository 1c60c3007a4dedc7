// Eight threads act as hosts. They edit, play, import and export at random, release objects while
// their worker threads run, and call shared objects. TESSALY_CONCURRENT_STEPS sets the number of
// steps of each thread.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "core/apartment.h"
#include "tests/abuse/parts.h"

namespace marlinda::testing {
namespace {

// Objects that all threads call and no thread edits.
struct Shared {
  ComPtr<IEditedAudio> document = Create<IEditedAudio>(CLSID_CEditedAudio);
  ComPtr<IAudioPlayback> playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
};

void UseShared(const Shared& shared, const std::function<int(int)>& draw) {
  const Floats block(256);
  __int64 position = 0;
  Check(As<IAudioReader>(shared.document)->ReadAudio(draw(4000), block));
  Check(shared.document->ReadWaveplot(draw(500), 600 + draw(3000), block));
  Check(shared.playback->SetPosOffset(draw(1000)));
  Check(shared.playback->GetPlaybackPos(&position));
}

void EditAndPlay(const std::function<int(int)>& draw) {
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
  ComPtr<IAudioReader> take;
  WriteTake(As<IAudioWriter>(pool).Get(), Samples(4096, 0.375F));
  Check(pool->CreateLastReader(take.GetAddressOf()));
  Check(document->InitChange(1, nullptr));
  for (int i = 0; i < 20; ++i) {
    Check(document->InsertSegment(draw(3000), take.Get(), i, i + 1 + draw(400)));
    if (draw(3) == 0) Check(document->Delete(draw(100), 100 + draw(100)));
  }
  Check(document->CommitChange());
  Check(document->Play(0, 2048, 3, VARIANT_TRUE));
  for (int i = draw(20); i > 0; --i) {
    Check(document->ModifyPlaySection(draw(100), 1000 + draw(1000)));
  }
  // Without StopPlay, the document's last release stops the playback.
  if (draw(2) == 0) Check(document->StopPlay());
}

ComPtr<ICoreTask> MakeImport() {
  const auto filter = Create<IImportFilter>(CLSID_COggImport);
  const auto writer = As<IAudioWriter>(Create<IAudioPool>(CLSID_CAudioPool));
  Check(filter->Initialize(Bstr(TESSALY_SAMPLE_OGG), writer.Get()));
  return As<ICoreTask>(filter);
}

ComPtr<ICoreTask> MakeExport(IUnknown* source, const Bstr& target) {
  const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  Check(filter->Initialize(target, As<IAudioReader>(source).Get()));
  return As<ICoreTask>(filter);
}

void Host(unsigned number, int steps, const Shared& shared, const Bstr& target) {
  const Apartment apartment(COINIT_APARTMENTTHREADED);
  const Registration registration;
  std::mt19937 random(1000 + number);
  const auto draw = [&](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  for (int step = 0; step < steps; ++step) {
    const int kind = draw(4);
    if (kind == 0) EditAndPlay(draw);
    for (int i = 0; i < 200 && kind == 1; ++i) UseShared(shared, draw);
    if (kind < 2) continue;
    // Waits for the task, cancels it, or releases it while it runs.
    const auto task = kind == 2 ? MakeImport() : MakeExport(shared.document.Get(), target);
    Check(task->Start());
    const int end = draw(3);
    if (end == 0) WaitForTask(task.Get());
    if (end == 1) Check(task->Cancel());
  }
}

TEST(ConcurrentHosts, DoNotDisturbEachOther) {
  const char* const named = std::getenv("TESSALY_CONCURRENT_STEPS");
  const int steps = named != nullptr ? std::atoi(named) : 40;
  const TemporaryFolder folder;
  const Shared shared;
  for (int i = 0; i < 100; ++i) {
    Check(shared.document->AppendSegment(Silence(5000).Get(), i, i + 40));
  }
  {
    std::vector<std::jthread> threads;
    for (unsigned number = 0; number < 8; ++number) {
      threads.emplace_back([&, number] {
        try {
          Host(number, steps, shared, Bstr(folder.File(std::to_wstring(number) + L".wav")));
        } catch (const HResultError& error) {
          ADD_FAILURE() << "a proper call gave 0x" << std::hex << error.code();
        }
      });
    }
  }
  EXPECT_EQ(ReferenceCount(shared.document.Get()), 1U);
  EXPECT_EQ(ReferenceCount(shared.playback.Get()), 1U);
}

}  // namespace
}  // namespace marlinda::testing
