// Extremes: the lowest and the highest of many samples or peaks of each channel.
#pragma once

#include <cstddef>
#include <limits>
#include <span>

namespace marlinda {

// Extremes are kept as pairs (lowest, highest), one for each channel. These stand for no samples at
// all: they change nothing when they are added to others.
inline constexpr float kNoLowest = std::numeric_limits<float>::infinity();
inline constexpr float kNoHighest = -std::numeric_limits<float>::infinity();

// Both lower and raise the pairs where a sample or peak is less or greater, one after the other. So
// a NaN is passed over, and of two equal zeros the first one stays.
//
// By interleaved samples, whole frames.
void ExtendBySamples(std::span<float> pairs, std::span<const float> samples) noexcept;
// By peaks, which are pairs for each channel themselves.
void ExtendByPeaks(std::span<float> pairs, std::span<const float> peaks) noexcept;

}  // namespace marlinda
