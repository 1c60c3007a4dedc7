// PeakGroups: caches the minimum and maximum of every group of 64 peaks, so that a range query
// reads little.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <unordered_map>
#include <vector>

#include "core/samples/extremes.h"

namespace marlinda {

inline constexpr std::int64_t kGroup = 64;

// Maximum floats per read. A block of this size stays in the processor's cache until its extremes
// are found.
inline constexpr std::size_t kBlockFloats = std::size_t{1} << 16;

inline constexpr std::size_t kMaxKeptFloats = (std::size_t{4} << 20) / sizeof(float);

// Caches the extremes of every group that was read, and all peaks of a group in which a range
// begins or ends. A waveform overview has one range for each column. Drawing the same overview
// again reads nothing. Drawing another overview of the same peaks reads only the groups at the
// columns' boundaries. For 10 hours of stereo the extremes need 1.5 MiB. While a take is recorded,
// they need up to twice as much, because a growing vector has spare capacity. The cached peaks need
// at most 4 MiB.
class PeakGroups {
 public:
  // Fills the array with the peaks from `first` on. Returns false on failure.
  using Read = std::function<bool(std::int64_t first, std::span<float> peaks)>;

  // `channels` is at least 1.
  explicit PeakGroups(std::size_t channels) noexcept : pair_floats_(2 * channels) {}

  // From now on, all peaks before `peak` count as final. If one of them changes nevertheless, start
  // over with a new object.
  void Settle(std::int64_t peak) noexcept { settled_ = peak; }

  // Extends the (lowest, highest) pairs of each range to include the range's peaks (see
  // core/samples/extremes.h). The first range begins at peak `first`. Range i ends before peak
  // ends[i], where the next range begins. All these peaks must be settled. Returns false if a read
  // fails. The pairs are then undefined.
  bool Extend(std::int64_t first, std::span<const std::int64_t> ends, std::span<float> pairs,
              const Read& read) {
    if (!LearnGroups(first, ends, read)) return false;
    for (const std::int64_t end : ends) {
      const std::span<float> own = pairs.first(pair_floats_);
      pairs = pairs.subspan(pair_floats_);
      // Searches in order, because the pair holds the first of equal extremes (0.0 and -0.0).
      const std::int64_t first_group = (first + kGroup - 1) / kGroup;
      const std::int64_t last_group = end / kGroup;
      if (first_group > last_group) {
        if (!ExtendByPart(own, first, end, read)) return false;
      } else {
        if (!ExtendByPart(own, first, first_group * kGroup, read)) return false;
        const auto groups = static_cast<std::size_t>(last_group - first_group);
        ExtendByPeaks(own, {Group(first_group).data(), groups * pair_floats_});
        if (!ExtendByPart(own, last_group * kGroup, end, read)) return false;
      }
      first = end;
    }
    return true;
  }

 private:
  // Reads the whole groups between `first` and the last end, except groups that are cached already.
  bool LearnGroups(std::int64_t first, std::span<const std::int64_t> ends, const Read& read) {
    if (ends.empty()) return true;
    const std::int64_t last_group = ends.back() / kGroup;
    const auto max_groups =
        static_cast<std::int64_t>(std::max<std::size_t>(1, kBlockFloats / (kGroup * pair_floats_)));
    if (static_cast<std::size_t>(last_group) >= known_.size()) {
      const std::size_t count = static_cast<std::size_t>(last_group) + 1;
      groups_.resize(count * pair_floats_);
      known_.resize(count);
    }
    auto boundary = ends.begin();
    const auto is_known = [&](std::int64_t group) {
      return known_[static_cast<std::size_t>(group)];
    };
    for (std::int64_t group = (first + kGroup - 1) / kGroup; group < last_group;) {
      if (is_known(group)) {
        ++group;
        continue;
      }
      std::int64_t past = group + 1;
      while (past < last_group && past < group + max_groups && !is_known(past)) ++past;
      const auto group_floats = static_cast<std::size_t>(kGroup) * pair_floats_;
      block_.resize(static_cast<std::size_t>(past - group) * group_floats);
      if (!read(group * kGroup, block_)) return false;
      for (std::span<const float> left(block_); group < past;
           ++group, left = left.subspan(group_floats)) {
        const std::span<float> own = Group(group);
        for (std::size_t i = 0; i < pair_floats_; i += 2) {
          own[i] = kNoLowest;
          own[i + 1] = kNoHighest;
        }
        ExtendByPeaks(own, left.first(group_floats));
        known_[static_cast<std::size_t>(group)] = true;
        boundary = std::lower_bound(boundary, ends.end(), group * kGroup + 1);
        if (*boundary < (group + 1) * kGroup) Keep(group, left.first(group_floats));
      }
    }
    return true;
  }
  // Extends the pairs by the peaks of [begin, end), which is empty or lies in one group.
  bool ExtendByPart(std::span<float> pairs, std::int64_t begin, std::int64_t end,
                    const Read& read) {
    if (begin >= end) return true;
    const std::int64_t group = begin / kGroup;
    auto kept = kept_peaks_.find(group);
    if (kept == kept_peaks_.end()) {
      const bool whole = (group + 1) * kGroup <= settled_;
      const std::int64_t from = whole ? group * kGroup : begin;
      const std::int64_t to = whole ? from + kGroup : end;
      block_.resize(static_cast<std::size_t>(to - from) * pair_floats_);
      if (!read(from, block_)) return false;
      if (!whole) {
        ExtendByPeaks(pairs, block_);
        return true;
      }
      Keep(group, block_);
      kept = kept_peaks_.find(group);
    }
    const auto at = static_cast<std::size_t>(begin - group * kGroup) * pair_floats_;
    ExtendByPeaks(pairs, std::span<const float>(kept->second)
                             .subspan(at, static_cast<std::size_t>(end - begin) * pair_floats_));
    return true;
  }
  // Caches the peaks of a group. If the cache is full, drops all cached peaks first. A stereo
  // overview of 4,000 columns fits in the cache.
  void Keep(std::int64_t group, std::span<const float> peaks) {
    if ((kept_peaks_.size() + 1) * peaks.size() > kMaxKeptFloats) kept_peaks_.clear();
    kept_peaks_.try_emplace(group, peaks.begin(), peaks.end());
  }
  std::span<float> Group(std::int64_t group) noexcept {
    return {groups_.data() + static_cast<std::size_t>(group) * pair_floats_, pair_floats_};
  }

  std::size_t pair_floats_;
  std::int64_t settled_ = 0;
  std::vector<float> groups_;
  std::vector<bool> known_;
  std::unordered_map<std::int64_t, std::vector<float>> kept_peaks_;
  std::vector<float> block_;
};

}  // namespace marlinda
