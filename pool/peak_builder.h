// Peaks: the minimum and maximum of every 256 frames of a block for each channel.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/constants.h"

namespace marlinda {

// Bytes of one group's peaks in the peak file: two floats for each channel.
constexpr std::int64_t PeakBytes(int channels) noexcept {
  return channels * static_cast<std::int64_t>(2 * sizeof(float));
}

// Replaces `peaks` by the peaks of a block of interleaved samples in the layout of the peak file:
// group after group, the pair (minimum, maximum) of each channel. F whole frames give F / 256 + 1
// groups. The last group covers the remaining frames, or the last frame again if none remains, so a
// reader always finds the newest peak. No frames give no peaks. `channels` is at least 1.
//
// The minimum starts at the largest finite float, and only a smaller sample replaces it; the
// maximum starts at the lowest. So NaN never counts. A group of NaN alone keeps both start values
// (minimum above maximum); a group of +infinity alone keeps the start value of its minimum.
void BuildPeaks(std::span<const float> samples, int channels, std::vector<float>& peaks);

}  // namespace marlinda
