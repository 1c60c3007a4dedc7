// What the segment list costs by the number of segments: a read near the end, an append, an
// insertion in the middle. The read copies what it finds, as a document does.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "edit/segment_list.h"

namespace marlinda {
namespace {

constexpr std::int64_t kSegmentFrames = 10'000;
constexpr std::size_t kReadFrames = 4'096;
constexpr std::size_t kChannels = 2;

using Samples = std::shared_ptr<const std::vector<float>>;
using List = SegmentList<Samples>;

Samples MakeSamples() {
  return std::make_shared<const std::vector<float>>(2 * kSegmentFrames * kChannels, 0.25F);
}

List MakeList(std::int64_t segments, const Samples& samples) {
  List list;
  for (std::int64_t i = 0; i < segments; ++i) list.Append({samples, 0, kSegmentFrames});
  return list;
}

void ReadNearTheEnd(benchmark::State& state) {
  const List list = MakeList(state.range(0), MakeSamples());
  const std::int64_t position = list.Length() - kSegmentFrames / 2;
  std::vector<float> block(kReadFrames * kChannels);
  for (auto _ : state) {
    auto target = block.begin();
    list.ForEachPiece({position, position + std::int64_t{kReadFrames}}, [&](const Samples& source,
                                                                            const CSection& piece) {
      const auto first = source->begin() + piece.begin * std::int64_t{kChannels};
      target = std::copy(first, first + piece.Length() * std::int64_t{kChannels}, target);
    });
    benchmark::DoNotOptimize(block.data());
  }
}
BENCHMARK(ReadNearTheEnd)->Arg(1)->Arg(1'000)->Arg(100'000)->Arg(1'000'000);

void Append(benchmark::State& state) {
  const Samples samples = MakeSamples();
  for (auto _ : state) {
    const List list = MakeList(state.range(0), samples);
    benchmark::DoNotOptimize(list.Count());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Append)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

void InsertInTheMiddle(benchmark::State& state) {
  const Samples samples = MakeSamples();
  List list = MakeList(state.range(0), samples);
  std::int64_t inserted = 0;
  for (auto _ : state) {
    std::vector<List::Segment> one;
    one.reserve(2);
    one.emplace_back(samples, 0, kSegmentFrames);
    Samples divided = samples;
    list.Insert(list.Length() / 2 + 1, one, divided);
    if (++inserted < state.range(0) / 10) continue;
    state.PauseTiming();
    list = MakeList(state.range(0), samples);
    inserted = 0;
    state.ResumeTiming();
  }
}
BENCHMARK(InsertInTheMiddle)->Arg(1'000)->Arg(100'000)->Arg(1'000'000);

}  // namespace
}  // namespace marlinda

BENCHMARK_MAIN();
