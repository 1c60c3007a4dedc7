#include "pool/peak_builder.h"

#include <cassert>
#include <cstddef>

#include "core/samples/cpu_level.h"
#include "pool/peak_kernels.h"

namespace marlinda {
namespace {

PeakKernel KernelFor(std::size_t channels) noexcept {
  if (channels > kMostPeakKernelChannels) return ScalarPeaks;
  switch (CurrentCpuLevel()) {
    case CpuLevel::kAvx2:
      return Avx2Peaks;
    case CpuLevel::kSse2:
      return Sse2Peaks;
    default:
      return ScalarPeaks;
  }
}

}  // namespace

void BuildPeaks(std::span<const float> samples, int channels, std::vector<PeakRecord>& peaks) {
  assert(channels >= 1);
  const auto width = static_cast<std::size_t>(channels);
  const std::size_t frames = samples.size() / width;
  if (frames == 0) return peaks.clear();
  const std::size_t whole_groups = frames / kFramesPerPeak;
  peaks.resize((whole_groups + 1) * width);
  KernelFor(width)(samples.data(), whole_groups, width, peaks.data());
  const std::size_t left = frames % kFramesPerPeak;
  const std::size_t last = left > 0 ? left : 1;
  ScalarGroupPeaks(samples.data() + (frames - last) * width, last, width,
                   peaks.data() + whole_groups * width);
}

}  // namespace marlinda
