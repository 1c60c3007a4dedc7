// Measures a document's interfaces for different numbers of segments: reading, editing, opening a
// change (InitChange) and drawing the overview (ReadWaveplot).
#include <benchmark/benchmark.h>

#include <algorithm>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

constexpr __int64 kSegmentFrames = 10'000;
constexpr SHORT kChannels = 2;

struct Document {
  explicit Document(__int64 segments)
      : edit(Create<IEditedAudio>(CLSID_CEditedAudio)), reader(As<IAudioReader>(edit)) {
    auto silence = Create<INullReader>(CLSID_CNullReader);
    silence->Create(kSegmentFrames, 44100, kChannels);
    source = As<IAudioReader>(silence);
    for (__int64 i = 0; i < segments; ++i) edit->AppendSegment(source.Get(), 0, kSegmentFrames);
  }

  ComPtr<IEditedAudio> edit;
  ComPtr<IAudioReader> reader;
  ComPtr<IAudioReader> source;
};

// Measures the creation of a document and of the two device objects that a document creates. The
// Append benchmark also includes the creation of a document.
void CreateObject(benchmark::State& state, const CLSID& clsid) {
  for (auto _ : state) benchmark::DoNotOptimize(Create<IUnknown>(clsid).Get());
}
BENCHMARK_CAPTURE(CreateObject, Document, CLSID_CEditedAudio);
BENCHMARK_CAPTURE(CreateObject, Playback, CLSID_CAudioPlayback);
BENCHMARK_CAPTURE(CreateObject, Scrubber, CLSID_CAudioScrubber);

void ReadNearTheEnd(benchmark::State& state) {
  const Document document(state.range(0));
  const Floats block(4096 * kChannels);
  const __int64 position = state.range(0) * kSegmentFrames - kSegmentFrames / 2;
  for (auto _ : state) document.reader->ReadAudio(position, block);
}
BENCHMARK(ReadNearTheEnd)->Arg(1)->Arg(1'000)->Arg(100'000)->Arg(1'000'000);

void Append(benchmark::State& state) {
  for (auto _ : state) {
    const Document document(state.range(0));
    benchmark::DoNotOptimize(document.edit.Get());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Append)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

void InsertInTheMiddle(benchmark::State& state) {
  const Document document(state.range(0));
  const __int64 middle = state.range(0) * kSegmentFrames / 2 + 1;
  const auto limit = std::max<__int64>(100, state.range(0) / 10);
  __int64 inserted = 0;
  for (auto _ : state) {
    document.edit->InsertSegment(middle + inserted * 7, document.source.Get(), 0, 10);
    if (++inserted < limit) continue;
    state.PauseTiming();
    document.edit->Clear();
    for (__int64 i = 0; i < state.range(0); ++i) {
      document.edit->AppendSegment(document.source.Get(), 0, kSegmentFrames);
    }
    inserted = 0;
    state.ResumeTiming();
  }
}
BENCHMARK(InsertInTheMiddle)->Arg(1'000)->Arg(100'000);

void DeleteInTheMiddle(benchmark::State& state) {
  const Document document(state.range(0));
  auto labels = As<ILabelSupport>(document.edit);
  auto markers = As<ISectionMarkerSupport>(document.edit);
  for (__int64 i = 0; i < 1'000; ++i) {
    labels->AddLabel(i, Bstr(L"label"));
    markers->AddSectionMarker(i, i + 5, Bstr(L"marker"));
  }
  const __int64 middle = state.range(0) * kSegmentFrames / 2 + 1;
  for (auto _ : state) document.edit->Delete(middle, middle + 3);
}
BENCHMARK(DeleteInTheMiddle)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

void OpenAndCommitAChange(benchmark::State& state) {
  const Document document(state.range(0));
  for (auto _ : state) {
    document.edit->InitChange(1, nullptr);
    document.edit->CommitChange();
  }
}
BENCHMARK(OpenAndCommitAChange)->Arg(1)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

void DrawOverview(benchmark::State& state) {
  const Document document(state.range(0));
  const Floats pairs(1920 * 2 * kChannels);
  for (auto _ : state) document.edit->ReadWaveplot(0, state.range(0) * kSegmentFrames, pairs);
}
BENCHMARK(DrawOverview)->Arg(1)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

// A mono take of one or ten hours. Each length has its own pool, which is made once.
struct PoolTake {
  explicit PoolTake(__int64 hours) : pool(Create<IAudioPool>(CLSID_CAudioPool)) {
    auto writer = As<IAudioWriter>(pool);
    Check(pool->SetBitDepth(8, 0));
    Check(writer->SetFormat(44100, 1));
    Check(writer->OpenDevice());
    const Floats block(65'536, 0.5F);
    for (; frames < hours * 3'600 * 44'100; frames += 65'536) Check(writer->WriteAudio(block));
    Check(writer->CloseDevice());
  }
  static PoolTake& Of(__int64 hours) {
    static PoolTake one(1);
    static PoolTake ten(10);
    return hours == 1 ? one : ten;
  }
  ComPtr<IAudioReader> Reader() const {
    ComPtr<IAudioReader> take;
    Check(pool->CreateLastReader(take.GetAddressOf()));
    return take;
  }

  ComPtr<IAudioPool> pool;
  __int64 frames = 0;
};

// Repeated draws use the peaks that the first draw has stored in the reader's cache.
void DrawPoolTake(benchmark::State& state, bool repeated) {
  const PoolTake& take = PoolTake::Of(state.range(0));
  const auto edit = Create<IEditedAudio>(CLSID_CEditedAudio);
  const Floats pairs(1920 * 2);
  Check(edit->AppendSegment(take.Reader().Get(), 0, take.frames));
  Check(edit->ReadWaveplot(0, take.frames, pairs));
  for (auto _ : state) {
    if (!repeated) {
      Check(edit->Clear());
      Check(edit->AppendSegment(take.Reader().Get(), 0, take.frames));
    }
    Check(edit->ReadWaveplot(0, take.frames, pairs));
  }
}
BENCHMARK_CAPTURE(DrawPoolTake, Repeated, true)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(DrawPoolTake, First, false)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond);

// Reads all peaks of the take through its reader and compares each peak once.
void ScanPoolTakeFlat(benchmark::State& state) {
  const PoolTake& take = PoolTake::Of(state.range(0));
  const auto peaks = As<IPeakReader>(take.Reader());
  constexpr __int64 kBlockPeaks = 1 << 17;
  const Floats block(kBlockPeaks * 2);
  const __int64 count = take.frames / 256 / kBlockPeaks * kBlockPeaks;
  for (auto _ : state) {
    float lowest = 0.0F;
    float highest = 0.0F;
    for (__int64 at = 0; at < count; at += kBlockPeaks) {
      Check(peaks->ReadPeaks(at, block));
      for (std::size_t i = 0; i < block.values().size(); i += 2) {
        lowest = std::min(lowest, block[i]);
        highest = std::max(highest, block[i + 1]);
      }
    }
    benchmark::DoNotOptimize(lowest);
    benchmark::DoNotOptimize(highest);
  }
}
BENCHMARK(ScanPoolTakeFlat)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond);

// Draws 255 frames per column from samples. With more frames per column, the engine draws from
// peaks. ReadPoolSamples reads these samples without drawing them.
void DrawPoolSamples(benchmark::State& state) {
  const PoolTake& take = PoolTake::Of(1);
  const auto edit = Create<IEditedAudio>(CLSID_CEditedAudio);
  Check(edit->AppendSegment(take.Reader().Get(), 0, take.frames));
  const Floats pairs(1920 * 2);
  for (auto _ : state) Check(edit->ReadWaveplot(0, 1920 * state.range(0), pairs));
}
BENCHMARK(DrawPoolSamples)->Arg(255)->Unit(benchmark::kMicrosecond);

void ReadPoolSamples(benchmark::State& state) {
  const PoolTake& take = PoolTake::Of(1);
  const auto edit = Create<IEditedAudio>(CLSID_CEditedAudio);
  Check(edit->AppendSegment(take.Reader().Get(), 0, take.frames));
  const auto reader = As<IAudioReader>(edit);
  const Floats block(static_cast<std::size_t>(1920 * state.range(0)));
  for (auto _ : state) Check(reader->ReadAudio(0, block));
}
BENCHMARK(ReadPoolSamples)->Arg(255)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace marlinda::testing
