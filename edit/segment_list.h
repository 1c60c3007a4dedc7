// SegmentList: the ordered content of a document, with its edits, its reading and its iteration.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "edit/audio_segment.h"
#include "edit/position_index.h"

namespace marlinda {

// Segments lie in blocks of a bounded size, so that an insertion moves a few neighbours and a
// look-up walks one block; the position index finds the block. All results are those of a walk
// over the whole list, also with empty and backward segments.
//
// Nothing has changed when a method throws.
template <class Source>
class SegmentList {
 public:
  using Segment = CAudioSegment<Source>;

  std::size_t Count() const noexcept { return index_.Count(); }
  // Sum of the lengths of all segments.
  std::int64_t Length() const noexcept { return index_.Length(); }

  // Links a segment at the tail.
  void Append(Segment segment) {
    if (blocks_.empty() || blocks_.back().size() >= kBlockSize) AddBlock();
    blocks_.back().push_back(std::move(segment));
    index_.Append(blocks_.back().back());
  }

  // Puts segments before the frame at `position`. A segment that contains it is cut in two there,
  // also when there is nothing to insert; past the end they are appended without a gap. Deliberate:
  // a position inside no segment because it is negative cuts the first segment before its begin.
  void Insert(std::int64_t position, std::vector<Segment> segments) {
    const Place place = FindPlace(position);
    if (place.cut) {
      const Segment& whole = blocks_[place.block][place.slot - 1];
      segments.emplace_back(whole.source, *place.cut, whole.end);
    }
    if (!segments.empty()) Splice(place, segments);
  }

  // True when no segment is empty or backward, and no position of the list can overflow: then the
  // segments lie one behind the other, as in most documents.
  bool AllHaveFrames() const noexcept { return index_.NoneShorterThan(1); }

  // Takes out what lies in `range`, which neither begins before the list nor runs backward, out of
  // a list whose segments all have frames. A segment that contains an end of the range is cut
  // there, also when the range is empty. Returns the segments that are gone as a whole. The
  // iteration is over.
  std::vector<Segment> Remove(const CSection& range) {
    std::vector<Segment> removed;
    if (Count() == 0) return removed;
    const Place first = FindPlace(range.begin);
    const Place last = FindPlace(range.end);
    if (first.cut && last.cut && OrdinalOf(first) == OrdinalOf(last)) {
      const Segment& whole = blocks_[last.block][last.slot - 1];
      std::vector<Segment> rest;
      rest.emplace_back(whole.source, *last.cut, whole.end);
      Splice(first, rest);
      cursor_.reset();
      return removed;
    }

    // The segment that the range ends in stays.
    const std::size_t past_removed = last.slot - (last.cut ? 1 : 0);
    removed.reserve(index_.OrdinalOf(last.block) + past_removed - OrdinalOf(first));
    const std::size_t touched = last.block - first.block + 1;
    std::vector<BlockSummary> summaries;
    summaries.reserve(touched);
    // Nothing fails from here on.
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

  // What lies in `range`, as segments of their own with the bounds clipped to it. Nothing empty
  // and nothing backward is kept.
  std::vector<Segment> Cut(const CSection& range) const {
    std::vector<Segment> pieces;
    // Growing step by step would move a long cut several times over.
    const std::size_t blocks = index_.FirstReaching(range.end) - index_.FirstReaching(range.begin);
    if (range.begin < range.end && blocks > 1) pieces.reserve((blocks + 1) * kBlockSize);
    ForEachPiece(range, [&](const Source& source, const CSection& piece) {
      pieces.emplace_back(source, piece.begin, piece.end);
    });
    return pieces;
  }

  // The same as a list, and all segments as a list: cheaper for many segments, because no array has
  // to hold them all.
  SegmentList CutList(const CSection& range) const {
    SegmentList pieces;
    ForEachPiece(range, [&](const Source& source, const CSection& piece) {
      pieces.Append({source, piece.begin, piece.end});
    });
    return pieces;
  }
  SegmentList Copy() const {
    SegmentList copy = *this;
    copy.cursor_.reset();
    return copy;
  }

  // All segments, whole, in order.
  std::vector<Segment> All() const {
    std::vector<Segment> all;
    all.reserve(Count());
    for (const auto& block : blocks_) all.insert(all.end(), block.begin(), block.end());
    return all;
  }

  // The iteration has one cursor. It stays on its segment whatever is inserted around it; null
  // past the last segment, from where it does not come back. The pointer is valid until the next
  // change of the list.
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
  using Block = std::vector<Segment>;

  template <class Take>
  void ForEachPiece(const CSection& range, Take&& take) const {
    if (range.begin >= range.end) return;
    // Without backward segments the pieces lie together, and the rest of the list can be left out.
    const bool in_order = index_.NoneShorterThan(0);
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

  // Where an insertion goes: before `slot` of `block`. With a cut, the segment before that slot is
  // divided at this position of its source.
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

  // A block without segments does no harm, should the segment it was meant for not arrive.
  void AddBlock() {
    index_.Reserve(1);
    Block block;
    // The first one grows with a short document; whoever needs more will fill them.
    if (!blocks_.empty()) block.reserve(kBlockSize);
    blocks_.push_back(std::move(block));
    index_.AddBlock();
  }

  // Inserts at a place and carries out its cut. All that can fail is done before anything changes.
  void Splice(const Place& place, std::vector<Segment>& segments) {
    if (blocks_.empty()) AddBlock();
    const std::size_t total = blocks_[place.block].size() + segments.size();
    const std::size_t parts = (total + kBlockSize - 1) / kBlockSize;
    // Equal shares, so that none of the blocks is full again after the next insertion.
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
