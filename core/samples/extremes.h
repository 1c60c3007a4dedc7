// Extremes: the lowest and highest of many samples or peaks, for each channel.
#pragma once

#include <cstddef>
#include <limits>
#include <span>

namespace marlinda {

// Extremes are pairs (lowest, highest), one for each channel. These are the extremes of no samples.
inline constexpr float kNoLowest = std::numeric_limits<float>::infinity();
inline constexpr float kNoHighest = -std::numeric_limits<float>::infinity();

// Both functions compare one value after the other and replace the lowest only by a smaller value,
// the highest only by a greater one. So NaN is skipped, and of 0.0 and -0.0 the first stays.
//
// Extends by interleaved samples, whole frames.
void ExtendBySamples(std::span<float> pairs, std::span<const float> samples) noexcept;
// Extends by peaks, which are also one pair for each channel.
void ExtendByPeaks(std::span<float> pairs, std::span<const float> peaks) noexcept;

}  // namespace marlinda
