// Peaks: the minimum and maximum of each channel, for every group of 256 frames of a block.
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

// Replaces `peaks` by the peaks of a block of interleaved samples, in the layout of the peak file:
// group after group, the pair (minimum, maximum) of each channel. F whole frames make F / 256 + 1
// groups. The last group covers the remaining frames. If none remains, it covers the last frame
// again, so that peak F / 256 always exists. Without a whole frame, `peaks` becomes empty.
// `channels` is at least 1.
//
// The minimum starts at the largest finite float, and only a smaller sample replaces it. The
// maximum starts at the lowest finite float, and only a greater sample replaces it. So NaN never
// counts. A group with only NaN keeps both start values, with the minimum above the maximum. A
// group with only +infinity keeps the start value of its minimum.
void BuildPeaks(std::span<const float> samples, int channels, std::vector<float>& peaks);

}  // namespace marlinda
