// Drawing the overview of one hour and of ten hours of stereo at 1,920 columns from peaks that lie
// in memory, beside a flat scan of the same peaks, and the close view from samples.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "edit/waveplot.h"

namespace marlinda {
namespace {

constexpr std::size_t kChannels = 2;
constexpr std::int64_t kColumns = 1'920;
constexpr std::int64_t kFramesPerHour = std::int64_t{3'600} * 44'100;

std::vector<float> Noise(std::size_t count) {
  std::minstd_rand random(5);
  std::uniform_real_distribution<float> noise(-1.0F, 1.0F);
  std::vector<float> samples(count);
  for (float& sample : samples) sample = noise(random);
  return samples;
}

std::vector<float> PeaksOf(std::int64_t hours) {
  return Noise(static_cast<std::size_t>(hours * kFramesPerHour / 256) * 2 * kChannels);
}

void DrawFromPeaks(benchmark::State& state) {
  const std::vector<float> peaks = PeaksOf(state.range(0));
  std::vector<float> pairs(kColumns * 2 * kChannels);
  for (auto _ : state) {
    DrawPeaks(pairs, kChannels, kColumns, static_cast<std::int64_t>(peaks.size() / (2 * kChannels)),
              0, peaks);
    benchmark::DoNotOptimize(pairs.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(peaks.size() * sizeof(float)));
}
BENCHMARK(DrawFromPeaks)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond);

void ScanPeaksFlat(benchmark::State& state) {
  const std::vector<float> peaks = PeaksOf(state.range(0));
  for (auto _ : state) {
    float lowest[kChannels] = {};
    float highest[kChannels] = {};
    for (std::size_t i = 0; i < peaks.size(); i += 2 * kChannels) {
      for (std::size_t channel = 0; channel < kChannels; ++channel) {
        lowest[channel] = std::min(lowest[channel], peaks[i + 2 * channel]);
        highest[channel] = std::max(highest[channel], peaks[i + 2 * channel + 1]);
      }
    }
    benchmark::DoNotOptimize(lowest);
    benchmark::DoNotOptimize(highest);
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(peaks.size() * sizeof(float)));
}
BENCHMARK(ScanPeaksFlat)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond);

void DrawFromSamples(benchmark::State& state) {
  const auto frames = state.range(0) * kColumns;
  const std::vector<float> samples = Noise(static_cast<std::size_t>(frames) * kChannels);
  std::vector<float> pairs(kColumns * 2 * kChannels);
  for (auto _ : state) {
    DrawSamples(pairs, kChannels, kColumns, frames, 0, samples);
    benchmark::DoNotOptimize(pairs.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(samples.size() * sizeof(float)));
}
BENCHMARK(DrawFromSamples)->Arg(10)->Arg(255)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace marlinda

BENCHMARK_MAIN();
