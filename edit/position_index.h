// PositionIndex: finds the part of a segment list that a position falls into without walking the
// list. The list is kept in blocks; the index holds one summary a block and the running totals.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "core/section.h"

namespace marlinda {

// Totals of the segments of one block. Offsets count from the block's first frame.
struct BlockSummary {
  // Appends a segment.
  void Add(const CSection& segment) noexcept;

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
  std::size_t Count() const noexcept;
  std::int64_t Length() const noexcept;

  // Offset and ordinal of the first segment of a block.
  std::int64_t StartOf(std::size_t block) const noexcept { return blocks_[block].start; }
  std::size_t OrdinalOf(std::size_t block) const noexcept { return blocks_[block].ordinal; }

  // The block that holds the segment with this ordinal, which must be less than Count.
  std::size_t BlockOfOrdinal(std::size_t ordinal) const noexcept;
  // No block before this one holds a segment that ends at `position` or later.
  std::size_t FirstReaching(std::int64_t position) const noexcept;
  // False when no segment of the block shares a frame with the range.
  bool MayShareFrames(std::size_t block, const CSection& range) const noexcept;
  // True when every segment has at least `length` frames, which is not negative, and no offset can
  // overflow: offsets then only grow along the list.
  bool AllAtLeast(std::int64_t length) const noexcept;

  // Makes room for `more` blocks, so that adding them cannot fail.
  void Reserve(std::size_t more);
  // Adds an empty block behind all others.
  void AddBlock() noexcept;
  // Adds a segment to the last block.
  void Append(const CSection& segment) noexcept;
  // Puts blocks with these summaries in the place of `count` blocks. Reserve has made room for more
  // than there were.
  void Replace(std::size_t first, std::size_t count,
               std::span<const BlockSummary> summaries) noexcept;

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

  void Total(std::size_t block) noexcept;
  bool CanOverflow() const noexcept;

  std::vector<Block> blocks_;
};

}  // namespace marlinda
