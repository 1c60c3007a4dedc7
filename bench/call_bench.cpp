// Compares calls with the least work they need. A small read must fill an array. The start of an
// export task or of scrubbing must create a thread. The thread's work is not timed.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "core/handle.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

template <class Call>
void Time(benchmark::State& state, Call&& call) {
  const auto begin = std::chrono::steady_clock::now();
  call();
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  state.SetIterationTime(taken.count());
}

ComPtr<IAudioReader> Silence() {
  const auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(1'000, 44'100, 2));
  return As<IAudioReader>(silence);
}

constexpr std::size_t kSmallBlock = 64 * 2;

void ReadSilenceThroughCom(benchmark::State& state) {
  const auto source = Silence();
  const Floats block(kSmallBlock);
  for (auto _ : state) benchmark::DoNotOptimize(source->ReadAudio(0, block));
}
BENCHMARK(ReadSilenceThroughCom);

void FillSilence(benchmark::State& state) {
  std::vector<float> block(kSmallBlock);
  for (auto _ : state) {
    std::ranges::fill(block, 0.0F);
    benchmark::DoNotOptimize(block.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(FillSilence);

DWORD WINAPI Nothing(void*) { return 0; }

// The scrubber's Stop takes this many milliseconds, and caches go cold meanwhile. The bare thread
// therefore starts after the same pause.
constexpr DWORD kScrubPause = 100;

void BareThread(benchmark::State& state, DWORD pause) {
  for (auto _ : state) {
    if (pause > 0) Sleep(pause);
    KernelHandle thread;
    Time(state, [&] { thread.Reset(CreateThread(nullptr, 0, Nothing, nullptr, 0, nullptr)); });
    WaitForSingleObject(thread.get(), INFINITE);
  }
}

void ExportTask(benchmark::State& state) {
  const TemporaryFolder folder;
  const auto source = Silence();
  for (auto _ : state) {
    const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    const auto task = As<ICoreTask>(filter);
    Check(filter->Initialize(Bstr(folder.File(L"out.wav")), source.Get()));
    Time(state, [&] { Check(task->Start()); });
    for (VARIANT_BOOL running = VARIANT_TRUE; running != VARIANT_FALSE; Sleep(0)) {
      Check(task->QueryIsTaskRunning(&running));
    }
  }
}

void Scrubbing(benchmark::State& state) {
  const auto writer = MakeObject<RecordingWriter>();
  writer->keep_samples = false;
  writer->on_write = [](SAFEARRAY*) { Sleep(1); };
  const auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
  for (auto _ : state) {
    Time(state, [&] { Check(scrubber->Start(writer.Get(), 4'410, 44'100, 2)); });
    Check(scrubber->Stop());
  }
}

BENCHMARK_CAPTURE(BareThread, AtOnce, DWORD{0})
    ->UseManualTime()
    ->Iterations(200)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BareThread, AfterPause, kScrubPause)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(ExportTask)->UseManualTime()->Iterations(200)->Unit(benchmark::kMicrosecond);
BENCHMARK(Scrubbing)->UseManualTime()->Iterations(20)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace marlinda::testing
