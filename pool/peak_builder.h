// Peaks: the minimum and maximum of every 256 frames of a block, per channel.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/constants.h"

namespace marlinda {

// Bytes that the peaks of one group take in the peak file: two floats for each channel.
constexpr std::int64_t PeakBytes(int channels) noexcept {
  return channels * static_cast<std::int64_t>(2 * sizeof(float));
}

// Replaces `peaks` by the peaks of a block of interleaved samples, as the peak file stores them:
// group after group, the pair (minimum, maximum) of each channel. F whole frames give F / 256 + 1
// groups. The last group holds the frames that are left, or the last frame once more if none is
// left: a reader finds the newest peak in either case. No frames give no peaks. `channels` is at
// least 1.
//
// A sample counts only if it is less or greater than the samples before it, starting from the
// largest and smallest finite float. So NaN never counts, a group of NaN alone keeps the two start
// values (minimum above maximum), and a group of +infinity alone keeps the first of them.
void BuildPeaks(std::span<const float> samples, int channels, std::vector<float>& peaks);

}  // namespace marlinda
