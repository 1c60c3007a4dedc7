// The sample kernels, beside a plain copy of the same floats: items per second are samples.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "core/sample_converter.h"
#include "pool/dither.h"
#include "pool/peak_builder.h"

namespace marlinda {
namespace {

// A block that stays in the cache, as an import or a playback has it, and one that does not.
constexpr std::int64_t kInCache = 8192;
constexpr std::int64_t kOutOfCache = std::int64_t{1} << 24;

std::vector<float> Noise(std::int64_t count) {
  std::minstd_rand random(1);
  std::uniform_real_distribution<float> level(-1.0F, 1.0F);
  std::vector<float> samples(static_cast<std::size_t>(count));
  for (float& sample : samples) sample = level(random);
  return samples;
}

void CountSamples(benchmark::State& state, std::size_t samples) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(samples));
}

void CopyFloats(benchmark::State& state) {
  const std::vector<float> source = Noise(state.range(0));
  std::vector<float> target(source.size());
  for (auto _ : state) {
    std::memcpy(target.data(), source.data(), source.size() * sizeof(float));
    benchmark::ClobberMemory();
  }
  CountSamples(state, source.size());
}
BENCHMARK(CopyFloats)->ArgName("samples")->Arg(kInCache)->Arg(kOutOfCache);

void FloatToPcm(benchmark::State& state) {
  const int bits = static_cast<int>(state.range(0));
  const std::vector<float> source = Noise(state.range(1));
  std::vector<std::byte> target(source.size() * PcmBytesPerSample(bits));
  for (auto _ : state) {
    ConvertFloatToPcm(source, target, bits);
    benchmark::ClobberMemory();
  }
  CountSamples(state, source.size());
}
BENCHMARK(FloatToPcm)
    ->ArgNames({"bits", "samples"})
    ->ArgsProduct({{8, 16, 24, 32}, {kInCache, kOutOfCache}});

void PcmToFloat(benchmark::State& state) {
  const int bits = static_cast<int>(state.range(0));
  std::vector<float> target = Noise(state.range(1));
  std::vector<std::byte> source(target.size() * PcmBytesPerSample(bits));
  ConvertFloatToPcm(target, source, bits);
  for (auto _ : state) {
    ConvertPcmToFloat(source, target, bits);
    benchmark::ClobberMemory();
  }
  CountSamples(state, target.size());
}
BENCHMARK(PcmToFloat)
    ->ArgNames({"bits", "samples"})
    ->ArgsProduct({{8, 16, 24, 32}, {kInCache, kOutOfCache}});

void Peaks(benchmark::State& state) {
  const int channels = static_cast<int>(state.range(0));
  const std::vector<float> samples = Noise(state.range(1));
  std::vector<PeakRecord> peaks;
  for (auto _ : state) {
    BuildPeaks(samples, channels, peaks);
    benchmark::ClobberMemory();
  }
  CountSamples(state, samples.size());
}
BENCHMARK(Peaks)
    ->ArgNames({"channels", "samples"})
    ->ArgsProduct({{1, 2, 6}, {kInCache, kOutOfCache}});

// Mode 1 is noise shaping alone, 2 with triangular noise. In near silence the filter decays towards
// the denormals, which must not make it slower.
void Dither(benchmark::State& state) {
  std::vector<float> source = Noise(kInCache);
  if (state.range(1) != 0) {
    std::ranges::fill(source, 0.0F);
    source[0] = 1e-5F;
  }
  std::vector<float> samples = source;
  DitherState dither;
  dither.SetUp(static_cast<int>(state.range(0)), 2, 16);
  for (auto _ : state) {
    samples = source;
    dither.Process(samples, std::rand);
    benchmark::ClobberMemory();
  }
  CountSamples(state, samples.size());
}
BENCHMARK(Dither)->ArgNames({"mode", "silence"})->ArgsProduct({{1, 2}, {0, 1}});

}  // namespace
}  // namespace marlinda

BENCHMARK_MAIN();
