// PositionIndex: finds the part of a segment list that a position falls into without walking the
// list. The list is kept in blocks; the index holds one summary a block and the running totals.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "core/section.h"

namespace marlinda {

// As long as all lengths together stay below this, no offset and no sum of two of them overflows.
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
  // Bounds of all segments.
  std::int64_t lowest_start = 0;
  std::int64_t highest_end = 0;
  // Sum of the lengths without their signs, saturating: a bound on all offsets.
  std::uint64_t absolute_length = 0;
  // The shortest length: negative where a segment runs backward.
  std::int64_t shortest = std::numeric_limits<std::int64_t>::max();
};

// Backward segments make offsets go down again, so the index bounds instead of sorting: it keeps
// the furthest end that the list has reached by each block, which only ever grows. Where lengths
// are so large that offsets could overflow it excludes nothing, and the caller walks the whole
// list with the offsets of the walk.
//
// All look-ups are constant operations that may run on several threads at once.
class PositionIndex {
 public:
  std::size_t BlockCount() const noexcept { return blocks_.size(); }
  // Number of segments and sum of lengths of the whole list.
  std::size_t Count() const noexcept {
    return blocks_.empty() ? 0 : blocks_.back().ordinal + blocks_.back().summary.count;
  }
  std::int64_t Length() const noexcept {
    return blocks_.empty() ? 0 : WrappingAdd(blocks_.back().start, blocks_.back().summary.length);
  }

  // Offset and ordinal of the first segment of a block.
  std::int64_t StartOf(std::size_t block) const noexcept { return blocks_[block].start; }
  std::size_t OrdinalOf(std::size_t block) const noexcept { return blocks_[block].ordinal; }

  // The block that holds the segment with this ordinal, which must be less than Count.
  std::size_t BlockOfOrdinal(std::size_t ordinal) const noexcept {
    const auto after = std::ranges::upper_bound(blocks_, ordinal, {}, &Block::ordinal);
    return static_cast<std::size_t>(after - blocks_.begin()) - 1;
  }
  // No block before this one holds a segment that ends at `position` or later.
  std::size_t FirstReaching(std::int64_t position) const noexcept {
    if (CanOverflow()) return 0;
    const auto found = std::ranges::lower_bound(blocks_, position, {}, &Block::furthest_end);
    return static_cast<std::size_t>(found - blocks_.begin());
  }
  // False when no segment of the block shares a frame with the range.
  bool MayShareFrames(std::size_t block, const CSection& range) const noexcept {
    if (CanOverflow()) return true;
    const Block& at = blocks_[block];
    return at.start + at.summary.lowest_start < range.end &&
           at.start + at.summary.highest_end > range.begin;
  }
  // True when every segment has at least `length` frames, which is not negative, and no offset can
  // overflow: offsets then only grow along the list.
  bool AllAtLeast(std::int64_t length) const noexcept {
    return blocks_.empty() || (!CanOverflow() && blocks_.back().shortest >= length);
  }

  // Makes room for `more` blocks, so that adding them cannot fail.
  void Reserve(std::size_t more) {
    const std::size_t needed = blocks_.size() + more;
    // Growing by the exact amount each time would copy all blocks each time.
    if (needed > blocks_.capacity()) blocks_.reserve(std::max(needed, 2 * blocks_.capacity()));
  }
  // Adds an empty block behind all others.
  void AddBlock() noexcept {
    blocks_.emplace_back();
    Total(blocks_.size() - 1);
  }
  // Adds a segment to the last block.
  void Append(const CSection& segment) noexcept {
    blocks_.back().summary.Add(segment);
    Total(blocks_.size() - 1);
  }
  // Puts blocks with these summaries in the place of `count` blocks. Reserve has made room for more
  // than there were.
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
    // Running totals over the blocks before this one.
    std::int64_t start = 0;
    std::size_t ordinal = 0;
    // Running totals that include this block.
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
