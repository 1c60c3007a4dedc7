// The search for the peaks of whole groups, for each level of vector instructions. Only
// peak_builder and the tests call it. This header is read by a file that is compiled for AVX2:
// nothing inline that another file could end up with belongs here.
#pragma once

#include <cstddef>
#include <limits>

#include "pool/peak_record.h"

namespace marlinda {

inline constexpr std::size_t kMostPeakKernelChannels = 8;
inline constexpr float kLargestSample = std::numeric_limits<float>::max();

// Writes the peaks of `frames` frames of `channels` interleaved channels: one record per channel.
// This is the definition of what BuildPeaks gives for a group; any counts.
void ScalarGroupPeaks(const float* samples, std::size_t frames, std::size_t channels,
                      PeakRecord* peaks) noexcept;

// The peaks of `groups` groups of kFramesPerPeak frames, one after the other; 1 to 8 channels.
using PeakKernel = void (*)(const float* samples, std::size_t groups, std::size_t channels,
                            PeakRecord* peaks);

void ScalarPeaks(const float* samples, std::size_t groups, std::size_t channels,
                 PeakRecord* peaks) noexcept;
// The same results, faster.
void Sse2Peaks(const float* samples, std::size_t groups, std::size_t channels,
               PeakRecord* peaks) noexcept;
void Avx2Peaks(const float* samples, std::size_t groups, std::size_t channels,
               PeakRecord* peaks) noexcept;

// What the vector forms have found in a group: lane i belongs to channel i modulo their count.
struct PeakLanes {
  float lowest[64];
  float highest[64];
  std::size_t count;
};

// The records of a group out of its lanes. A peak of 0 may be of either sign, and the first zero of
// the group decides, of which the lanes know nothing: such a group is searched once more.
void FoldPeakLanes(const PeakLanes& lanes, const float* group, std::size_t channels,
                   PeakRecord* peaks) noexcept;

}  // namespace marlinda
