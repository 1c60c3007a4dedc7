// Measures the recorder's float queue with pieces of 1,024 samples at different fill levels.
// TwoCopies measures the minimum work: it copies each piece into and out of memory as large as the
// fill level.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "core/samples/audio_queue.h"

namespace marlinda {
namespace {

constexpr std::size_t kPiece = 1'024;

void CountSamples(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPiece));
}

void ThroughTheQueue(benchmark::State& state) {
  std::vector<float> in(kPiece, 0.25F);
  std::vector<float> out(kPiece);
  CAudioQueue queue;
  queue.Append(std::vector<float>(static_cast<std::size_t>(state.range(0)), 0.5F));
  for (auto _ : state) {
    queue.Append(in);
    queue.Read(out);
    benchmark::ClobberMemory();
  }
  CountSamples(state);
}

void TwoCopies(benchmark::State& state) {
  std::vector<float> in(kPiece, 0.25F);
  std::vector<float> out(kPiece);
  const std::size_t held = static_cast<std::size_t>(state.range(0)) / kPiece * kPiece;
  std::vector<float> between(held + kPiece);
  std::size_t write = held;
  std::size_t read = 0;
  const auto step = [&](std::size_t& at) { at = at + kPiece < between.size() ? at + kPiece : 0; };
  for (auto _ : state) {
    std::memcpy(between.data() + write, in.data(), kPiece * sizeof(float));
    benchmark::ClobberMemory();
    std::memcpy(out.data(), between.data() + read, kPiece * sizeof(float));
    benchmark::ClobberMemory();
    step(write);
    step(read);
  }
  CountSamples(state);
}

BENCHMARK(ThroughTheQueue)->ArgName("held")->Arg(0)->Arg(100'000);
BENCHMARK(TwoCopies)->ArgName("held")->Arg(0)->Arg(100'000);

}  // namespace
}  // namespace marlinda

BENCHMARK_MAIN();
