// The peaks of a group as they are defined: frame by frame, with two comparisons.
#include "pool/peak_kernels.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace marlinda {
namespace {

constexpr PeakRecord kStart = {kLargestSample, -kLargestSample};

void Include(PeakRecord& peak, float sample) noexcept {
  peak.minimum = sample < peak.minimum ? sample : peak.minimum;
  peak.maximum = sample > peak.maximum ? sample : peak.maximum;
}

// With the channel count known at compile time the records stay in registers.
template <std::size_t kChannels>
void GroupPeaks(const float* samples, std::size_t frames, PeakRecord* out) noexcept {
  PeakRecord peaks[kChannels];
  std::ranges::fill(peaks, kStart);
  for (; frames > 0; --frames, samples += kChannels) {
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      Include(peaks[channel], samples[channel]);
    }
  }
  std::ranges::copy(peaks, out);
}

bool IsAllPositiveZero(const float* samples, std::size_t count) noexcept {
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < count; ++i) bits |= std::bit_cast<std::uint32_t>(samples[i]);
  return bits == 0;
}

}  // namespace

void ScalarGroupPeaks(const float* samples, std::size_t frames, std::size_t channels,
                      PeakRecord* peaks) noexcept {
  if (channels == 1) return GroupPeaks<1>(samples, frames, peaks);
  if (channels == 2) return GroupPeaks<2>(samples, frames, peaks);
  std::fill_n(peaks, channels, kStart);
  for (; frames > 0; --frames, samples += channels) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      Include(peaks[channel], samples[channel]);
    }
  }
}

void ScalarPeaks(const float* samples, std::size_t groups, std::size_t channels,
                 PeakRecord* peaks) noexcept {
  for (; groups > 0; --groups, samples += kFramesPerPeak * channels, peaks += channels) {
    ScalarGroupPeaks(samples, kFramesPerPeak, channels, peaks);
  }
}

void FoldPeakLanes(const PeakLanes& lanes, const float* group, std::size_t channels,
                   PeakRecord* peaks) noexcept {
  for (std::size_t channel = 0; channel < channels; ++channel) {
    PeakRecord peak = {lanes.lowest[channel], lanes.highest[channel]};
    for (std::size_t lane = channel + channels; lane < lanes.count; lane += channels) {
      peak.minimum = lanes.lowest[lane] < peak.minimum ? lanes.lowest[lane] : peak.minimum;
      peak.maximum = lanes.highest[lane] > peak.maximum ? lanes.highest[lane] : peak.maximum;
    }
    // Silence is too frequent to be searched once more.
    if ((peak.minimum == 0.0F || peak.maximum == 0.0F) &&
        !IsAllPositiveZero(group, kFramesPerPeak * channels)) {
      return ScalarGroupPeaks(group, kFramesPerPeak, channels, peaks);
    }
    peaks[channel] = peak;
  }
}

}  // namespace marlinda
