// PeakGroups: caches the minimum and maximum of each 64 peaks, so that a range query reads little.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <unordered_map>
#include <vector>

namespace marlinda {

// Caches the extremes of every group of 64 peaks that was read, and the peaks of the groups in
// which a stretch begins or ends. Drawing the same picture again reads nothing, another picture
// reads one group for each column. For 10 hours of stereo the groups take 1.5 MiB, twice as much
// while the take grows, and the cached peaks at most 4 MiB.
class PeakGroups {
 public:
  // Fills the array with the peaks from `first` on. False if that fails.
  using Read = std::function<bool(std::int64_t first, std::span<float> peaks)>;

  // `channels` is at least 1.
  explicit PeakGroups(std::size_t channels) noexcept : pair_floats_(2 * channels) {}

  // States that the peaks before this one do not change any more. If one does change, start over
  // with a new object.
  void Settle(std::int64_t peak) noexcept { settled_ = peak; }

  // Extends the pairs of each stretch by its peaks (see core/samples/extremes.h). Stretches follow
  // each other: the first begins at `first`, stretch i ends before the peak ends[i]. Their peaks
  // have settled. False as soon as a read fails; the pairs are then undefined.
  bool Extend(std::int64_t first, std::span<const std::int64_t> ends, std::span<float> pairs,
              const Read& read);

 private:
  bool LearnGroups(std::int64_t first, std::span<const std::int64_t> ends, const Read& read);
  bool ExtendByPart(std::span<float> pairs, std::int64_t begin, std::int64_t end, const Read& read);
  void Keep(std::int64_t group, std::span<const float> peaks);
  std::span<float> Group(std::int64_t group) noexcept;

  std::size_t pair_floats_;
  std::int64_t settled_ = 0;
  std::vector<float> groups_;
  std::vector<bool> known_;
  std::unordered_map<std::int64_t, std::vector<float>> kept_peaks_;
  std::vector<float> block_;
};

}  // namespace marlinda
