#include "pool/peak_builder.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <limits>

namespace marlinda {
namespace {

constexpr PeakRecord kStart = {std::numeric_limits<float>::max(),
                               -std::numeric_limits<float>::max()};

void Include(PeakRecord& peak, float sample) noexcept {
  peak.minimum = sample < peak.minimum ? sample : peak.minimum;
  peak.maximum = sample > peak.maximum ? sample : peak.maximum;
}

// The peaks of one group. With the channel count known at compile time the records stay in
// registers.
template <std::size_t kChannels>
void BuildGroup(std::span<const float> group, PeakRecord* out) noexcept {
  PeakRecord peaks[kChannels];
  std::ranges::fill(peaks, kStart);
  for (std::size_t i = 0; i < group.size(); i += kChannels) {
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      Include(peaks[channel], group[i + channel]);
    }
  }
  std::ranges::copy(peaks, out);
}

void BuildGroup(std::span<const float> group, std::size_t channels, PeakRecord* out) noexcept {
  if (channels == 1) return BuildGroup<1>(group, out);
  if (channels == 2) return BuildGroup<2>(group, out);
  std::fill_n(out, channels, kStart);
  for (std::size_t i = 0; i < group.size(); i += channels) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      Include(out[channel], group[i + channel]);
    }
  }
}

}  // namespace

void BuildPeaks(std::span<const float> samples, int channels, std::vector<PeakRecord>& peaks) {
  assert(channels >= 1);
  const auto width = static_cast<std::size_t>(channels);
  const std::size_t frames = samples.size() / width;
  peaks.clear();
  if (frames == 0) return;
  const std::size_t groups = frames / kFramesPerPeak + 1;
  peaks.resize(groups * width);
  for (std::size_t group = 0; group < groups; ++group) {
    const std::size_t begin = std::min(group * kFramesPerPeak, frames - 1);
    const std::size_t end = std::min((group + 1) * kFramesPerPeak, frames);
    BuildGroup(samples.subspan(begin * width, (end - begin) * width), width, &peaks[group * width]);
  }
}

}  // namespace marlinda
