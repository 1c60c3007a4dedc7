// Finds the lowest and highest value of samples or peaks, for each channel.
#pragma once

#include <cstddef>
#include <limits>
#include <span>

namespace marlinda {

// Extremes are pairs (lowest, highest), one for each channel. A new pair has these values.
inline constexpr float kNoLowest = std::numeric_limits<float>::infinity();
inline constexpr float kNoHighest = -std::numeric_limits<float>::infinity();

// Both functions act as if they compared in order. Only a smaller value replaces the lowest, only a
// greater value the highest. So NaN is skipped, and of 0.0 and -0.0 the first stays.
//
// Extends the pairs by whole frames of interleaved samples.
void ExtendBySamples(std::span<float> pairs, std::span<const float> samples) noexcept;
// Extends the pairs by peaks. Each peak is one pair for each channel.
void ExtendByPeaks(std::span<float> pairs, std::span<const float> peaks) noexcept;

}  // namespace marlinda
