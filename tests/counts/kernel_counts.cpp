// Runs each kernel on fixed input, and has callgrind write down how many instructions it took.
// Meant to be run by scripts/count-instructions.
#include <valgrind/callgrind.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/samples/cpu_level.h"
#include "core/samples/sample_converter.h"
#include "pool/dither.h"
#include "pool/peak_builder.h"

namespace marlinda {
namespace {

constexpr std::size_t kSamples = 16'384;
constexpr int kChannels = 2;

template <class Run>
void Count(const std::string& name, Run run) {
  CALLGRIND_ZERO_STATS;
  run();
  CALLGRIND_DUMP_STATS_AT(name.c_str());
}

std::vector<float> Noise() {
  std::vector<float> samples(kSamples);
  std::uint32_t state = 1;
  for (float& sample : samples) {
    state = state * 1664525U + 1013904223U;
    sample = static_cast<float>(static_cast<std::int32_t>(state)) * 0x1p-31F;
  }
  return samples;
}

void CountAll(const std::string& level) {
  const std::vector<float> noise = Noise();
  std::vector<float> floats(kSamples);
  std::vector<std::byte> pcm(kSamples * 4);
  std::vector<PeakRecord> peaks;
  // Makes room before it counts.
  BuildPeaks(noise, kChannels, peaks);
  for (const int bits : {8, 16, 24, 32}) {
    const std::string width = std::to_string(bits) + "-bit-" + level;
    Count("encode-" + width, [&] { ConvertFloatToPcm(noise, pcm, bits); });
    Count("decode-" + width, [&] { ConvertPcmToFloat(pcm, floats, bits); });
  }
  Count("peaks-" + level, [&] { BuildPeaks(noise, kChannels, peaks); });
  DitherState dither;
  dither.SetUp(DitherState::kNoiseShaping, kChannels, 16);
  floats = noise;
  Count("dither-" + level, [&] { dither.Process(floats, nullptr); });
}

}  // namespace
}  // namespace marlinda

int main() {
  using marlinda::CpuLevel;
  const std::array<const char*, 3> names = {"scalar", "sse2", "avx2"};
  for (const CpuLevel level : {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2}) {
    const char* const name = names[static_cast<std::size_t>(level)];
    marlinda::LimitCpuLevel(level);
    if (marlinda::CurrentCpuLevel() != level) {
      std::fprintf(stderr, "this processor does not reach %s\n", name);
      return 1;
    }
    marlinda::CountAll(name);
  }
  return 0;
}
