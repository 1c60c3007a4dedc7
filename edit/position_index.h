// PositionIndex: finds the block that contains a position, without walking the whole SegmentList.
// Holds a summary of each block and running totals.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "core/section.h"

namespace marlinda {

// While the sum of all absolute lengths is below this, no sum of two offsets overflows.
inline constexpr std::uint64_t kMaxSafeLength = std::uint64_t{1} << 62;

inline std::uint64_t AbsoluteLength(const CSection& segment) noexcept {
  const bool backward = segment.end < segment.begin;
  const auto begin = static_cast<std::uint64_t>(segment.begin);
  const auto end = static_cast<std::uint64_t>(segment.end);
  return std::min(backward ? begin - end : end - begin, kMaxSafeLength);
}

// Totals of the segments of one block. Offsets count from the block's first frame.
struct BlockSummary {
  // Appends a segment.
  void Add(const CSection& segment) noexcept {
    lowest_start = std::min(lowest_start, length);
    length = WrappingAdd(length, segment.Length());
    highest_end = std::max(highest_end, length);
    absolute_length = std::min(absolute_length + AbsoluteLength(segment), kMaxSafeLength);
    shortest = std::min(shortest, segment.Length());
    ++count;
  }

  std::size_t count = 0;
  std::int64_t length = 0;
  std::int64_t lowest_start = 0;
  std::int64_t highest_end = 0;
  // Sum of the absolute lengths, capped at kMaxSafeLength. Below the cap, it bounds all offsets.
  std::uint64_t absolute_length = 0;
  // The shortest length: negative if a segment runs backward.
  std::int64_t shortest = std::numeric_limits<std::int64_t>::max();
};

// With backward segments the offsets are not sorted. So the index stores for each block the
// furthest end of all segments up to that block. It searches these values, which never decrease. If
// offsets could overflow, look-ups by position report every block as a possible match.
//
// Look-ups are const and may run on several threads at once.
class PositionIndex {
 public:
  // Segment count and total length of the list.
  std::size_t Count() const noexcept {
    return blocks_.empty() ? 0 : blocks_.back().ordinal + blocks_.back().summary.count;
  }
  std::int64_t Length() const noexcept {
    return blocks_.empty() ? 0 : WrappingAdd(blocks_.back().start, blocks_.back().summary.length);
  }

  // Offset and ordinal of a block's first segment.
  std::int64_t StartOf(std::size_t block) const noexcept { return blocks_[block].start; }
  std::size_t OrdinalOf(std::size_t block) const noexcept { return blocks_[block].ordinal; }

  // The block that holds the segment with this ordinal, which must be less than Count.
  std::size_t BlockOfOrdinal(std::size_t ordinal) const noexcept {
    const auto after = std::ranges::upper_bound(blocks_, ordinal, {}, &Block::ordinal);
    return static_cast<std::size_t>(after - blocks_.begin()) - 1;
  }
  // Returns the first block that may contain a segment that ends at `position` or later.
  std::size_t FirstReaching(std::int64_t position) const noexcept {
    if (CanOverflow()) return 0;
    const auto found = std::ranges::lower_bound(blocks_, position, {}, &Block::furthest_end);
    return static_cast<std::size_t>(found - blocks_.begin());
  }
  // If false, no segment of the block overlaps the range.
  bool MayShareFrames(std::size_t block, const CSection& range) const noexcept {
    if (CanOverflow()) return true;
    const Block& at = blocks_[block];
    return at.start + at.summary.lowest_start < range.end &&
           at.start + at.summary.highest_end > range.begin;
  }
  // True if every segment has at least `length` (0 or more) frames and no offset can overflow.
  // Offsets then never decrease along the list.
  bool AllAtLeast(std::int64_t length) const noexcept {
    return blocks_.empty() || (!CanOverflow() && blocks_.back().shortest >= length);
  }

  // Reserves memory for `more` blocks, so that adding them cannot fail.
  void Reserve(std::size_t more) {
    const std::size_t needed = blocks_.size() + more;
    // Growing by the exact amount would copy all blocks each time.
    if (needed > blocks_.capacity()) blocks_.reserve(std::max(needed, 2 * blocks_.capacity()));
  }
  // Appends an empty block.
  void AddBlock() noexcept {
    blocks_.emplace_back();
    Total(blocks_.size() - 1);
  }
  // Appends a segment to the last block.
  void Append(const CSection& segment) noexcept {
    blocks_.back().summary.Add(segment);
    Total(blocks_.size() - 1);
  }
  // Replaces `count` blocks by blocks with these summaries. Call Reserve first if blocks are added.
  void Replace(std::size_t first, std::size_t count,
               std::span<const BlockSummary> summaries) noexcept {
    const auto place = blocks_.begin() + static_cast<std::ptrdiff_t>(first);
    if (summaries.size() < count) {
      blocks_.erase(place, place + static_cast<std::ptrdiff_t>(count - summaries.size()));
    } else {
      blocks_.insert(place, summaries.size() - count, Block{});
    }
    for (std::size_t i = 0; i < summaries.size(); ++i) blocks_[first + i].summary = summaries[i];
    for (std::size_t i = first; i < blocks_.size(); ++i) Total(i);
  }

 private:
  struct Block {
    BlockSummary summary;
    // Running totals of the blocks before this one.
    std::int64_t start = 0;
    std::size_t ordinal = 0;
    // Running totals including this block.
    std::int64_t furthest_end = std::numeric_limits<std::int64_t>::min();
    std::uint64_t absolute_length = 0;
    std::int64_t shortest = std::numeric_limits<std::int64_t>::max();
  };

  void Total(std::size_t block) noexcept {
    static constexpr Block kNoBlock = {};
    Block& at = blocks_[block];
    const BlockSummary& own = at.summary;
    const Block& before = block > 0 ? blocks_[block - 1] : kNoBlock;
    at.start = WrappingAdd(before.start, before.summary.length);
    at.ordinal = before.ordinal + before.summary.count;
    at.furthest_end = std::max(before.furthest_end, WrappingAdd(at.start, own.highest_end));
    at.absolute_length = std::min(before.absolute_length + own.absolute_length, kMaxSafeLength);
    at.shortest = std::min(before.shortest, own.shortest);
  }
  bool CanOverflow() const noexcept {
    return !blocks_.empty() && blocks_.back().absolute_length >= kMaxSafeLength;
  }

  std::vector<Block> blocks_;
};

}  // namespace marlinda
