// Noise, block sizes and counters that the benchmarks share.
#pragma once

#include <benchmark/benchmark.h>
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT
#endif

#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace marlinda::bench {

constexpr std::size_t kStereo = 2;
// The block size of exports.
constexpr std::size_t kBlockFrames = 65'536;
constexpr std::size_t kBlockSamples = kBlockFrames * kStereo;

inline void FillWithNoise(std::span<float> samples) {
  std::minstd_rand random(1);
  std::uniform_real_distribution<float> level(-1.0F, 1.0F);
  for (float& sample : samples) sample = level(random);
}

inline std::vector<float> Noise(std::size_t count) {
  std::vector<float> samples(count);
  FillWithNoise(samples);
  return samples;
}

inline void CountSamples(benchmark::State& state, std::size_t samples) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(samples));
}

// Counts the instructions of one iteration when scripts/lib/count-instructions runs the program.
class CountInstructions {
 public:
  CountInstructions() { CALLGRIND_TOGGLE_COLLECT; }
  CountInstructions(const CountInstructions&) = delete;
  CountInstructions& operator=(const CountInstructions&) = delete;
  ~CountInstructions() { CALLGRIND_TOGGLE_COLLECT; }
};

inline void CountBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

}  // namespace marlinda::bench
