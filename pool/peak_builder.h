// Peaks: the minimum and maximum of every 256 frames of a block, per channel.
#pragma once

#include <span>
#include <vector>

#include "pool/peak_record.h"

namespace marlinda {

// Replaces `peaks` by the peaks of a block of interleaved samples: for F whole frames F / 256 + 1
// groups, each with one record per channel. The last group holds the frames that are left; where
// none is left, it holds the last frame once more, so that a reader of the newest peak always finds
// one. No frames give no peaks. `channels` is at least 1.
//
// A sample counts only where it is less or greater than what came before it, starting from the
// largest and smallest finite float. So NaN never counts, a group of nothing but NaN keeps the two
// start values (minimum above maximum), and one of nothing but +infinity the first of them.
void BuildPeaks(std::span<const float> samples, int channels, std::vector<PeakRecord>& peaks);

}  // namespace marlinda
