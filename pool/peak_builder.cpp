#include "pool/peak_builder.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

#include "core/samples/cpu_level.h"
#include "core/samples/extremes.h"
#include "pool/peak_group.h"

namespace marlinda {

void BuildPeaks(std::span<const float> samples, int channels, std::vector<float>& peaks) {
  assert(channels >= 1);
  constexpr std::size_t kGroup = kFramesPerPeak;
  const auto width = static_cast<std::size_t>(channels);
  const std::size_t frames = samples.size() / width;
  peaks.clear();
  if (frames == 0) return;
  peaks.resize((frames / kGroup + 1) * 2 * width);
  std::span<float> pairs(peaks);
  const bool avx2 = CurrentCpuLevel() == CpuLevel::kAvx2 && 8 % width == 0;
  for (std::size_t group = 0; !pairs.empty(); ++group, pairs = pairs.subspan(2 * width)) {
    const std::size_t first = std::min(group * kGroup, frames - 1);
    const std::size_t count = std::min(frames - first, kGroup);
    const auto own = samples.subspan(first * width, count * width);
    if (avx2 && count == kGroup && Avx2PeakGroup(own.data(), own.size(), width, pairs.data())) {
      continue;
    }
    for (std::size_t channel = 0; channel < width; ++channel) {
      pairs[2 * channel] = kLargestSample;
      pairs[2 * channel + 1] = -kLargestSample;
    }
    ExtendBySamples(pairs.first(2 * width), own);
  }
}

}  // namespace marlinda
