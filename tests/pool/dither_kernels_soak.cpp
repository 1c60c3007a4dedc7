// Holds the vector forms of noise shaping against the definition for every float as a sample, at
// four widths and with errors of both signs behind it. The status is 0 if no bit
// differs.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "core/samples/cpu_level.h"
#include "pool/dither_kernels.h"

namespace {

using marlinda::ShapingErrors;
using marlinda::ShapingKernel;

constexpr std::size_t kChannels = marlinda::kMostShapedChannels;

long Differences(ShapingKernel kernel, int bits) {
  const double half_range = std::ldexp(1.0, bits - 1);
  const double scale = half_range - 1.0;
  const marlinda::ShapingSteps steps = {scale, -half_range, -half_range / scale, 1.0 / scale};
  const auto error = static_cast<float>(0.3 / scale);
  const ShapingErrors start[kChannels] = {{}, {error, 0, 0}, {-error, error, 0}, {}, {}, {}, {},
                                          {}};
  long differences = 0;
  for (std::uint64_t next = 0; next < std::uint64_t{1} << 32; next += kChannels) {
    float expected[kChannels];
    for (std::size_t i = 0; i < kChannels; ++i) {
      expected[i] = std::bit_cast<float>(static_cast<std::uint32_t>(next + i));
    }
    // The definition serves all that is not below 4.0.
    if (!(std::fabs(expected[0]) < 4.0F)) continue;
    float actual[kChannels];
    std::memcpy(actual, expected, sizeof actual);
    ShapingErrors expected_errors[kChannels];
    ShapingErrors actual_errors[kChannels];
    std::memcpy(expected_errors, start, sizeof start);
    std::memcpy(actual_errors, start, sizeof start);
    marlinda::ScalarShape(steps, expected_errors, expected, 1, kChannels);
    kernel(steps, actual_errors, actual, 1, kChannels);
    for (std::size_t i = 0; i < kChannels; ++i) {
      // The sign of an error of 0 is not seen in any sample.
      if (std::bit_cast<std::uint32_t>(expected[i]) != std::bit_cast<std::uint32_t>(actual[i]) ||
          expected_errors[i].newest != actual_errors[i].newest) {
        if (differences++ == 0)
          std::printf("at 0x%08llX\n", static_cast<unsigned long long>(next + i));
      }
    }
  }
  return differences;
}

}  // namespace

int main() {
  long all = 0;
  const auto run = [&](const char* name, ShapingKernel kernel) {
    for (const int bits : {8, 16, 20, 24}) {
      const long differences = Differences(kernel, bits);
      std::printf("%s, %d bits: %ld differences\n", name, bits, differences);
      std::fflush(stdout);
      all += differences;
    }
  };
  if (marlinda::HighestCpuLevel() >= marlinda::CpuLevel::kSse2) run("SSE2", marlinda::Sse2Shape);
  if (marlinda::HighestCpuLevel() >= marlinda::CpuLevel::kAvx2) run("AVX2", marlinda::Avx2Shape);
  return all == 0 ? 0 : 1;
}
