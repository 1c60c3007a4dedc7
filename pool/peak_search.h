// The vector form of the search for peaks. `Ops` names the operations of a level of instructions;
// each file has its own Ops in an unnamed namespace, which makes what is defined here its own, too.
#pragma once

#include <utility>

#include "pool/peak_kernels.h"

namespace marlinda {

// Minima and maxima lane by lane. Ops::Min and Ops::Max take their second operand, the value so
// far, where a comparison does not hold: NaN never counts, nor does a sample that is merely equal.
// kPeriod vectors hold whole frames, so that a lane of each always belongs to one channel; kUnroll
// times as many are searched side by side, because each step waits for the one before it.
//
// The steps for all vectors are written out by the index sequence: kept in an array that a loop
// runs over, they would not stay in registers.
template <class Ops, std::size_t kPeriod, std::size_t... kIndex>
void SearchGroup(const float* sample, std::size_t channels, PeakLanes& lanes,
                 std::index_sequence<kIndex...>) noexcept {
  using Vector = typename Ops::Vector;
  constexpr std::size_t kVectors = sizeof...(kIndex);
  Vector low[kVectors] = {(static_cast<void>(kIndex), Ops::Fill(kLargestSample))...};
  Vector high[kVectors] = {(static_cast<void>(kIndex), Ops::Fill(-kLargestSample))...};
  const float* const end = sample + kFramesPerPeak * channels;
  for (; sample < end; sample += kVectors * Ops::kLanes) {
    const Vector values[kVectors] = {Ops::Load(sample + kIndex * Ops::kLanes)...};
    ((low[kIndex] = Ops::Min(values[kIndex], low[kIndex])), ...);
    ((high[kIndex] = Ops::Max(values[kIndex], high[kIndex])), ...);
  }
  lanes.count = kPeriod * Ops::kLanes;
  // From the last vector down to the first of its lanes.
  for (std::size_t i = kVectors; i-- > kPeriod;) {
    low[i - kPeriod] = Ops::Min(low[i], low[i - kPeriod]);
    high[i - kPeriod] = Ops::Max(high[i], high[i - kPeriod]);
  }
  for (std::size_t i = 0; i < kPeriod; ++i) {
    Ops::Store(lanes.lowest + i * Ops::kLanes, low[i]);
    Ops::Store(lanes.highest + i * Ops::kLanes, high[i]);
  }
}

template <class Ops, std::size_t kPeriod, std::size_t kUnroll>
void SearchGroups(const float* samples, std::size_t groups, std::size_t channels,
                  PeakRecord* peaks) noexcept {
  for (; groups > 0; --groups, samples += kFramesPerPeak * channels, peaks += channels) {
    PeakLanes lanes;
    SearchGroup<Ops, kPeriod>(samples, channels, lanes,
                              std::make_index_sequence<kPeriod * kUnroll>());
    FoldPeakLanes(lanes, samples, channels, peaks);
  }
}

// The period is the channel count without the factors that it shares with the lane count.
template <class Ops>
void SearchPeaks(const float* samples, std::size_t groups, std::size_t channels,
                 PeakRecord* peaks) noexcept {
  switch (channels) {
    case 3:
    case 6:
      return SearchGroups<Ops, 3, 1>(samples, groups, channels, peaks);
    case 5:
      return SearchGroups<Ops, 5, 1>(samples, groups, channels, peaks);
    case 7:
      return SearchGroups<Ops, 7, 1>(samples, groups, channels, peaks);
    case 8:
      return SearchGroups<Ops, 8 / Ops::kLanes, 2>(samples, groups, channels, peaks);
    default:
      return SearchGroups<Ops, 1, 4>(samples, groups, channels, peaks);
  }
}

}  // namespace marlinda
