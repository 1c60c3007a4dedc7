// The sample kernels at each level of vector instructions: 0 is scalar, 1 is SSE2, 2 is AVX2.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/bench_support.h"
#include "converter/stream_converter.h"
#include "core/samples/cpu_level.h"
#include "core/samples/sample_converter.h"
#include "pool/dither.h"
#include "pool/peak_builder.h"

namespace marlinda {
namespace {

using namespace bench;

// Samples in a block that fits into the cache together with its result.
constexpr std::int64_t kInCache = 16'384;
const std::vector<std::int64_t> kLevels = {0, 1, 2};
const std::vector<std::int64_t> kWidths = {8, 16, 24, 32};

// Limits the level of vector instructions during one benchmark.
class Level {
 public:
  Level(benchmark::State& state, std::int64_t level) {
    LimitCpuLevel(static_cast<CpuLevel>(level));
    if (CurrentCpuLevel() != static_cast<CpuLevel>(level)) {
      state.SkipWithError("this processor has no such instructions");
    }
  }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;
  ~Level() { LimitCpuLevel(HighestCpuLevel()); }
};

void FloatToPcm(benchmark::State& state) {
  const int bits = static_cast<int>(state.range(0));
  const Level level(state, state.range(2));
  const std::vector<float> source = Noise(static_cast<std::size_t>(state.range(1)));
  std::vector<std::byte> target(source.size() * PcmBytesPerSample(bits));
  for (auto _ : state) {
    const CountInstructions counted;
    ConvertFloatToPcm(source, target, bits);
    benchmark::ClobberMemory();
  }
  CountSamples(state, source.size());
}
BENCHMARK(FloatToPcm)
    ->ArgNames({"bits", "samples", "level"})
    ->ArgsProduct({kWidths, {kInCache}, kLevels});

void PcmToFloat(benchmark::State& state) {
  const int bits = static_cast<int>(state.range(0));
  const Level level(state, state.range(2));
  std::vector<float> target = Noise(static_cast<std::size_t>(state.range(1)));
  std::vector<std::byte> source(target.size() * PcmBytesPerSample(bits));
  ConvertFloatToPcm(target, source, bits);
  for (auto _ : state) {
    const CountInstructions counted;
    ConvertPcmToFloat(source, target, bits);
    benchmark::ClobberMemory();
  }
  CountSamples(state, target.size());
}
BENCHMARK(PcmToFloat)
    ->ArgNames({"bits", "samples", "level"})
    ->ArgsProduct({kWidths, {kInCache}, kLevels});

void Peaks(benchmark::State& state) {
  const int channels = static_cast<int>(state.range(0));
  const std::vector<float> samples = Noise(static_cast<std::size_t>(state.range(1)));
  std::vector<float> peaks;
  for (auto _ : state) {
    const CountInstructions counted;
    BuildPeaks(samples, channels, peaks);
    benchmark::ClobberMemory();
  }
  CountSamples(state, samples.size());
}
BENCHMARK(Peaks)->ArgNames({"channels", "samples"})->ArgsProduct({{1, 2, 6}, {kInCache}});

// The scalar definition of peaks: compares stereo samples frame by frame.
void PeaksByDefinition(benchmark::State& state) {
  const std::vector<float> samples = Noise(kInCache);
  std::vector<float> pairs(4 * samples.size() / kFramesPerPeak);
  for (auto _ : state) {
    const CountInstructions counted;
    float* out = pairs.data();
    for (const float* at = samples.data(); at != samples.data() + samples.size();) {
      float low[2] = {at[0], at[1]};
      float high[2] = {at[0], at[1]};
      for (int frame = 0; frame < kFramesPerPeak; ++frame, at += 2) {
        for (int channel = 0; channel < 2; ++channel) {
          low[channel] = at[channel] < low[channel] ? at[channel] : low[channel];
          high[channel] = at[channel] > high[channel] ? at[channel] : high[channel];
        }
      }
      for (int channel = 0; channel < 2; ++channel) {
        *out++ = low[channel];
        *out++ = high[channel];
      }
    }
    benchmark::ClobberMemory();
  }
  CountSamples(state, samples.size());
}
BENCHMARK(PeaksByDefinition);

// Mode 1 is noise shaping alone, mode 2 adds triangular noise. In near silence the filter decays
// towards denormals, which must not slow down the filter.
void Dither(benchmark::State& state) {
  const Level level(state, state.range(2));
  std::vector<float> source = Noise(8192);
  if (state.range(1) != 0) {
    std::ranges::fill(source, 0.0F);
    source[0] = 1e-5F;
  }
  std::vector<float> samples = source;
  DitherState dither;
  dither.SetUp(static_cast<int>(state.range(0)), kStereo, 16);
  for (auto _ : state) {
    samples = source;
    const CountInstructions counted;
    dither.Process(samples, std::rand);
    benchmark::ClobberMemory();
  }
  CountSamples(state, samples.size());
}
BENCHMARK(Dither)
    ->ArgNames({"mode", "silence", "level"})
    ->ArgsProduct({{1}, {0, 1}, kLevels})
    ->ArgsProduct({{2}, {0}, {0, 2}});

// Ten seconds of stereo, in blocks of 1,024 frames.
void Resample(benchmark::State& state) {
  const Level level(state, state.range(0));
  const std::vector<float> source = Noise(10 * 44'100 * kStereo);
  std::vector<float> target;
  StreamConverter converter({44'100, kStereo}, {48'000, kStereo});
  for (auto _ : state) {
    for (std::span<const float> rest = source; !rest.empty();) {
      const std::size_t count = std::min<std::size_t>(rest.size(), 2'048);
      target.clear();
      converter.Convert(rest.first(count), target);
      rest = rest.subspan(count);
    }
  }
  CountSamples(state, source.size());
}
BENCHMARK(Resample)->ArgName("level")->ArgsProduct({kLevels})->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace marlinda

BENCHMARK_MAIN();
