#include "pool/peak_builder.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <limits>

#include "core/samples/extremes.h"

namespace marlinda {

void BuildPeaks(std::span<const float> samples, int channels, std::vector<float>& peaks) {
  assert(channels >= 1);
  constexpr std::size_t kGroup = kFramesPerPeak;
  constexpr float kLargest = std::numeric_limits<float>::max();
  const auto width = static_cast<std::size_t>(channels);
  const std::size_t frames = samples.size() / width;
  peaks.clear();
  if (frames == 0) return;
  peaks.resize((frames / kGroup + 1) * 2 * width);
  std::span<float> pairs(peaks);
  for (std::size_t group = 0; !pairs.empty(); ++group, pairs = pairs.subspan(2 * width)) {
    for (std::size_t channel = 0; channel < width; ++channel) {
      pairs[2 * channel] = kLargest;
      pairs[2 * channel + 1] = -kLargest;
    }
    const std::size_t first = std::min(group * kGroup, frames - 1);
    const std::size_t count = std::min(frames - first, kGroup);
    ExtendBySamples(pairs.first(2 * width), samples.subspan(first * width, count * width));
  }
}

}  // namespace marlinda
