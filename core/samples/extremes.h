// Extremes: the lowest and the highest of many samples or peaks of each channel.
#pragma once

#include <cstddef>
#include <limits>
#include <span>

namespace marlinda {

// Extremes are pairs (lowest, highest), one for each channel. These are the extremes of no samples.
inline constexpr float kNoLowest = std::numeric_limits<float>::infinity();
inline constexpr float kNoHighest = -std::numeric_limits<float>::infinity();

// Both compare one value after the other and replace a pair's element only by a smaller or greater
// one. So NaN is skipped, and of 0.0 and -0.0 the first one stays.
//
// By interleaved samples, whole frames.
void ExtendBySamples(std::span<float> pairs, std::span<const float> samples) noexcept;
// By peaks, which are pairs for each channel themselves.
void ExtendByPeaks(std::span<float> pairs, std::span<const float> peaks) noexcept;

}  // namespace marlinda
