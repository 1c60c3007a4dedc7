// CAudioSegment and SegmentList: the ordered content of a document, its edits and its iteration.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "core/section.h"
#include "edit/position_index.h"

namespace marlinda {

// One entry of the list: a range of frames of its source, not checked against the source's length.
// A null source is silence.
template <class Source>
class CAudioSegment final : public CSection {
 public:
  CAudioSegment(Source handle, std::int64_t first, std::int64_t past_last)
      : CSection(first, past_last), source(std::move(handle)) {}
  CAudioSegment(const CAudioSegment&) = default;
  CAudioSegment(CAudioSegment&&) noexcept = default;
  CAudioSegment& operator=(const CAudioSegment&) = default;
  // Does not move-assign `source`, because the move assignment of mingw's ComPtr calls AddRef.
  // SegmentList's callers hold a lock under which AddRef is forbidden.
  CAudioSegment& operator=(CAudioSegment&& other) noexcept {
    if (this == &other) return *this;
    CSection::operator=(other);
    std::destroy_at(std::addressof(source));
    std::construct_at(std::addressof(source), std::move(other.source));
    return *this;
  }

  Source source;
};

// Segments lie in blocks of a bounded size. An insertion moves only segments of one block, and a
// look-up walks only the block that the position index finds. All results equal those of a walk
// over the whole list, even with empty and backward segments.
//
// `Source` is a handle whose copy holds a reference. Callers change the list under a lock, during
// which AddRef and Release are forbidden. So the list neither copies nor destroys handles: callers
// pass new handles and receive the removed ones. A method that throws changes nothing.
template <class Source>
class SegmentList {
 public:
  using Segment = CAudioSegment<Source>;
  using Block = std::vector<Segment>;

  std::size_t Count() const noexcept { return index_.Count(); }
  // Sum of the lengths of all segments.
  std::int64_t Length() const noexcept { return index_.Length(); }

  void Append(Segment segment) {
    if (blocks_.empty() || blocks_.back().size() >= kBlockSize) AddBlock();
    blocks_.back().push_back(std::move(segment));
    index_.Append(blocks_.back().back());
  }

  // Returns the segment that contains both ends of the range, or null. Removing the range, or
  // inserting at an empty range, divides this segment in two.
  const Segment* DividedBy(const CSection& range) const noexcept {
    const Place first = FindPlace(range.begin);
    const Place last = FindPlace(range.end);
    const bool divided = first.cut && last.cut && OrdinalOf(first) == OrdinalOf(last);
    return divided ? &blocks_[first.block][first.slot - 1] : nullptr;
  }

  // Inserts segments before the frame at `position`. A segment that contains this frame is split
  // there, even if nothing is inserted. Past the end, segments are appended without a gap. A
  // negative position splits the first segment at a frame before the segment's begin, so that the
  // first part runs backward. `divided` is a copy of the split segment's source.
  void Insert(std::int64_t position, std::vector<Segment>& segments, Source& divided) {
    const Place place = FindPlace(position);
    if (place.cut) {
      const std::int64_t end = blocks_[place.block][place.slot - 1].end;
      segments.emplace_back(std::move(divided), *place.cut, end);
    }
    if (!segments.empty()) Splice(place, segments);
  }

  // True if no segment is empty or backward and no position can overflow. Segments then lie one
  // after the other, as in most documents.
  bool AllHaveFrames() const noexcept { return index_.AllAtLeast(1); }

  // Removes the frames in `range` and returns the segments that lie wholly in it. Call only if
  // AllHaveFrames. `range` must not begin before frame 0 or run backward. A segment that contains
  // an end of the range is split there, even if the range is empty. If DividedBy(range) returns a
  // segment, `divided` must be a copy of that segment's source. Afterwards, Next returns null.
  Block Remove(const CSection& range, Source& divided) {
    Block removed;
    if (Count() == 0) return removed;
    const Place first = FindPlace(range.begin);
    const Place last = FindPlace(range.end);
    if (first.cut && last.cut && OrdinalOf(first) == OrdinalOf(last)) {
      std::vector<Segment> rest;
      rest.emplace_back(std::move(divided), *last.cut, blocks_[last.block][last.slot - 1].end);
      Splice(first, rest);
      cursor_.reset();
      return removed;
    }

    // The segment that contains the end of the range stays.
    const std::size_t past_removed = last.slot - (last.cut ? 1 : 0);
    removed.reserve(index_.OrdinalOf(last.block) + past_removed - OrdinalOf(first));
    const std::size_t touched = last.block - first.block + 1;
    std::vector<BlockSummary> summaries;
    summaries.reserve(touched);
    // Nothing below can fail.
    cursor_.reset();
    if (first.cut) blocks_[first.block][first.slot - 1].end = *first.cut;
    if (last.cut) blocks_[last.block][last.slot - 1].begin = *last.cut;
    std::size_t kept = first.block;
    for (std::size_t i = first.block; i <= last.block; ++i) {
      Block& block = blocks_[i];
      const auto from = At(block, i == first.block ? first.slot : 0);
      const auto to = At(block, i == last.block ? past_removed : block.size());
      removed.insert(removed.end(), std::move_iterator(from), std::move_iterator(to));
      block.erase(from, to);
      if (block.empty()) continue;
      summaries.push_back(Summarize(block));
      blocks_[kept++].swap(block);
    }
    blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(kept),
                  blocks_.begin() + static_cast<std::ptrdiff_t>(last.block + 1));
    index_.Replace(first.block, touched, summaries);
    return removed;
  }

  // Removes and returns all segments.
  std::vector<Block> RemoveAll() noexcept {
    cursor_.reset();
    index_ = {};
    return std::exchange(blocks_, {});
  }

  // Returns an upper bound on the number of pieces in `range`.
  std::size_t MaxPieces(const CSection& range) const noexcept {
    const std::size_t first = index_.FirstReaching(range.begin);
    const std::size_t last = index_.FirstReaching(range.end);
    return index_.AllAtLeast(0) && first <= last ? (last - first + 1) * kBlockSize : Count();
  }

  // Calls take(source, piece) for each part of a segment in `range`, in order. `piece` is the
  // part's range in the source, never empty or backward.
  template <class Take>
  void ForEachPiece(const CSection& range, Take&& take) const {
    if (range.begin >= range.end) return;
    // Without backward segments the segments lie in order, so the walk stops at the end of the
    // range.
    const bool in_order = index_.AllAtLeast(0);
    for (std::size_t block = index_.FirstReaching(range.begin); block < blocks_.size(); ++block) {
      std::int64_t offset = index_.StartOf(block);
      if (in_order && offset >= range.end) return;
      if (!index_.MayShareFrames(block, range)) continue;
      for (const Segment& segment : blocks_[block]) {
        const std::int64_t end = WrappingAdd(offset, segment.Length());
        if (in_order && offset >= range.end) return;
        if (!in_order || end > range.begin) {
          const CSection piece = Clip(segment, offset, range);
          if (piece.begin < piece.end) take(segment.source, piece);
        }
        offset = end;
      }
    }
  }

  // Calls take(source, segment) for every whole segment, in order.
  template <class Take>
  void ForEach(Take&& take) const {
    for (const Block& block : blocks_) {
      for (const Segment& segment : block) take(segment.source, segment);
    }
  }

  // The list has one cursor. The cursor stays on its segment when segments are inserted around it.
  // After the last segment, Next returns null. The returned pointer is valid until the list
  // changes.
  const Segment* First() noexcept {
    cursor_ = Count() > 0 ? std::optional<std::size_t>(0) : std::nullopt;
    return AtCursor();
  }
  const Segment* Next() noexcept {
    if (cursor_ && ++*cursor_ >= Count()) cursor_.reset();
    return AtCursor();
  }

 private:
  static constexpr std::size_t kBlockSize = 256;

  // The place of an insertion: before `slot` of `block`. If `cut` is set, the segment before that
  // slot is divided at position `cut` of its source.
  struct Place {
    std::size_t block = 0;
    std::size_t slot = 0;
    std::optional<std::int64_t> cut;
  };

  Place FindPlace(std::int64_t position) const noexcept {
    if (position == 0 || blocks_.empty()) return {};
    for (std::size_t block = index_.FirstReaching(position); block < blocks_.size(); ++block) {
      std::int64_t offset = index_.StartOf(block);
      for (std::size_t slot = 0; slot < blocks_[block].size(); ++slot) {
        const Segment& segment = blocks_[block][slot];
        const std::int64_t end = WrappingAdd(offset, segment.Length());
        if (position == end) return {block, slot + 1, std::nullopt};
        if (position < end) {
          return {block, slot + 1, WrappingAdd(segment.begin, WrappingSubtract(position, offset))};
        }
        offset = end;
      }
    }
    return {blocks_.size() - 1, blocks_.back().size(), std::nullopt};
  }

  std::size_t OrdinalOf(const Place& place) const noexcept {
    return index_.OrdinalOf(place.block) + place.slot;
  }

  static BlockSummary Summarize(const Block& block) noexcept {
    BlockSummary summary;
    for (const Segment& segment : block) summary.Add(segment);
    return summary;
  }

  const Segment* AtCursor() const noexcept {
    if (!cursor_) return nullptr;
    const std::size_t block = index_.BlockOfOrdinal(*cursor_);
    return &blocks_[block][*cursor_ - index_.OrdinalOf(block)];
  }

  static CSection Clip(const Segment& segment, std::int64_t offset,
                       const CSection& range) noexcept {
    const std::int64_t begin =
        SaturatingAdd(segment.begin, SaturatingSubtract(range.begin, offset));
    const std::int64_t end = SaturatingAdd(segment.begin, SaturatingSubtract(range.end, offset));
    return {std::max(segment.begin, begin), std::min(segment.end, end)};
  }

  // If the caller then fails to append a segment, the empty block does no harm.
  void AddBlock() {
    index_.Reserve(1);
    Block block;
    // The first block grows as needed, because many documents are short.
    if (!blocks_.empty()) block.reserve(kBlockSize);
    blocks_.push_back(std::move(block));
    index_.AddBlock();
  }

  // Inserts the segments and shortens the segment that `place` cuts. Everything that can fail comes
  // before the first change.
  void Splice(const Place& place, std::vector<Segment>& segments) {
    if (blocks_.empty()) AddBlock();
    const std::size_t total = blocks_[place.block].size() + segments.size();
    const std::size_t parts = (total + kBlockSize - 1) / kBlockSize;
    // Equal shares leave room in each block for the next insertions.
    const std::size_t share = (total + parts - 1) / parts;
    std::vector<Block> shares(parts > 1 ? parts : 0);
    for (Block& part : shares) part.reserve(share);
    std::vector<BlockSummary> summaries(parts);
    blocks_.reserve(blocks_.size() + parts);
    index_.Reserve(parts);
    Block& block = blocks_[place.block];
    block.reserve(total);

    if (place.cut) block[place.slot - 1].end = *place.cut;
    if (cursor_ && *cursor_ >= OrdinalOf(place)) *cursor_ += segments.size();
    block.insert(At(block, place.slot), std::move_iterator(segments.begin()),
                 std::move_iterator(segments.end()));
    for (std::size_t part = 0; part < shares.size(); ++part) {
      shares[part].assign(std::move_iterator(At(block, part * share)),
                          std::move_iterator(At(block, std::min(total, (part + 1) * share))));
    }
    if (!shares.empty()) {
      block.swap(shares.front());
      blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(place.block) + 1,
                     std::move_iterator(std::next(shares.begin())),
                     std::move_iterator(shares.end()));
    }
    for (std::size_t part = 0; part < parts; ++part) {
      summaries[part] = Summarize(blocks_[place.block + part]);
    }
    index_.Replace(place.block, 1, summaries);
  }

  static auto At(Block& block, std::size_t slot) noexcept {
    return block.begin() + static_cast<std::ptrdiff_t>(slot);
  }

  std::vector<Block> blocks_;
  PositionIndex index_;
  std::optional<std::size_t> cursor_;
};

}  // namespace marlinda
