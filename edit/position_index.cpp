#include "edit/position_index.h"

#include <algorithm>
#include <limits>

namespace marlinda {
namespace {

// As long as all lengths together stay below this, no offset and no sum of two of them overflows.
constexpr std::uint64_t kMaxSafeLength = std::uint64_t{1} << 62;

std::uint64_t AbsoluteLength(const CSection& segment) noexcept {
  const bool backward = segment.end < segment.begin;
  const auto begin = static_cast<std::uint64_t>(segment.begin);
  const auto end = static_cast<std::uint64_t>(segment.end);
  return std::min(backward ? begin - end : end - begin, kMaxSafeLength);
}

}  // namespace

void BlockSummary::Add(const CSection& segment) noexcept {
  lowest_start = std::min(lowest_start, length);
  length = WrappingAdd(length, segment.Length());
  highest_end = std::max(highest_end, length);
  absolute_length = std::min(absolute_length + AbsoluteLength(segment), kMaxSafeLength);
  shortest = std::min(shortest, segment.Length());
  ++count;
}

std::size_t PositionIndex::Count() const noexcept {
  return blocks_.empty() ? 0 : blocks_.back().ordinal + blocks_.back().summary.count;
}

std::int64_t PositionIndex::Length() const noexcept {
  return blocks_.empty() ? 0 : WrappingAdd(blocks_.back().start, blocks_.back().summary.length);
}

std::size_t PositionIndex::BlockOfOrdinal(std::size_t ordinal) const noexcept {
  const auto after = std::ranges::upper_bound(blocks_, ordinal, {}, &Block::ordinal);
  return static_cast<std::size_t>(after - blocks_.begin()) - 1;
}

std::size_t PositionIndex::FirstReaching(std::int64_t position) const noexcept {
  if (CanOverflow()) return 0;
  const auto found = std::ranges::lower_bound(blocks_, position, {}, &Block::furthest_end);
  return static_cast<std::size_t>(found - blocks_.begin());
}

bool PositionIndex::MayShareFrames(std::size_t block, const CSection& range) const noexcept {
  if (CanOverflow()) return true;
  const Block& at = blocks_[block];
  return at.start + at.summary.lowest_start < range.end &&
         at.start + at.summary.highest_end > range.begin;
}

bool PositionIndex::AllAtLeast(std::int64_t length) const noexcept {
  return blocks_.empty() || (!CanOverflow() && blocks_.back().shortest >= length);
}

void PositionIndex::Reserve(std::size_t more) {
  const std::size_t needed = blocks_.size() + more;
  // Growing by the exact amount each time would copy all blocks each time.
  if (needed > blocks_.capacity()) blocks_.reserve(std::max(needed, 2 * blocks_.capacity()));
}

void PositionIndex::AddBlock() noexcept {
  blocks_.emplace_back();
  Total(blocks_.size() - 1);
}

void PositionIndex::Append(const CSection& segment) noexcept {
  blocks_.back().summary.Add(segment);
  Total(blocks_.size() - 1);
}

void PositionIndex::Replace(std::size_t first, std::size_t count,
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

void PositionIndex::Total(std::size_t block) noexcept {
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

bool PositionIndex::CanOverflow() const noexcept {
  return !blocks_.empty() && blocks_.back().absolute_length >= kMaxSafeLength;
}

}  // namespace marlinda
